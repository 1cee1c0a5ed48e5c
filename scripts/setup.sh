#!/usr/bin/env bash
# Installs what the project needs to build, test and run, from Debian's
# packages, and unpacks the public-domain test photographs. Quick when all is
# present already.
set -euo pipefail

packages=(g++ make cmake cimg-dev libfftw3-dev imagemagick graphicsmagick
          googletest libgtest-dev libbenchmark-dev curl python3 gzip
          clang libclang-rt-14-dev dpkg-dev lintian man-db groff-base
          parallel rsync openssh-server openssh-client time bc
          libopenimageio-dev openimageio-tools pkg-config libcfitsio-dev
          pybind11-dev python3-dev python3-numpy python3-openimageio
          python3-astropy python3-tifffile python3-dask python3-distributed)
# `setup.sh bench`: also what the benchmarks compare against.
[ "${1:-}" = bench ] && packages+=(python3-skimage)
root=$(cd "$(dirname "$0")/.." && pwd)
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
updated=0
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  $sudo apt-get update -qq
  updated=1
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
fi

# Photographs for the tests and benchmarks, as Debian's python3-skimage ships
# them: NASA's portrait of Eileen Collins and the Hubble deep field, SpaceX's
# launch of DSCOVR (public domain), a cameraman, a cup of coffee, a cat, a
# motorcycle and a retina. Only these files are unpacked; nothing is
# installed, and none of them is committed.
data="$root/.cache/testdata"
photos=(astronaut.png rocket.jpg camera.png coffee.png chelsea.png hubble_deep_field.jpg motorcycle_left.png retina.jpg)
missing_photo=0
for photo in "${photos[@]}"; do [ -f "$data/$photo" ] || missing_photo=1; done
if [ $missing_photo = 1 ]; then
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  if ! (cd "$work" && apt-get download -qq python3-skimage >/dev/null 2>&1); then
    [ $updated -eq 1 ] || $sudo apt-get update -qq
    (cd "$work" && apt-get download -qq python3-skimage >/dev/null)
  fi
  dpkg-deb -x "$work"/python3-skimage_*.deb "$work/x"
  mkdir -p "$data"
  for photo in "${photos[@]}"; do cp "$work/x/usr/lib/python3/dist-packages/skimage/data/$photo" "$data/"; done
fi
