"""The library's working memory a sample, the figures lib/tiles.cpp plans
tiles by: the peak resident memory a restoration adds, each size in a fresh
process, less the picture and its result (4 bytes a sample each, in the
library, and again as numpy arrays), over the samples of the grid the method
works on (Richardson-Lucy's extended by the PSF).

    PYTHONPATH=build/python /usr/bin/python3 bench/tile_footprint.py
"""
import subprocess
import sys

ONE = r"""
import resource, sys, numpy as np, deconv
method, z, y, x, p = sys.argv[1], *map(int, sys.argv[2:6])
rng = np.random.default_rng(1)
shape = (z, y, x) if z > 1 else (y, x)
image = np.empty(shape, np.float32)  # no wider temporary to lift the peak before
rng.random(out=image, dtype=np.float32)
image += 1
psf = np.ones((p,) * len(shape), np.float32)
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
exact = method == "exact"
method = "wiener" if exact else method
out = deconv.restore(image, psf, exact=exact, method=method, iterations=3, strength=10, workers=2)
after = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
print((after - before) * 1024)
"""


def good(n):
    while True:
        m = n
        for f in (2, 3, 5, 7):
            while m % f == 0:
                m //= f
        if m == 1:
            return n
        n += 1


def main():
    print("method          shape            bytes a working sample")
    for method, z, y, x, p in [("richardson-lucy", 32, 256, 256, 9), ("richardson-lucy", 64, 512, 512, 9),
                               ("richardson-lucy", 1, 2048, 2048, 9), ("wiener", 1, 2048, 2048, 9),
                               ("wiener", 1, 4096, 4096, 9), ("exact", 1, 2048, 2048, 9)]:
        grown = subprocess.run([sys.executable, "-c", ONE, method, str(z), str(y), str(x), str(p)],
                               capture_output=True, text=True, check=True)
        added = int(grown.stdout) - 4 * 2 * z * y * x  # the library's copy and result; numpy's result
        if method == "richardson-lucy":
            grid = good(y + p - 1) * good(x + p - 1) * (good(z + p - 1) if z > 1 else 1)
        else:
            grid = y * x
        print(f"{method:15} {z}x{y}x{x:<10} {added / grid:6.1f}")


if __name__ == "__main__":
    main()
