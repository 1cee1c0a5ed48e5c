"""bench/camera_photos.py forms the same cases every time, as a camera would,
and bench/camera_bench.py's scoring finds what it claims to find.

Runs with the module's folder on PYTHONPATH (tests/CMakeLists.txt sets it);
skipped without scikit-image, which the bench needs."""
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
class Formation(unittest.TestCase):
    def test_psfs_are_centred_odd_squares_of_unit_weight(self):
        rng = np.random.default_rng(3)
        for kind in camera_photos.KINDS * 3:
            with self.subTest(kind=kind):
                psf, words = camera_photos.random_psf(kind, rng)
                self.assertEqual((psf.shape[0], psf.shape[0] % 2), (psf.shape[1], 1))
                self.assertAlmostEqual(float(psf.sum()), 1, places=5)
                ys, xs = np.mgrid[0:psf.shape[0], 0:psf.shape[1]] - psf.shape[0] // 2
                # Off by more than half a pixel, every blurred case would sit
                # beside its sharp crop.
                self.assertLess(abs(float((psf * ys).sum())), 0.5, words)
                self.assertLess(abs(float((psf * xs).sum())), 0.5, words)

    def test_srgb_decodes_as_the_standard_has_it(self):
        self.assertAlmostEqual(float(camera_photos.srgb_to_linear(0.5)), 0.21404, places=5)
        self.assertAlmostEqual(float(camera_photos.srgb_to_linear(0.04)), 0.04 / 12.92, places=7)
        self.assertAlmostEqual(float(camera_photos.linear_to_srgb(0.18)), 0.461356, places=5)
        levels = np.arange(256) / 255
        np.testing.assert_array_equal(camera_photos.to_bytes(camera_photos.linear_to_srgb(
            camera_photos.srgb_to_linear(levels))), np.arange(256))

    def test_a_case_is_formed_the_same_twice_and_as_a_camera_would(self):
        lit = camera_photos.camera_case(5, 0, "shake", True, 7)
        again = camera_photos.camera_case(5, 0, "shake", True, 7)
        np.testing.assert_array_equal(lit["blurred"], again["blurred"])
        self.assertEqual(lit["params"], again["params"])
        plain = camera_photos.camera_case(5, 0, "shake", False, 7)
        self.assertFalse(plain["mask"].any())
        # Outside the lamps, the sharp crop is the photograph's own bytes.
        photo = camera_photos.read_photo("astronaut.png", False)
        p = plain["params"]
        crop = photo[p["top"]:p["top"] + p["height"], p["left"]:p["left"] + p["width"]]
        np.testing.assert_array_equal(camera_photos.to_bytes(camera_photos.linear_to_srgb(plain["scene"])),
                                      camera_photos.to_bytes(crop))
        # Lamps are several times the full scale before the blur and clip at
        # the full scale after it.
        self.assertTrue(lit["mask"].any())
        self.assertGreaterEqual(float(lit["scene"][lit["mask"]].min()), 3)
        cy, cx = lit["params"]["lights"][0][:2]
        self.assertEqual(int(lit["blurred"][cy, cx].max()), 255)

    def test_sensor_noise_grows_with_the_signal_and_the_iso(self):
        rng = np.random.default_rng(5)
        flat = np.full((200, 200), 0.05)
        spread = {(iso, level): float(np.std(camera_photos.expose(flat * level, iso, 0.5, rng)[1]))
                  for iso in (100, 3200) for level in (1, 12)}
        for iso, photons in [(100, 4000), (3200, 125)]:
            # Shot noise: the spread grows as the root of the signal, and
            # is the root of the electrons collected (within 10 %).
            self.assertAlmostEqual(spread[iso, 12] / spread[iso, 1], np.sqrt(12), delta=0.2 * np.sqrt(12))
            self.assertAlmostEqual(spread[iso, 12], np.sqrt(0.6 / photons), delta=0.1 * np.sqrt(0.6 / photons))
        # Above the full scale, everything reads as the full scale.
        np.testing.assert_array_equal(camera_photos.expose(flat * 40, 3200, 3, rng)[1], 1)

    def test_blurred_as_the_module_deblurs(self):
        # A convolution, not a correlation: the module restores the true PSF
        # better than its mirror image.
        psf = camera_photos.shake_psf(15, np.random.default_rng(4))
        m = psf.shape[0] // 2
        scene = camera_photos.with_margin(camera_photos.read_photo("camera.png", True), 100, 100, 160, 160, m)
        blurred = camera_photos.blur(scene, psf).astype(np.float32)
        sharp = camera_photos.to_bytes(scene[m:-m, m:-m])
        scorer = camera_bench.Scorer(sharp, psf.shape[0], [], m)
        true, mirrored = (scorer.score(camera_photos.to_bytes(deconv.restore(blurred, k, strength=2, workers=1)))["psnr"]
                          for k in (psf, psf[::-1, ::-1].copy()))
        self.assertGreater(true, mirrored + 1)


@unittest.skipUnless(HAVE_SKIMAGE, "scikit-image is not installed (scripts/setup.sh bench)")
class Scoring(unittest.TestCase):
    def setUp(self):
        self.sharp = camera_photos.to_bytes(camera_photos.read_photo("camera.png", True)[:96, :128])

    def test_offsets_within_two_pixels_are_forgiven_and_beyond_are_not(self):
        scorer = camera_bench.Scorer(self.sharp, 9, [], 4)
        for dy, dx, forgiven in [(0, 0, True), (1, -2, True), (-2, 2, True), (2, 0, True), (3, 0, False),
                                 (0, -3, False)]:
            with self.subTest(dy=dy, dx=dx):
                moved = np.roll(self.sharp, (dy, dx), axis=(0, 1))
                score = scorer.score(moved)
                self.assertEqual(score["psnr"] > 90, forgiven)
                if forgiven:
                    self.assertAlmostEqual(score["ssim"], 1, places=6)

    def test_the_band_and_the_lamps_annulus_see_only_their_own_pixels(self):
        lights = [[48, 64, 1.0, 10]]
        scorer = camera_bench.Scorer(self.sharp, 9, lights, 4)
        edges = self.sharp.copy()
        edges[:4] = 0
        self.assertLess(scorer.score(edges)["band"], -20)
        near = self.sharp.copy()
        near[48, 78] ^= 0x40  # 14 pixels off: within 4 PSF radii
        far = self.sharp.copy()
        far[48, 90] ^= 0x40
        core = self.sharp.copy()
        core[48, 64] ^= 0x40
        self.assertGreater(scorer.score(near)["ring_rms"], 0)
        self.assertEqual((scorer.score(far)["ring_rms"], scorer.score(core)["ring_rms"]), (0, 0))
        self.assertIsNone(camera_bench.Scorer(self.sharp, 9, [], 4).score(near)["ring_rms"])

    def test_ratios_fail_on_refusals(self):
        rows = [{"case": "a", "pipeline": "w", "source": "true", "ssd": 2.0, "refused": None},
                {"case": "a", "pipeline": "w", "source": "blind", "ssd": 5.0, "refused": None},
                {"case": "b", "pipeline": "w", "source": "true", "ssd": 2.0, "refused": None},
                {"case": "b", "pipeline": "w", "source": "blind", "ssd": 1.0, "refused": "too noisy"}]
        ratios = [r.get("ratio") for r in camera_bench.with_ratios(rows)]
        self.assertEqual(ratios, [None, 2.5, None, np.inf])


if __name__ == "__main__":
    unittest.main()
