"""What a background under a PSF costs a restoration: camera.png's middle,
blurred by a Gaussian cut at several sizes, restored with the PSF lifted by a
pedestal. The pedestal is given as its share of the PSF's weight (the border's floor
over the PSF's mean sample); the loss is in dB of PSNR against the
restoration with the clean PSF. lib/checks.h's psf_pedestal_limit is set from
this table. Run: python3 bench/pedestal_bench.py BUILD/python TESTDATA"""
import sys

sys.path.insert(0, sys.argv[1])
import numpy as np
import OpenImageIO as oiio

import deconv

photo = oiio.ImageBuf(sys.argv[2] + "/camera.png").get_pixels(oiio.FLOAT)
photo = (photo[..., 0] if photo.ndim == 3 else photo)[100:400, 100:400].astype(np.float32)


def blurred_by(psf):
    kernel = np.zeros_like(photo)
    kernel[:psf.shape[0], :psf.shape[1]] = psf / psf.sum()
    kernel = np.roll(kernel, (-(psf.shape[0] // 2), -(psf.shape[1] // 2)), (0, 1))
    out = np.real(np.fft.ifft2(np.fft.fft2(photo) * np.fft.fft2(kernel))).astype(np.float32)
    return out + np.random.default_rng(1).normal(0, 0.005, out.shape).astype(np.float32)


def psnr(x):
    m = 64  # beyond the edge band of the largest PSF, which the pedestal widens
    return 10 * np.log10(1 / np.mean((x[m:-m, m:-m] - photo[m:-m, m:-m]) ** 2))


# The lifted PSF goes in a frame of zeros, which the restoration sees as the
# same PSF but the check does not see as one on a background.
def framed(psf):
    return np.pad(psf, 1)


print("sigma  cut  share  pedestal/peak  loss dB  lowest sample")
for sigma, side in [(1.5, 11), (2, 31), (2, 63), (4, 63)]:
    drawn = deconv.draw_psf("gaussian:%g" % sigma)
    psf = np.zeros((side, side), np.float32)
    o = (side - drawn.shape[0]) // 2
    psf[o:o + drawn.shape[0], o:o + drawn.shape[0]] = drawn
    picture = blurred_by(psf)
    clean = psnr(deconv.restore(picture, framed(psf), strength=10, workers=1))
    for share in [0.01, 0.02, 0.05, 0.1, 0.2, 0.5]:
        pedestal = share * psf.mean() / (1 - share)
        lifted = deconv.restore(picture, framed(psf + pedestal), strength=10, workers=1)
        print("%5.1f %4d %6.2f %14.4f %8.2f %8.3f" % (sigma, side, share, pedestal, clean - psnr(lifted), lifted.min()))
