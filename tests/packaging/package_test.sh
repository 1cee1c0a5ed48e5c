#!/usr/bin/env bash
# The Debian package: its control fields, its files (installed_files.txt under
# /usr), no lintian errors. On a disposable machine (CI: as root, with
# DECONV_DISPOSABLE_MACHINE=1) also installed, used as users would, removed.
set -euo pipefail
build=$1 here=$(cd "$(dirname "$0")" && pwd)
out=$(mktemp -d) work=$(mktemp -d)
trap 'rm -rf "$out" "$work"' EXIT

cpack --config "$build/CPackConfig.cmake" -B "$out" >/dev/null
deb=$(echo "$out"/deconv_*_amd64.deb)
[ "$(dpkg-deb -f "$deb" Package)" = deconv ]
dpkg-deb -f "$deb" Version | grep -qE '^[0-9]+\.[0-9]+\.[0-9]+$'
depends=$(dpkg-deb -f "$deb" Depends)
for needed in 'imagemagick | graphicsmagick' parallel libfftw3-single3 libstdc++6 libc6 libopenimageio2.4 \
              'python3 (>= 3.11~), python3 (<< 3.12)' python3-numpy; do
  [[ $depends == *"$needed"* ]] || { echo "Depends lacks $needed: $depends"; exit 1; }
done
[ "$(dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./shlibs ./triggers)" = $'libdeconv 1 deconv (>= 1.0.0)\nactivate-noawait ldconfig' ]
diff <(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./usr/||' | sort) "$here/installed_files.txt"
errors=$(lintian "$deb" 2>&1 | grep '^E:' || true)
[ -z "$errors" ] || { echo "$errors"; exit 1; }

if [ "${DECONV_DISPOSABLE_MACHINE:-}" = 1 ] && [ "$(id -u)" = 0 ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >/dev/null
  trap 'DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq deconv >/dev/null; rm -rf "$out" "$work"' EXIT
  cd "$work"
  examples=/usr/share/doc/deconv/examples
  deconv $examples/astronaut_blurred.png $examples/motion_psf.png out.png 2
  deconv-restore --psf motion:9,45 $examples/astronaut_blurred.png restored.png
  [ "$(identify -format '%w %h ' out.png restored.png)" = "320 320 320 320 " ]
  # shellcheck disable=SC2046  # pkg-config's words are separate arguments
  g++ -o consumer "$here/consumer/main.cpp" $(pkg-config --cflags --libs deconv)
  [ "$(./consumer | head -n 1)" = "64x48x3 0.5000 0.5000" ]
  /usr/bin/python3 -c "import deconv; assert deconv.__file__.startswith('/usr/lib/python3/dist-packages/')"
  DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq deconv >/dev/null
  trap 'rm -rf "$out" "$work"' EXIT
  [ ! -e /usr/bin/deconv ] && [ ! -e /usr/lib/x86_64-linux-gnu/libdeconv.so.1 ]
fi
