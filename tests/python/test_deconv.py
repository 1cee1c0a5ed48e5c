"""The Python module against deconv-restore on the same files, its reading of
numpy's types and layouts, its threads, and its errors.

Runs with the module's folder on PYTHONPATH, DECONV_RESTORE naming the
command and DECONV_TESTDATA the photographs (tests/CMakeLists.txt sets them)."""
import concurrent.futures
import os
import subprocess
import tempfile
import unittest

import numpy as np
import OpenImageIO as oiio

import deconv

RESTORE = os.environ.get("DECONV_RESTORE", "deconv-restore")
TESTDATA = os.environ["DECONV_TESTDATA"]


def picture(shape, seed=1):
    """A part of a photograph, in 0..1, grey when `shape` is 2-D; `seed`
    picks the part."""
    photo = read_floats(os.path.join(TESTDATA, "astronaut.png"))
    top, left = 40 * seed, 30 * seed
    part = photo[top:top + 2 * shape[0]:2, left:left + 2 * shape[1]:2, :shape[2] if len(shape) == 3 else 3]
    return part if len(shape) == 3 else part.mean(axis=2)


def write_picture(path, array):
    header = oiio.ImageSpec(array.shape[1], array.shape[0], array.shape[2] if array.ndim == 3 else 1,
                            {np.uint8: "uint8", np.uint16: "uint16", np.float32: "float"}[array.dtype.type])
    out = oiio.ImageOutput.create(path)
    # The binding takes a 2-D array for something else than one channel.
    samples = np.ascontiguousarray(array.reshape(array.shape[:2] + (-1,)))
    assert out.open(path, header) and out.write_image(samples) and out.close(), out.geterror()


def read_floats(path):
    return oiio.ImageBuf(path).get_pixels(oiio.FLOAT)


class SameAsCommand(unittest.TestCase):
    def test_restores_as_deconv_restore(self):
        psf = "motion:9,30"
        for dtype, shape, align in [(np.uint8, (48, 64), False), (np.uint8, (40, 56, 3), True),
                                    (np.uint16, (48, 64), True), (np.uint16, (40, 56, 3), False),
                                    (np.float32, (48, 64), False), (np.float32, (40, 56, 3), True)]:
            with self.subTest(dtype=dtype.__name__, shape=shape, align=align), tempfile.TemporaryDirectory() as work:
                scale = np.iinfo(dtype).max if dtype != np.float32 else 1
                blurred = (picture(shape) * scale).astype(dtype)
                source = os.path.join(work, "in.exr" if dtype == np.float32 else "in.png")
                out = os.path.join(work, "out.exr")
                write_picture(source, blurred)
                subprocess.run([RESTORE, "--psf", psf, "--strength", "10", "--workers", "1", "--depth", "float"] +
                               ([] if align else ["--no-align"]) + [source, out], check=True)
                result = deconv.restore(blurred, deconv.draw_psf(psf), strength=10, align=align, workers=1)
                self.assertEqual((result.dtype, result.shape), (np.float32, blurred.shape))
                np.testing.assert_array_equal(result.reshape(result.shape[:2] + (-1,)), read_floats(out))


