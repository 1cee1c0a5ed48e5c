#!/usr/bin/env bash
# Many pictures on this machine: 24 real photographs of about 2 megapixels
# (1600 x 1200 JPEGs made from Debian's sample photographs, enlarged, with
# grain), restored by a plain serial loop of `deconv ... 2` and by
# deconv-batch with its defaults (a run per core, one worker each). Prints
# pictures per minute both ways and the ratio, each the better of two rounds
# taken in turn. ImageMagick's own convert comes first on the PATH.
#   bench/batch_bench.sh [BUILD]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
export PATH=/usr/bin:$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

photos=(astronaut.png rocket.jpg camera.png coffee.png chelsea.png hubble_deep_field.jpg motorcycle_left.png retina.jpg)
"$build/deconv-psf" gaussian 2 psf.png
for i in $(seq 0 23); do
  photo=${photos[$((i % 8))]} flip=(); [ $((i / 8)) = 1 ] && flip=(-flop); [ $((i / 8)) = 2 ] && flip=(-flip)
  convert "$root/.cache/testdata/$photo" "${flip[@]}" -resize '1600x1200^' -gravity center -extent 1600x1200 \
    -strip -colorspace sRGB -type TrueColor -attenuate 0.4 +noise Gaussian -quality 92 "pic$i.jpg"
  printf 'pic%s.jpg\tpsf.png\tbatch/pic%s.jpg\n' "$i" "$i" >>manifest
done

seconds() { local start=$(date +%s.%N); "$@"; echo "$(date +%s.%N) - $start" | bc; }
serial() { mkdir -p serial; for i in $(seq 0 23); do "$build/deconv" "pic$i.jpg" psf.png "serial/pic$i.jpg" 2; done; }
batch() { rm -f manifest.joblog; "$build/deconv-batch" manifest 2>/dev/null; }
best_serial=999999 best_batch=999999
for round in 1 2; do
  s=$(seconds serial) b=$(seconds batch)
  best_serial=$(echo "if ($s < $best_serial) $s else $best_serial" | bc)
  best_batch=$(echo "if ($b < $best_batch) $b else $best_batch" | bc)
done
per_minute() { echo "scale=1; 24 * 60 / $1" | bc; }
echo "24 pictures of 1600 x 1200 on $(nproc) cores:"
printf '  serial loop of deconv ... 2: %6.1f s, %5s pictures a minute\n' "$best_serial" "$(per_minute "$best_serial")"
printf '  deconv-batch:                %6.1f s, %5s pictures a minute\n' "$best_batch" "$(per_minute "$best_batch")"
printf '  deconv-batch / serial loop: %s x\n' "$(echo "scale=2; $best_serial / $best_batch" | bc)"
