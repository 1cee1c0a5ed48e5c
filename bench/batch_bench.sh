#!/usr/bin/env bash
# What deconv-batch costs beside plain runs of deconv, on pictures cut from
# Debian's sample photographs (JPEGs with grain):
#   - its overhead a picture: 60 pictures of 32 x 32, one run at a time
#     (deconv-batch -j 1 against a serial loop of `deconv ... 1`);
#   - 40 pictures of 320 x 240 and 16 of 1200 x 900 (1.08 megapixels), with
#     its defaults, against a serial loop of `deconv ... 2`;
#   - on the large ones, the share it reaches of what the cores allow: their
#     count over the CPU seconds that a lone run of `deconv ... 1` costs.
# Every figure is the better of two rounds taken in turn. ImageMagick's own
# convert comes first on the PATH.
#   bench/batch_bench.sh [BUILD]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
export PATH=/usr/bin:$PATH
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

photos=(astronaut.png rocket.jpg camera.png coffee.png chelsea.png hubble_deep_field.jpg motorcycle_left.png retina.jpg)
"$build/deconv-psf" gaussian 1.5 psf.png
# SET COUNT SIZE: pictures SET/pic-N.jpg and the manifest SET.tsv.
pictures() {
  mkdir -p "$1"
  for i in $(seq "$2"); do
    convert -quiet "$root/.cache/testdata/${photos[$((i % 8))]}" -resize "$3^" -gravity center -extent "$3" \
      -roll +$((i * 7))+$((i * 3)) -strip -colorspace sRGB -type TrueColor -attenuate 0.4 +noise Gaussian -quality 92 "$1/pic-$i.jpg"
    printf '%s/pic-%s.jpg\tpsf.png\tout/%s/pic-%s.jpg\n' "$1" "$i" "$1" "$i" >>"$1.tsv"
  done
}
pictures tiny 60 32x32
pictures small 40 320x240
pictures large 16 1200x900

# "WALL CPU" of a command in seconds, its children's CPU included.
seconds() { /usr/bin/time -f '%e %U %S' -o times "$@" && awk '{ print $1, $2 + $3 }' times; }
loop() { while IFS=$'\t' read -r input psf output; do "$build/deconv" "$input" "$psf" "$work/loop.jpg" "$1"; done <"$2"; }
batch() { rm -rf out "${@: -1}.joblog"; "$build/deconv-batch" "$@" 2>/dev/null; }
export -f loop batch
export build work
# SET: "LOOP1 LOOP2 BATCH1 BATCH CPU1 CPU", the best wall times of a loop of
# `deconv ... 1`, of `deconv ... 2`, of deconv-batch -j 1 and with its
# defaults, and the least CPU seconds of the loop of `deconv ... 1` and of
# deconv-batch with its defaults.
measure() {
  local best=(999999 999999 999999 999999 999999 999999) round i wall cpu
  for round in 1 2; do
    i=0
    for command in "loop 1 $1.tsv" "loop 2 $1.tsv" "batch -j 1 $1.tsv" "batch $1.tsv"; do
      read -r wall cpu < <(seconds bash -c "$command")
      best[$i]=$(echo "if ($wall < ${best[$i]}) $wall else ${best[$i]}" | bc)
      [ $i != 0 ] || best[4]=$(echo "if ($cpu < ${best[4]}) $cpu else ${best[4]}" | bc)
      [ $i != 3 ] || best[5]=$(echo "if ($cpu < ${best[5]}) $cpu else ${best[5]}" | bc)
      i=$((i + 1))
    done
  done
  echo "${best[@]}"
}
read -r loop1 _ batch1 _ _ _ < <(measure tiny)
read -r _ small_loop _ small_batch _ _ < <(measure small)
read -r _ large_loop _ large_batch large_cpu batch_cpu < <(measure large)

echo "deconv-batch on $(nproc) cores, the better of two rounds:"
printf '  overhead a picture, 60 of 32 x 32 one at a time: %s ms (deconv-batch -j 1 %s s, a loop of deconv ... 1 %s s)\n' \
  "$(echo "scale=1; 1000 * ($batch1 - $loop1) / 60" | bc)" "$batch1" "$loop1"
printf '  40 of 320 x 240: deconv-batch %s s, a loop of deconv ... 2 %s s: %s x the loop\n' \
  "$small_batch" "$small_loop" "$(echo "scale=2; $small_loop / $small_batch" | bc)"
printf '  16 of 1200 x 900: deconv-batch %s s, a loop of deconv ... 2 %s s: %s x the loop\n' \
  "$large_batch" "$large_loop" "$(echo "scale=2; $large_loop / $large_batch" | bc)"
# No schedule restores faster than the cores' count over one lone run's CPU.
ceiling=$(echo "scale=3; $(nproc) / ($large_cpu / 16)" | bc)
printf '  a lone run of 1200 x 900 costs %.2f s of CPU (in deconv-batch %.2f s): the cores allow %.2f pictures a second, deconv-batch reaches %s %% of it\n' \
  "$(echo "$large_cpu / 16" | bc -l)" "$(echo "$batch_cpu / 16" | bc -l)" "$ceiling" "$(echo "scale=0; 100 * 16 / $large_batch / $ceiling" | bc)"
