#!/usr/bin/env bash
# Makes examples/strength_strip.png: one noisy blurred picture, and its
# restorations by deconv at STRENGTH 0, 3, 10, 30 and 100, side by side.
# The picture: a 200 x 200 crop of the bundled photograph's source (NASA,
# public domain), blurred by ImageMagick's Gaussian of sigma 2, with grain
# of a fixed seed, kept at 8 bits; the PSF is deconv-psf's.
#   scripts/strength_strip.sh [BUILD]     (BUILD holds deconv and deconv-psf)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

convert "$root/.cache/testdata/astronaut.png" -crop 200x200+150+40 +repage sharp.png
convert sharp.png -morphology Convolve Gaussian:0x2 -seed 7 -attenuate 0.6 +noise Gaussian -depth 8 noisy.png
"$build/deconv-psf" gaussian 2 psf.png
tiles=(-label "blurred, with noise" noisy.png)
for strength in 0 3 10 30 100; do
  "$build/deconv" noisy.png psf.png "s$strength.png" 2 95 "$strength"
  tiles+=(-label "STRENGTH $strength" "s$strength.png")
done
montage "${tiles[@]}" -tile 6x1 -geometry +4+4 -pointsize 15 -background white "$root/examples/strength_strip.png"
echo "examples/strength_strip.png"