class Reading(unittest.TestCase):
    """Every type and layout is read as its equivalent in float32 0..1; a
    PSF's first channel counts, whatever its type."""

    def test_types_and_layouts(self):
        psf = deconv.draw_psf("gaussian:1.5")
        unit = picture((32, 40, 3), seed=2)
        cases = {
            "int16 by 32767": ((unit * 32767).astype(np.int16), (unit * 32767).astype(np.int16) / np.float32(32767)),
            "bool as 0 and 1": (unit > 0.5, (unit > 0.5).astype(np.float32)),
            "big-endian uint16": ((unit * 65535).astype(">u2"), (unit * 65535).astype(np.uint16) / np.float32(65535)),
            "flipped view": (unit[::-1, ::-1], np.ascontiguousarray(unit[::-1, ::-1])),
            "channels last of a transpose": (unit.transpose(1, 0, 2), np.ascontiguousarray(unit.transpose(1, 0, 2))),
            "one channel of three dimensions": (unit[..., :1], unit[..., :1]),
        }
        for name, (given, same) in cases.items():
            with self.subTest(name):
                result = deconv.restore(given, psf, strength=10, workers=1)
                self.assertEqual(result.shape, given.shape)
                np.testing.assert_array_equal(result, deconv.restore(same.astype(np.float32), psf, strength=10, workers=1))
        coloured = np.stack([psf, np.ones_like(psf), np.zeros_like(psf)], axis=2).astype(np.float64)
        np.testing.assert_array_equal(deconv.restore(unit, coloured, strength=10, workers=1),
                                      deconv.restore(unit, psf, strength=10, workers=1))

    def test_auto_strength_is_the_chosen_one(self):
        blurred = (picture((48, 48, 3), seed=4) * 255).astype(np.uint8)
        psf = deconv.draw_psf("motion:9,30")
        chosen = deconv.choose_strength(blurred, psf)
        self.assertTrue(1 <= chosen <= 200)
        np.testing.assert_array_equal(deconv.restore(blurred, psf, workers=1),
                                      deconv.restore(blurred, psf, strength=chosen, workers=1))


class Threads(unittest.TestCase):
    def test_eight_threads_as_one(self):
        blurred = (picture((96, 128, 3), seed=5) * 255).astype(np.uint8)
        psf = deconv.draw_psf("motion:9,30")
        alone = deconv.restore(blurred, psf, strength=10, workers=1)
        with concurrent.futures.ThreadPoolExecutor(8) as pool:
            results = list(pool.map(lambda _: deconv.restore(blurred, psf, strength=10, workers=1), range(8)))
        for result in results:
            np.testing.assert_array_equal(result, alone)
        self.assertEqual([n for n in os.listdir("/dev/shm") if n.startswith("sem.deconv.%d." % os.getpid())], [])


class Estimation(unittest.TestCase):
    def test_a_motion_comes_back_and_a_flat_picture_is_refused(self):
        psf = deconv.draw_psf("motion:9,0")  # horizontal: its middle row
        taps, half, sharp = psf[len(psf) // 2], len(psf) // 2, picture((256, 256))
        blurred = sum(np.roll(sharp, dx, axis=1) * w for dx, w in zip(range(-half, half + 1), taps)) / taps.sum()
        estimate, description = deconv.estimate_psf(blurred.astype(np.float32), max_size=15)
        self.assertEqual((description.split()[0], estimate.shape[0] % 2, estimate.max()), ("kernel", 1, 1))
        spread = [(s > 0.1 * s.max()).sum() for s in (estimate.sum(axis=0), estimate.sum(axis=1))]
        self.assertGreater(spread[0], 2 * spread[1])  # wide along x, narrow along y
        with self.assertRaises(deconv.Error):
            deconv.estimate_psf(np.full((200, 200), 0.5, np.float32))


class Errors(unittest.TestCase):
    def test_refusals_carry_the_message(self):
        blurred = np.full((32, 32), 0.5, np.float32)
        psf = deconv.draw_psf("box:3,3")
        cases = [
            (lambda: deconv.restore(blurred, np.zeros((3, 3))), deconv.Error, "positive weight"),
            (lambda: deconv.restore(blurred, psf, strength=201), deconv.Error, "0 to 200"),
            (lambda: deconv.restore(blurred, psf, strength="high"), TypeError, "auto"),
            (lambda: deconv.restore(blurred, psf, workers=0), deconv.Error, "workers"),
            (lambda: deconv.restore(blurred[None, ..., None], psf), ValueError, "not 4-D"),
            (lambda: deconv.restore(blurred.astype(complex), psf), TypeError, "complex128"),
            (lambda: deconv.restore(np.ones((200, 40)), deconv.draw_psf("box:25,25"), strength=10), deconv.Error, "too small"),
            (lambda: deconv.draw_psf("blob:1"), deconv.Error, "unknown kind 'blob'"),
        ]
        for call, kind, words in cases:
            with self.subTest(words):
                with self.assertRaises(kind) as raised:
                    call()
                self.assertIn(words, str(raised.exception))
        self.assertTrue(issubclass(deconv.Error, ValueError))


if __name__ == "__main__":
    unittest.main()
