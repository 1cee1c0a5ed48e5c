"""Restoration in linear light and around a clipped lamp, on pictures formed
as a camera forms them: a photograph's stored values decoded to light and
exposed with headroom, a lamp far above the sensor's range set in, blurred in
light, Poisson noise, clipped at full range, sRGB-encoded, 8 bits.

For each picture and PSF: the PSNR (encoded, 0..1, against the sharp picture
as the camera would have stored it) of richardson-lucy on the stored values
and in linear light, each with and without the clipped highlights left out,
stopped automatically; the PSNR away from the lamp; the rings about it (the
root mean square of each 1-pixel ring's mean error, tests/lib/light_test.cpp's
measure); and the best PSNR of a grid of fixed iteration counts, which sets
the automatic stop aside. Then the Wiener filter (strength chosen) on stored
values and in light.

    PYTHONPATH=build/python /usr/bin/python3 bench/light_bench.py
"""
import os
import sys
import time
import warnings

import numpy as np
from scipy.signal import fftconvolve
from skimage import io

import deconv

TESTDATA = "/usr/lib/python3/dist-packages/skimage/data"  # public-domain photographs Debian ships


def decode(v):
    v = np.asarray(v, np.float64)
    return np.where(v <= 0.04045, v / 12.92, ((v + 0.055) / 1.055) ** 2.4)


def encode(v):
    v = np.clip(np.asarray(v, np.float64), 0, 1)
    return np.where(v <= 0.0031308, v * 12.92, 1.055 * v ** (1 / 2.4) - 0.055)


def scene(name, top, left, lamp_at, size=256):
    photo = io.imread(os.path.join(TESTDATA, name))
    grey = photo[..., :3].mean(axis=2) if photo.ndim == 3 else photo
    light = decode(grey[top:top + size, left:left + size] / 255.0) * 0.7  # headroom, as an exposure leaves
    yy, xx = np.mgrid[:size, :size]
    r = np.hypot(yy - lamp_at[0], xx - lamp_at[1])
    light[r < 4] = 12.0
    return light, r


def form(light, psf, photons, rng):
    pad = psf.shape[0]
    blurred = fftconvolve(np.pad(light, pad, mode="reflect"), psf / psf.sum(), mode="same")[pad:-pad, pad:-pad]
    counted = rng.poisson(np.maximum(blurred, 0) * photons) / photons
    return np.round(encode(np.minimum(counted, 1)) * 255).astype(np.uint8)


def psnr(out, truth, where):
    mse = np.mean((np.clip(out, 0, 1) - truth)[where] ** 2)
    return 10 * np.log10(1 / mse)


def rings(out, truth, r, inner, outer=45):
    means = [np.mean((np.clip(out, 0, 1) - truth)[(r >= k) & (r < k + 1)]) for k in range(inner, outer)]
    return float(np.sqrt(np.mean(np.square(means))))


def main():
    rng = np.random.default_rng(7)
    cases = [("chelsea.png", 40, 100, (80, 120)), ("coffee.png", 100, 200, (150, 90))]
    blurs = ["gaussian:2", "motion:11,30"]
    print("picture      blur          RL: stored  +mask   light  +mask | away: stored +mask light +mask |"
          " rings: stored  +mask  light  +mask | best: stored +mask light +mask | wiener: stored light")
    totals = []
    for name, top, left, lamp in cases:
        light, r = scene(name, top, left, lamp)
        truth = encode(np.minimum(light, 1))
        for blur in blurs:
            psf = deconv.draw_psf(blur)
            data = form(light, psf, 3000, rng)
            reach = 4 + psf.shape[0] // 2 + 1
            away = r > 30
            row, far, ring, best = [], [], [], []
            with warnings.catch_warnings():
                warnings.simplefilter("ignore")
                for lit in ("linear", "encoded"):
                    for highlights in (None, "auto"):
                        out = deconv.restore(data, psf, method="richardson-lucy", light=lit, highlights=highlights)
                        row.append(psnr(out, truth, slice(None)))
                        far.append(psnr(out, truth, away))
                        ring.append(rings(out, truth, r, reach))
                        best.append(max(psnr(deconv.restore(data, psf, method="richardson-lucy", light=lit,
                                                            highlights=highlights, iterations=k), truth, slice(None))
                                        for k in (4, 8, 12, 18, 27)))
                wiener = [psnr(deconv.restore(data, psf, light=lit), truth, slice(None)) for lit in ("linear", "encoded")]
            blurred = psnr(data / 255.0, truth, slice(None))
            values = row + far + ring + best + wiener + [blurred]
            totals.append(values)
            print(("%-12s %-12s " % (name, blur)) + line % tuple(values))
            sys.stdout.flush()
    print(("%-26s" % "mean") + line % tuple(np.mean(totals, axis=0)))
    # The cost of the round trip in a whole restoration, the transforms'
    # plans made before either is timed (CPU time: the machine is shared).
    big = np.random.default_rng(1).integers(0, 256, (3000, 4000), np.uint8)
    seconds = {}
    for lit in ("linear", "encoded", "linear", "encoded"):
        started = time.process_time()
        deconv.restore(big, np.ones((1, 1), np.float32), method="richardson-lucy", iterations=1, light=lit,
                       highlights=None, workers=1)
        seconds[lit] = time.process_time() - started
    print("12 Mpixel, one iteration of a delta PSF, one worker: %.2f s CPU in light, %.2f s on stored values"
          % (seconds["encoded"], seconds["linear"]))


line = ("%6.2f %6.2f %6.2f %6.2f | %6.2f %6.2f %6.2f %6.2f | %7.4f %6.4f %6.4f %6.4f | %6.2f %6.2f %6.2f %6.2f |"
        " %6.2f %6.2f   (blurred %5.2f)")


if __name__ == "__main__":
    main()
