#!/usr/bin/env bash
# deconv-restore against deconv on a 12-megapixel photograph (4000 x 3000,
# blurred, with grain), restored at the same strength with 2 workers and the
# same PSF file: JPEG in and out, and PNG in and out (deconv saves the latter
# at quality 100). For each, wall and CPU seconds and the peak resident memory
# of the run and of any converter it waits for, as medians of the repetitions,
# which take turns so that a noisy moment of the machine does not fall on one
# of them alone; then the ratios deconv-restore / deconv.
#   bench/restore_bench.sh [BUILD] [REPETITIONS]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
repetitions=${2:-5}
export PATH=/usr/bin:$PATH  # ImageMagick's own convert, not a stand-in
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

convert "$root/.cache/testdata/rocket.jpg" -resize '4000x3000!' -blur 0x1.5 -attenuate 0.5 +noise Gaussian \
  -quality 92 big.jpg
convert big.jpg big.png
# A PGM, which deconv reads itself: no converter runs for the PSF.
convert "$root/examples/motion_psf.png" psf.pgm

# TOOL FORMAT: one run; appends "WALL CPU PEAK_MIB" to TOOL-FORMAT.times.
run() {
  local command
  if [ "$1" = deconv ]; then
    command=("$build/deconv" "big.$2" psf.pgm "out.$2" 2 95 10)
  else
    command=("$build/deconv-restore" --psf psf.pgm --strength 10 --workers 2 "big.$2" "out.$2")
  fi
  rm -f "out.$2"
  /usr/bin/time -f '%e %U %S %M' -o usage "${command[@]}"
  awk '{ printf "%s %.2f %.1f\n", $1, $2 + $3, $4 / 1024 }' usage >>"$1-$2.times"
}
for _ in $(seq "$repetitions"); do
  for format in jpg png; do
    for tool in deconv restore; do run "$tool" "$format"; done
  done
done

# The median of column N of FILE.
median() { cut -d' ' -f"$2" "$1" | sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
echo
echo "deconv-restore against deconv: 4000 x 3000 colour, strength 10, 2 workers (medians of $repetitions runs; load: $(cut -d' ' -f1-3 /proc/loadavg))"
printf '%-11s | %-25s | %-25s | %s\n' "" "deconv" "deconv-restore" "restore / deconv"
printf '%-11s | %7s %7s %9s | %7s %7s %9s | %5s %5s %6s\n' "in and out" "wall s" "CPU s" "peak MiB" \
  "wall s" "CPU s" "peak MiB" "wall" "CPU" "memory"
for format in jpg png; do
  d=() r=()
  for column in 1 2 3; do
    d+=("$(median "deconv-$format.times" $column)")
    r+=("$(median "restore-$format.times" $column)")
  done
  awk -v f="${format^^}" -v dw="${d[0]}" -v dc="${d[1]}" -v dm="${d[2]}" -v rw="${r[0]}" -v rc="${r[1]}" -v rm="${r[2]}" \
    'BEGIN { printf "%-11s | %7.2f %7.2f %9.0f | %7.2f %7.2f %9.0f | %5.2f %5.2f %6.2f\n", f, dw, dc, dm, rw, rc, rm, rw / dw, rc / dc, rm / dm }'
done
