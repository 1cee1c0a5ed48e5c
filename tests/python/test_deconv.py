"""The Python module against deconv-restore on the same files, its reading of
numpy's types and layouts, and its errors; tests/CMakeLists.txt sets
PYTHONPATH, DECONV_RESTORE (the command) and DECONV_TESTDATA (the photographs)."""
import os
import subprocess
import tempfile
import unittest
import warnings

import numpy as np
import OpenImageIO as oiio

import deconv

RESTORE = os.environ.get("DECONV_RESTORE", "deconv-restore")
TESTDATA = os.environ["DECONV_TESTDATA"]


def picture(shape, seed=1):
    """A part of a photograph that `seed` picks, in 0..1, grey when `shape` is 2-D."""
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
        counts = np.round(unit * 1000)
        cases = {
            "int16 by 32767": ((unit * 32767).astype(np.int16), (unit * 32767).astype(np.int16) / np.float32(32767)),
            "bool as 0 and 1": (unit > 0.5, (unit > 0.5).astype(np.float32)),
            "big-endian uint16": ((unit * 65535).astype(">u2"), (unit * 65535).astype(np.uint16) / np.float32(65535)),
            "flipped view": (unit[::-1, ::-1], np.ascontiguousarray(unit[::-1, ::-1])),
            "channels last of a transpose": (unit.transpose(1, 0, 2), np.ascontiguousarray(unit.transpose(1, 0, 2))),
            "one channel of three dimensions": (unit[..., :1], unit[..., :1]),
            "int64 as counts": (counts.astype(np.int64), counts),
            "int32 as counts, negatives too": ((counts - 500).astype(np.int32), counts - 500),
            "uint32 as counts": (counts.astype(np.uint32), counts),
        }
        for name, (given, same) in cases.items():
            with self.subTest(name):
                result = deconv.restore(given, psf, strength=10, workers=1)
                self.assertEqual(result.shape, given.shape)
                np.testing.assert_array_equal(result, deconv.restore(same.astype(np.float32), psf, strength=10, workers=1))

    def test_counts_come_back_on_their_scale(self):
        counts = np.round(picture((48, 64), seed=3) * 1000).astype(np.int64)
        result = deconv.restore(counts, "gaussian:1", strength=10, workers=1)
        self.assertAlmostEqual(result[8:-8, 8:-8].mean() / counts[8:-8, 8:-8].mean(), 1, delta=0.02)

    def test_text_psfs_and_compressed_as_the_command_takes_them(self):
        blurred = (picture((64, 64, 3), seed=1) * 255).astype(np.uint8)  # chooses 52, or 65 as a JPEG
        psf = deconv.draw_psf("motion:9,30")  # every kind's drawing is the library's tests'
        np.testing.assert_array_equal(deconv.restore(blurred, "motion:9,30", strength=10, workers=1),
                                      deconv.restore(blurred, psf, strength=10, workers=1))
        jpeg = deconv.choose_strength(blurred, psf, compressed=True)
        self.assertGreater(jpeg, deconv.choose_strength(blurred, psf))
        self.assertEqual(deconv.choose_strength(blurred, "motion:9,30", compressed=True), jpeg)
        np.testing.assert_array_equal(deconv.restore(blurred, psf, compressed=True, workers=1, method="wiener"),
                                      deconv.restore(blurred, psf, strength=jpeg, workers=1))


