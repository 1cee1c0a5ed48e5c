#!/usr/bin/env bash
# The Debian package that CPack makes: its control fields, its files (those of
# installed_files.txt under /usr) and lintian without errors. On a disposable
# machine (CI sets DECONV_DISPOSABLE_MACHINE=1, and must run as root) it is
# also installed with apt-get, restores the example from outside the source
# tree with the installed command, and is removed again.
set -euo pipefail
build=$1 here=$(cd "$(dirname "$0")" && pwd)
out=$(mktemp -d) work=$(mktemp -d)
trap 'rm -rf "$out" "$work"' EXIT

cpack --config "$build/CPackConfig.cmake" -B "$out" >/dev/null
deb=$(echo "$out"/deconv_*_amd64.deb)
[ "$(dpkg-deb -f "$deb" Package)" = deconv ]
dpkg-deb -f "$deb" Version | grep -qE '^[0-9]+\.[0-9]+\.[0-9]+$'
depends=$(dpkg-deb -f "$deb" Depends)
for needed in 'imagemagick | graphicsmagick' parallel libfftw3-single3 libstdc++6 libc6; do
  [[ $depends == *"$needed"* ]] || { echo "Depends lacks $needed: $depends"; exit 1; }
done
diff <(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./usr/||' | sort) "$here/installed_files.txt"
errors=$(lintian "$deb" 2>&1 | grep '^E:' || true)
[ -z "$errors" ] || { echo "$errors"; exit 1; }

if [ "${DECONV_DISPOSABLE_MACHINE:-}" = 1 ] && [ "$(id -u)" = 0 ]; then
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >/dev/null
  cd "$work"
  status=0
  deconv /usr/share/doc/deconv/examples/astronaut_blurred.png /usr/share/doc/deconv/examples/motion_psf.png out.png 2 ||
    status=$?
  DEBIAN_FRONTEND=noninteractive apt-get remove -y -qq deconv >/dev/null
  [ $status = 0 ] && [ "$(identify -format '%w %h' out.png)" = "320 320" ] && [ ! -e /usr/bin/deconv ]
fi
