"""What a Python user would reach for: scikit-image's restoration.wiener on a
float32 picture, channel by channel, balance 1 (the product's strength 10).
Prints the CPU and wall seconds of the median of REPS calls.

    python3 wiener_reference.py WIDTH HEIGHT CHANNELS REPS
"""
import sys
import time

import numpy as np
from skimage import restoration

width, height, channels, reps = (int(a) for a in sys.argv[1:5])
rng = np.random.default_rng(1)
picture = rng.random((height, width, channels), dtype=np.float32)
y, x = np.mgrid[-6:7, -6:7]
psf = np.exp(-(x * x + y * y) / 8.0)
psf /= psf.sum()
runs = []
for _ in range(reps):
    cpu, wall = time.process_time(), time.perf_counter()
    for c in range(channels):
        restoration.wiener(picture[..., c], psf, 1.0)
    runs.append((time.process_time() - cpu, time.perf_counter() - wall))
runs.sort()
print("%.4f %.4f" % runs[len(runs) // 2])
