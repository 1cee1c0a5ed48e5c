#!/usr/bin/env bash
# `cmake --install` into a temporary prefix: exactly the files listed in
# installed_files.txt, every manual page rendering without a warning, and the
# installed commands restoring the installed example from a folder outside
# the source tree.
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

cd "$work"
examples=$prefix/share/doc/deconv/examples
"$prefix/bin/deconv-psf" motion 9 45 psf.png
"$prefix/bin/deconv" "$examples/astronaut_blurred.png" "$examples/motion_psf.png" restored.png 2
"$prefix/bin/deconv" "$examples/astronaut_blurred.png" psf.png with-drawn.png 2
[ "$(identify -format '%w %h' restored.png)" = "320 320" ]
[ "$(identify -format '%w %h' with-drawn.png)" = "320 320" ]
