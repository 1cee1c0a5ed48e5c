#!/usr/bin/env bash
# Many pictures on this machine: 24 real photographs of about 2 megapixels
# (1600 x 1200 JPEGs made from Debian's sample photographs, enlarged, with
# grain), restored by a plain serial loop of `deconv ... 2` and by
# deconv-batch with its defaults (a run per core, one worker each). Prints
# pictures per minute both ways and the ratio, each the better of two rounds
# taken in turn, and the most that the cores allow: their count over the CPU
# time that one picture of the serial loop costs. ImageMagick's own convert
# comes first on the PATH.
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
  convert -quiet "$root/.cache/testdata/$photo" "${flip[@]}" -resize '1600x1200^' -gravity center -extent 1600x1200 \
    -strip -colorspace sRGB -type TrueColor -attenuate 0.4 +noise Gaussian -quality 92 "pic$i.jpg"
  printf 'pic%s.jpg\tpsf.png\tbatch/pic%s.jpg\n' "$i" "$i" >>manifest
done

# "WALL CPU" of a command in seconds, its children's CPU included.
seconds() { /usr/bin/time -f '%e %U %S' -o times "$@" && awk '{ print $1, $2 + $3 }' times; }
serial() { mkdir -p serial; for i in $(seq 0 23); do "$build/deconv" "pic$i.jpg" psf.png "serial/pic$i.jpg" 2; done; }
batch() { rm -f manifest.joblog; "$build/deconv-batch" manifest 2>/dev/null; }
export -f serial batch
export build
best_serial=999999 best_batch=999999
for round in 1 2; do
  read -r s serial_cpu < <(seconds bash -c serial)
  read -r b batch_cpu < <(seconds bash -c batch)
  best_serial=$(echo "if ($s < $best_serial) $s else $best_serial" | bc)
  best_batch=$(echo "if ($b < $best_batch) $b else $best_batch" | bc)
done
per_minute() { echo "scale=1; 24 * 60 / $1" | bc; }
echo "24 pictures of 1600 x 1200 on $(nproc) cores:"
printf '  serial loop of deconv ... 2: %6.1f s, %5s pictures a minute\n' "$best_serial" "$(per_minute "$best_serial")"
printf '  deconv-batch:                %6.1f s, %5s pictures a minute\n' "$best_batch" "$(per_minute "$best_batch")"
printf '  deconv-batch / serial loop: %s x\n' "$(echo "scale=2; $best_serial / $best_batch" | bc)"
# Last round's CPU per picture, the lesser of the two ways: no schedule beats
# the cores' count over it.
least_cpu=$(echo "if ($serial_cpu < $batch_cpu) $serial_cpu else $batch_cpu" | bc)
ceiling=$(echo "scale=1; $(nproc) * 60 * 24 / $least_cpu" | bc)
printf '  CPU a picture: serial loop %.2f s, deconv-batch %.2f s\n' "$(echo "$serial_cpu / 24" | bc -l)" "$(echo "$batch_cpu / 24" | bc -l)"
printf '  the cores allow at most %s pictures a minute: %s x the serial loop; deconv-batch reaches %s %% of it\n' \
  "$ceiling" "$(echo "scale=2; $ceiling * $best_serial / 1440" | bc)" "$(echo "scale=0; 100 * 1440 / $best_batch / $ceiling" | bc)"
