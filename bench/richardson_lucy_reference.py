"""scikit-image's richardson_lucy on the phantoms bench_richardson_lucy wrote:
its PSNR at every iteration up to MOST (its own loop, step for step), and
the CPU seconds of its function for 20 iterations. Prints one line:
    best_iteration best_psnr psnr_at_20 cpu_20 cpu_20_in_double

    python3 richardson_lucy_reference.py FOLDER Z Y X PZ PY PX BACKGROUND MOST [time]
"""
import sys
import time

import numpy as np
from scipy.signal import convolve
from skimage.restoration import richardson_lucy

folder = sys.argv[1]
z, y, x, pz, py, px = (int(a) for a in sys.argv[2:8])
background, most = float(sys.argv[8]), int(sys.argv[9])
timing = len(sys.argv) > 10
data = np.fromfile(folder + "/data.raw", np.float32).reshape(z, y, x)
psf = np.fromfile(folder + "/psf.raw", np.float32).reshape(pz, py, px)
truth = np.fromfile(folder + "/truth.raw", np.float32).reshape(z, y, x)
# scikit-image has no background: it is taken off the data, as its users do.
image = np.clip(data - background, 0, None).astype(np.float32)
peak = truth.max()


def psnr(estimate):
    return 10 * np.log10(peak * peak / np.mean((estimate - truth) ** 2))


cpu = cpu64 = -1.0
if timing:
    most = 0
    # In single precision, and in double, as it takes a uint16 stack.
    start = time.process_time()
    richardson_lucy(image, psf, num_iter=20, clip=False)
    cpu = time.process_time() - start
    start = time.process_time()
    richardson_lucy(image.astype(np.float64), psf, num_iter=20, clip=False)
    cpu64 = time.process_time() - start
best, best_at, at_20 = -1e9, 0, 0.0
estimate = np.full(image.shape, 0.5, dtype=np.float32)
mirror = np.flip(psf)
for k in range(1, most + 1):
    conv = convolve(estimate, psf, mode="same") + 1e-12
    estimate *= convolve(image / conv, mirror, mode="same")
    value = psnr(estimate)
    if value > best:
        best, best_at = value, k
    if k == 20:
        at_20 = value
print("%d %.3f %.3f %.3f %.3f" % (best_at, best, at_20, cpu, cpu64))
