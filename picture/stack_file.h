// Stacks on disk: a multi-page TIFF of equal pages is a stack of planes (a
// z-stack, a bead's 3-D image). Pages are planes along z; an ImageJ
// hyperstack's or an OME-TIFF's pages of several channels are sorted into
// the channels their description names. A stack is written as TIFF pages
// with an ImageJ description, which tifffile and ImageJ read as (Z, Y, X).
#ifndef DECONV_PICTURE_STACK_FILE_H
#define DECONV_PICTURE_STACK_FILE_H

#include <OpenImageIO/imageio.h>

#include <string>

#include "deconv/deconv.h"

// The planes' order in a stack of `pages` pages: how many channels they
// hold, and whether a page's channel changes before its plane (ImageJ's
// order, OME's XYCZT) or after.
struct StackOrder {
  int channels = 1;
  bool channel_fastest = true;
};

// What the first page's description says of the pages' order.
StackOrder stack_order(const OIIO::ImageSpec& first_page);

// The description a stack is written with, for tifffile and ImageJ.
std::string imagej_description(const deconv::Image& stack);

#endif