class Estimation(unittest.TestCase):
    def test_a_motion_comes_back(self):
        psf = deconv.draw_psf("motion:9,0")  # horizontal: its middle row
        taps, half, sharp = psf[len(psf) // 2], len(psf) // 2, picture((256, 256))
        blurred = sum(np.roll(sharp, dx, axis=1) * w for dx, w in zip(range(-half, half + 1), taps)) / taps.sum()
        estimate, description = deconv.estimate_psf(blurred.astype(np.float32), max_size=15)
        self.assertEqual((description.split()[0], estimate.shape[0] % 2, estimate.max()), ("kernel", 1, 1))
        spread = [(s > 0.1 * s.max()).sum() for s in (estimate.sum(axis=0), estimate.sum(axis=1))]
        self.assertGreater(spread[0], 2 * spread[1])  # wide along x, narrow along y
        # Restored with it, the chosen strength is four times higher.
        chosen = deconv.choose_strength(blurred, estimate)
        self.assertLess(4 * chosen, 200)
        np.testing.assert_array_equal(
            deconv.restore(blurred, estimate, method="wiener", estimated_psf=True, workers=1),
            deconv.restore(blurred, estimate, method="wiener", strength=4 * chosen, workers=1))


class Stacks(unittest.TestCase):
    """A 3-D PSF makes the array a volume; a 2-D PSF keeps pictures and
    restores a stack plane by plane; more than four channels are refused."""

    def test_axes(self):
        rng = np.random.default_rng(5)
        stack = rng.poisson(20, (6, 40, 48)).astype(np.float32)
        z, y, x = np.mgrid[-2:3, -3:4, -3:4]
        psf3 = np.exp(-(x * x + y * y) / 2.0 - z * z / 3.0)
        volume = deconv.restore(stack, psf3, method="richardson-lucy", iterations=5, background=2)
        self.assertEqual((volume.shape, volume.dtype), (stack.shape, np.float32))
        self.assertGreaterEqual(volume.min(), 0)
        with self.assertWarnsRegex(UserWarning, "each of the stack's 6 planes"):
            planes = deconv.restore(stack, "gaussian:1", strength=10, workers=1, channel_axis=None)
        np.testing.assert_array_equal(planes[3], deconv.restore(stack[3], "gaussian:1", strength=10, workers=1))
        first = deconv.restore(np.moveaxis(stack[:3], 0, -1), "gaussian:1", strength=10, workers=1)
        np.testing.assert_array_equal(deconv.restore(stack[:3], "gaussian:1", strength=10, workers=1, channel_axis=0),
                                      np.moveaxis(first, -1, 0))
        for call, words in [(lambda: deconv.restore(stack[..., :5].transpose(1, 2, 0), "gaussian:1"), "channel_axis=None"),
                            (lambda: deconv.restore(stack[0], psf3, method="richardson-lucy"), "(Z, Y, X) stack")]:
            with self.subTest(words), self.assertRaises(deconv.Error) as raised:
                call()
            self.assertIn(words, str(raised.exception))

    def test_a_drawn_widefield_psf_is_a_volume_as_its_text(self):  # its shape is widefield_test's
        text = "widefield:1.2,520,1.33,200,400,7"
        psf = deconv.draw_psf(text)
        self.assertEqual((psf.shape[0], psf.dtype), (7, np.float32))
        stack = np.random.default_rng(2).poisson(30, (12, 40, 40)).astype(np.float32)
        rl = dict(method="richardson-lucy", iterations=3, workers=1)
        np.testing.assert_array_equal(deconv.restore(stack, text, **rl), deconv.restore(stack, psf, **rl))


class Dask(unittest.TestCase):
    """restore() as dask's block function on a distributed cluster: blocks
    with their overlap restore as the whole, travelling as numpy arrays, the
    workers' threads at once (the GIL is released inside)."""

    def test_map_overlap_on_a_cluster(self):
        import pickle
        import dask.array as da
        from distributed import Client, LocalCluster

        rng = np.random.default_rng(7)
        z, y, x = np.mgrid[-3:4, -3:4, -3:4]
        psf = np.exp(-(x * x + y * y) / 2.0 - z * z / 4.0).astype(np.float32)
        obj = np.zeros((24, 96, 96), np.float32)
        obj[tuple(rng.integers(0, s, 120) for s in obj.shape)] = rng.uniform(200, 1000, 120)
        kernel = np.roll(np.pad(psf / psf.sum(), [(0, s - 7) for s in obj.shape]), (-3, -3, -3), (0, 1, 2))
        blurred = np.real(np.fft.ifftn(np.fft.fftn(obj) * np.fft.fftn(kernel)))
        volume = rng.poisson(np.maximum(blurred, 0) + 5).astype(np.float32)
        # Without extrapolation the same operator on every block; 15 iterations reach well inside two PSFs.
        kwargs = dict(method="richardson-lucy", iterations=15, accelerate=False, workers=1)
        whole = deconv.restore(volume, psf, **kwargs)
        self.assertIs(pickle.loads(pickle.dumps(deconv.restore)), deconv.restore)
        with LocalCluster(n_workers=1, threads_per_worker=2, processes=False, protocol="tcp", host="127.0.0.1",
                          dashboard_address=None) as cluster, Client(cluster) as client:
            chunks = da.from_array(volume, chunks=(12, 48, 48))
            tiled = chunks.map_overlap(deconv.restore, depth=(14, 14, 14), boundary="none", dtype=np.float32,
                                       psf=psf, **kwargs)
            blocks = client.compute(tiled).result(timeout=120)
        self.assertEqual((blocks.shape, blocks.dtype), (volume.shape, np.float32))
        inner = (slice(7, -7),) * 3
        seam = np.abs(blocks - whole)[inner].max() / np.ptp(whole)
        self.assertLess(seam, 1e-3)
        # Without the overlap the blocks' own edges show.
        cut = chunks.map_blocks(deconv.restore, dtype=np.float32, psf=psf, **kwargs).compute(scheduler="sync")
        self.assertGreater(np.abs(cut - whole)[inner].max() / np.ptp(whole), 1e-2)


class StackFiles(unittest.TestCase):
    """deconv-restore reads a multi-page TIFF as a stack, plain, ImageJ
    hyperstack or OME as tifffile writes them, a bead stack as a 3-D PSF, and
    writes every page back where tifffile finds them."""

    def test_stacks_through_the_command(self):
        import tifffile
        rng = np.random.default_rng(7)
        stack = rng.poisson(300, (5, 40, 48)).astype(np.uint16)
        z, y, x = np.mgrid[-2:3, -3:4, -3:4]  # five planes: three would be taken for RGB
        bead = (np.exp(-(x * x + y * y) / 2.0 - z * z / 2.0) * 60000).astype(np.uint16)
        with tempfile.TemporaryDirectory() as work:
            path = lambda name: os.path.join(work, name)
            restore = lambda *args: subprocess.run([RESTORE, "--workers", "1"] + [path(a) if a.endswith(".tif") or
                                                   a.endswith(".png") else a for a in args], capture_output=True, text=True)
            tifffile.imwrite(path("plain.tif"), stack)
            tifffile.imwrite(path("bead.tif"), bead)
            tifffile.imwrite(path("hyper.tif"), np.stack([stack[:3], stack[1:4]], axis=1), imagej=True)
            tifffile.imwrite(path("ome.tif"), stack, ome=True, metadata={"axes": "ZYX"})
            with tifffile.TiffWriter(path("uneven.tif")) as uneven:
                uneven.write(stack[0])
                uneven.write(stack[1, :20])
            done = restore("--psf", "bead.tif", "--method", "richardson-lucy", "--iterations", "5", "--depth", "float",
                           "--save-psf", "kept.tif", "plain.tif", "volume.tif")
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertEqual(tifffile.imread(path("kept.tif")).shape, bead.shape)  # every plane of the PSF kept
            expected = deconv.restore(stack, bead.astype(np.float32), method="richardson-lucy", iterations=5, workers=1)
            np.testing.assert_array_equal(tifffile.imread(path("volume.tif")), expected)
            for source, shape in [("hyper.tif", (3, 2, 40, 48)), ("ome.tif", (5, 40, 48))]:
                with self.subTest(source):
                    done = restore("--psf", "gaussian:1", "--strength", "10", source, "out.tif")
                    self.assertEqual(done.returncode, 0, done.stderr)
                    with tifffile.TiffFile(path("out.tif")) as written:
                        self.assertTrue(written.is_imagej)
                        self.assertEqual((written.asarray().shape, written.asarray().dtype), (shape, np.uint16))
            for psf, given, out, words in [("gaussian:1", "uneven.tif", "refused.tif", "its pages differ: page 2 is 48 x 20"),
                                           ("gaussian:1", "plain.tif", "refused.png", "a stack of 5 planes is written as TIFF"),
                                           ("bead.tif", "plain.tif", "refused.tif", "richardson-lucy a 3-D one")]:
                with self.subTest(words):
                    done = restore("--psf", psf, given, out)
                    self.assertEqual(done.returncode, 11)
                    self.assertIn(words, done.stderr)
                    self.assertFalse(os.path.exists(path(out)))


class Light(unittest.TestCase):
    """light=, highlights= and the default method as the library takes them:
    "auto" reads uint8 arrays as sRGB-encoded for every method but the filter,
    and clipped samples are told of as a warning."""

    def test_auto_light_and_clipped_highlights(self):
        photo = (picture((40, 48)) * 255).astype(np.uint8)
        photo[5:9, 10:14] = 255
        rl = dict(method="richardson-lucy", iterations=6, workers=1)
        psf = deconv.draw_psf("gaussian:1.2")
        with warnings.catch_warnings(record=True) as said:
            warnings.simplefilter("always")
            auto = deconv.restore(photo, psf, **rl)
        self.assertEqual([str(w.message)[:13] for w in said], ["deconv: left "])
        np.testing.assert_array_equal(auto, deconv.restore(photo, psf, light="encoded", **rl))
        self.assertFalse(np.array_equal(auto, deconv.restore(photo, psf, light="linear", **rl)))
        # Floats and the filter are linear unless told otherwise.
        floats = photo / np.float32(255)
        np.testing.assert_array_equal(deconv.restore(floats, psf, highlights=None, **rl),
                                      deconv.restore(floats, psf, light="linear", highlights=None, **rl))
        np.testing.assert_array_equal(deconv.restore(photo, psf, strength=10),
                                      deconv.restore(photo, psf, strength=10, light="linear", method="wiener"))
        # The default method: the sparse prior in light for a photograph, the filter for the rest.
        np.testing.assert_array_equal(deconv.restore(photo, psf, workers=1),
                                      deconv.restore(photo, psf, method="sparse", light="encoded", workers=1))
        np.testing.assert_array_equal(deconv.restore(floats, psf, workers=1),
                                      deconv.restore(floats, psf, method="wiener", workers=1))
        np.testing.assert_array_equal(deconv.restore(photo, psf, estimated_psf=True, workers=1),
                                      deconv.restore(photo, psf, method="wiener", estimated_psf=True, workers=1))
        for given, words in [(dict(light="sRGB"), "light must be"), (dict(highlights=-1), "highlights must be")]:
            with self.subTest(words), self.assertRaises(deconv.Error) as raised:
                deconv.restore(photo, psf, **given)
            self.assertIn(words, str(raised.exception))

    def test_extrapolated_iterations_stay_bounded_in_dark_linear_light(self):
        # A dark photograph decoded to light, blurred without noise: where
        # extrapolation drove samples to 0 the iterations once diverged.
        encoded = read_floats(os.path.join(TESTDATA, "astronaut.png"))[100:260, 100:260, 0]
        linear = np.where(encoded <= 0.04045, encoded / 12.92, ((encoded + 0.055) / 1.055) ** 2.4)
        y, x = np.mgrid[-6:7, -6:7]
        psf = np.exp(-(x * x + y * y) / 8.0)
        kernel = np.fft.ifftshift(np.pad(psf / psf.sum(), ((80, 79), (80, 79))))
        wide = np.fft.fft2(np.pad(linear, 6, mode="symmetric")) * np.fft.fft2(kernel)
        blurred = np.real(np.fft.ifft2(wide))[6:-6, 6:-6].astype(np.float32)
        for iterations in (30, 60):
            restored = deconv.restore(blurred, psf, method="richardson-lucy", iterations=iterations, highlights=None)
            self.assertLess(restored.max(), 1.1)
            self.assertLess(np.abs(restored - linear).mean(), 0.7 * np.abs(blurred - linear).mean())


class Errors(unittest.TestCase):
    def test_refusals_carry_the_message_in_one_line(self):
        """Never pybind11's list of signatures with the arguments' reprs: an
        array's runs to hundreds of lines."""
        big = np.random.default_rng(1).random((300, 300)).astype(np.float32)
        psf = deconv.draw_psf("disk:2")
        cases = [
            (lambda: deconv.restore(big, np.zeros((3, 3))), deconv.Error, "positive weight"),
            (lambda: deconv.restore(big, psf, strength="high"), TypeError, "auto"),
            (lambda: deconv.restore(big[None, ..., None], psf), ValueError, "not an array of 4 axes"),
            (lambda: deconv.restore(big.astype(complex), psf), TypeError, "complex128"),
            (lambda: deconv.restore({"a": 1}, psf), deconv.Error, "the picture must be a numpy array, not dict"),
            (lambda: deconv.restore(big, psf, align=big), deconv.Error, "align must be True or False, not an array"),
            (lambda: deconv.restore(big, psf, workers=2.5), deconv.Error, "workers must be a whole number"),
            (lambda: deconv.restore(big, 3.0), deconv.Error, "the PSF must be a numpy array, not float"),
            (lambda: deconv.restore(big, psf, strength=big), deconv.Error, "strength must be a whole number"),
            (lambda: deconv.choose_strength(big, psf, compressed=big), deconv.Error, "compressed must be True or False"),
            (lambda: deconv.draw_psf(big), deconv.Error, "draw_psf takes a description"),
            (lambda: deconv.estimate_psf(big, max_size="big"), deconv.Error, "max_size must be a whole number"),
            (lambda: deconv.estimate_psf(big, region=big), deconv.Error, "region must be (x, y, width, height)"),
        ]
        for call, kind, words in cases:
            with self.subTest(words), self.assertRaises(kind) as raised:
                call()
            self.assertIn(words, str(raised.exception))
            self.assertNotIn("\n", str(raised.exception))
            self.assertLess(len(str(raised.exception)), 200)
        self.assertTrue(issubclass(deconv.Error, ValueError) and issubclass(deconv.Error, TypeError))

    def test_refused_or_repaired_with_a_warning(self):
        """What the library refuses is checks_test's: here its error is an
        exception, in numpy's order of axes, and its notice a warning."""
        blurred = picture((40, 56, 3), seed=2).astype(np.float32)
        holed = blurred.copy()
        holed[5, 7, 1] = holed[30, 2, 0] = np.inf
        star = np.pad(deconv.draw_psf("gaussian:2"), 9) + 0.02
        for given, psf, repair, refusal, warning in [
                (holed, "disk:2", "repair_nonfinite", "2 samples that are not finite (NaN or infinite), the first at "
                 "x 2, y 30, channel 0", "replaced 2 samples"),
                (blurred, star, "subtract_psf_background", "stands on a background", "background")]:
            with self.subTest(repair):
                with self.assertRaises(deconv.Error) as raised:
                    deconv.restore(given, psf, strength=10)
                self.assertIn(refusal, str(raised.exception))
                with self.assertWarnsRegex(UserWarning, warning):
                    self.assertTrue(np.isfinite(deconv.restore(given, psf, strength=10, **{repair: True})).all())


if __name__ == "__main__":
    unittest.main()
