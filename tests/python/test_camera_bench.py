"""The camera bench measures what it claims: the standard's sRGB curve, the
convolution the module undoes, scoring that forgives small offsets only."""
import importlib.util
import os
import sys
import unittest

import numpy as np

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "bench"))
HAVE_SKIMAGE = importlib.util.find_spec("skimage") is not None and importlib.util.find_spec("scipy") is not None
if HAVE_SKIMAGE:
    import camera_bench
    import camera_photos

    import deconv


@unittest.skipUnless(HAVE_SKIMAGE, "scikit-image is not installed (scripts/setup.sh bench)")
class Measurement(unittest.TestCase):
    def test_srgb_decodes_as_the_standard_has_it(self):
        self.assertAlmostEqual(float(camera_photos.srgb_to_linear(0.5)), 0.21404, places=5)
        self.assertAlmostEqual(float(camera_photos.srgb_to_linear(0.04)), 0.04 / 12.92, places=7)
        levels = np.arange(256) / 255
        np.testing.assert_array_equal(camera_photos.to_bytes(camera_photos.linear_to_srgb(
            camera_photos.srgb_to_linear(levels))), np.arange(256))

    def test_blurred_as_the_module_deblurs(self):
        # A convolution, not a correlation: the module restores the true PSF
        # better than its mirror image.
        psf = camera_photos.shake_psf(15, np.random.default_rng(4))
        m = psf.shape[0] // 2
        scene = camera_photos.with_margin(camera_photos.read_photo("camera.png", True), 100, 100, 160, 160, m)
        blurred = camera_photos.blur(scene, psf).astype(np.float32)
        scorer = camera_bench.Scorer(camera_photos.to_bytes(scene[m:-m, m:-m]), psf.shape[0], [], m)
        true, mirrored = (scorer.score(camera_photos.to_bytes(deconv.restore(blurred, k, strength=2, workers=1)))["psnr"]
                          for k in (psf, psf[::-1, ::-1].copy()))
        self.assertGreater(true, mirrored + 1)

    def test_offsets_within_two_pixels_are_forgiven_and_beyond_are_not(self):
        sharp = camera_photos.to_bytes(camera_photos.read_photo("camera.png", True)[:96, :128])
        scorer = camera_bench.Scorer(sharp, 9, [], 4)
        for dy, dx, forgiven in [(0, 0, True), (-2, 2, True), (3, 0, False), (0, -3, False)]:
            with self.subTest(dy=dy, dx=dx):
                self.assertEqual(scorer.score(np.roll(sharp, (dy, dx), axis=(0, 1)))["psnr"] > 90, forgiven)


if __name__ == "__main__":
    unittest.main()
