// PSF pictures of the common blurs. Each is a square of odd side, its middle
// pixel at the blur's centre (where a run of deconv takes a PSF's origin),
// with one plane of taps scaled so that the largest is 1. Blurs that do not
// fall on whole pixels are anti-aliased: a pixel holds the share of the blur
// that lies in it.
#ifndef DECONV_PSF_KERNELS_H
#define DECONV_PSF_KERNELS_H

#include "imaging/cimg_config.h"

using cimg_library::CImg;

// A Gaussian of standard deviation `sigma` pixels, sampled at pixel centres
// out to 3 sigma from the middle (a disk of that radius; nothing beyond).
CImg<float> gaussian_psf(double sigma);

// A straight, evenly weighted line of `length` pixels through the middle, at
// `degrees` counter-clockwise from the +x axis as the picture is seen (y grows
// downwards in the picture, so 90 degrees points up).
CImg<float> motion_psf(double length, double degrees);

// A uniform disk of `radius` pixels (defocus), each edge pixel holding the
// share of its area inside the circle.
CImg<float> disk_psf(double radius);

// A uniform rectangle of `width` x `height` pixels, centred; a width that is
// not an odd whole number ends in partly covered columns.
CImg<float> box_psf(double width, double height);

// The largest sample of the file a PSF needs: 255 unless some tap that is not
// zero would come out as 0 in 8 bits, then 65535.
unsigned int file_maximum(const CImg<float>& psf);

// The side of the picture that a blur reaching `reach` pixels from the middle
// needs: odd, with a pixel to spare.
int odd_side(double reach);

#endif
