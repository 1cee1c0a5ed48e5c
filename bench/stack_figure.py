"""Remakes examples/stack_before_after.png: the maximum projections of a
phantom z-stack of curved filaments, blurred by a 3-D Gaussian PSF with
Poisson noise on a background (left), and restored by deconv.restore with
richardson-lucy and its automatic stop (right).

    PYTHONPATH=build/python python3 bench/stack_figure.py [OUTPUT.png]
"""
import sys

import numpy as np
import OpenImageIO as oiio
from scipy.signal import fftconvolve

import deconv

rng = np.random.default_rng(3)
truth = np.zeros((40, 160, 160), np.float32)
for _ in range(14):
    point, direction = rng.uniform((5, 10, 10), (35, 150, 150)), rng.normal(size=3)
    for _ in range(500):
        direction += rng.normal(scale=0.12, size=3)
        direction[0] *= 0.6
        point += 0.5 * direction / np.linalg.norm(direction)
        z, y, x = point.astype(int)
        if not (0 <= z < 40 and 0 <= y < 160 and 0 <= x < 160):
            break
        truth[z, y, x] = 120
z, y, x = np.mgrid[-9:10, -7:8, -7:8]
psf = np.exp(-(x * x + y * y) / (2 * 1.8 ** 2) - z * z / (2 * 3.5 ** 2)).astype(np.float32)
blurred = rng.poisson(fftconvolve(truth, psf / psf.sum(), mode="same").clip(0) + 10).astype(np.float32)
restored = deconv.restore(blurred, psf, method="richardson-lucy", background=10)


def projection(stack):
    top = stack.max(axis=0) - 10 * (stack is blurred)
    return np.clip(top / np.percentile(top, 99.8), 0, 1)


picture = np.concatenate([projection(blurred), np.ones((160, 8)), projection(restored)], axis=1)
samples = np.ascontiguousarray((picture * 255).astype(np.uint8)[..., None])  # (H, W, 1): one channel
path = sys.argv[1] if len(sys.argv) > 1 else "examples/stack_before_after.png"
out = oiio.ImageOutput.create(path)
assert out.open(path, oiio.ImageSpec(samples.shape[1], samples.shape[0], 1, "uint8"))
assert out.write_image(samples) and out.close()
