#!/usr/bin/env bash
# `cmake --install` into a temporary prefix: exactly installed_files.txt, man
# pages without warnings, the commands, libdeconv exporting only namespace
# deconv, programs built through pkg-config and find_package, the Python module.
set -euo pipefail
build=$1 here=$(cd "$(dirname "$0")" && pwd)
prefix=$(mktemp -d) work=$(mktemp -d)
trap 'rm -rf "$prefix" "$work"' EXIT

cmake --install "$build" --prefix "$prefix" >/dev/null
diff <(cd "$prefix" && find . -type f -o -type l | sed 's|^\./||' | sort) "$here/installed_files.txt"

for page in "$prefix"/share/man/man1/*.1.gz; do
  warnings=$(zcat "$page" | groff -ww -z -man 2>&1)
  [ -z "$warnings" ] || { echo "$page: $warnings"; exit 1; }
  MANWIDTH=80 man -l "$page" 2>&1 >/dev/null | (! grep .)
done

# Outside /usr the programs and the module find libdeconv by the path only.
libdir=$prefix/lib/x86_64-linux-gnu
export LD_LIBRARY_PATH=$libdir

cd "$work"
examples=$prefix/share/doc/deconv/examples
"$prefix/bin/deconv-psf" motion 9 45 psf.png
"$prefix/bin/deconv" "$examples/astronaut_blurred.png" "$examples/motion_psf.png" restored.png 2
"$prefix/bin/deconv" "$examples/astronaut_blurred.png" psf.png with-drawn.png 2
"$prefix/bin/deconv-restore" --psf "$examples/motion_psf.png" "$examples/astronaut_blurred.png" restored.exr
[ "$(identify -format '%w %h ' restored.png with-drawn.png restored.exr)" = "320 320 320 320 320 320 " ]
nm -D --defined-only "$libdir/libdeconv.so.1" | c++filt | (! grep -v ' deconv::')

consumer=$here/consumer
# shellcheck disable=SC2046  # pkg-config's words are separate arguments
g++ -o with-pkg-config "$consumer/main.cpp" $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs deconv)
cmake -S "$consumer" -B with-cmake -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build with-cmake >/dev/null
for program in ./with-pkg-config with-cmake/consumer; do
  diff <("$program" | cut -c1-43) - <<'EOF'
64x48x3 0.5000 0.5000
PSF 'blob:1': unknown kind 'blob': gaussian
EOF
done

PYTHONPATH=$prefix/lib/python3/dist-packages /usr/bin/python3 -c "
import deconv, sys
assert deconv.__file__.startswith(sys.argv[1]), deconv.__file__
assert deconv.draw_psf('disk:2').shape == (5, 5)" "$prefix"
