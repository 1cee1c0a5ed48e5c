#!/usr/bin/env bash
# Small faults that a careless edit could bring in, one in each part of the
# product: each is put in alone, the suite runs, and the first test that fails
# is printed ("MISSED" when none does). The suite is only as good as this list
# says.
#   [REVISION=COMMIT] bench/faults.sh [FIRST [LAST]]   (fault numbers, 1-based)
# It works on a worktree of HEAD under build-faults/ (the checkout is left as
# it is): commit what the suite should be tried on.
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$root/build-faults
first=${1:-1} last=${2:-1000}

# FILE|TEXT|REPLACEMENT|WHAT: TEXT must occur exactly once in FILE.
faults=(
  'engine/channel_solve.cpp|const V g = s * r;|const V g = r;|the filter drops the fidelity weight S'
  'engine/psf_support.cpp|(long long)ceilf(w * 0.5f)|(long long)floorf(w * 0.5f)|the PSF is re-centred one pixel off in x'
  'engine/edge_taper.cpp|const int m = (t - h) + p - n;|const int m = (t - h) + p - n + 1;|the far taper band ramps one pixel late'
  'spectral/convolution.cpp|(i + x0 + width / 2) % width|(i + x0 + width / 2 + 1) % width|the kernel lands one pixel off in the convolution'
  'tool/value_range.h|return scaled == scaled ? (unsigned int)scaled : 0;|return scaled == scaled ? (unsigned int)(scaled + 0.5f) : 0;|results rounded instead of truncated'
  'tool/image_io.cpp|load_with_converter(img, path, imagemagick);|load_with_converter(img, path, graphicsmagick);|GraphicsMagick tried before ImageMagick'
  'psf/kernels.cpp|dy = -std::sin(angle)|dy = std::sin(angle)|a drawn motion turns the wrong way'
  'psf/kernels.cpp|inside += px * px + py * py <= radius * radius;|inside += px * px + py * py < radius * radius + 1;|a drawn disk is too large'
  'strength/choice.cpp|std::min(200, 2 * std::max(|std::min(200, 3 * std::max(|the chosen strength is 3/2 of its choice'
  'commands/batch/deconv-batch|for try in 1 2; do|for try in 1; do|a failed picture is not tried again'
  'commands/batch/deconv-batch|if ! deconv_batch_measure 1 "$PWD/$out"|if ! deconv_batch_measure 0 "$PWD/$out"|a result counts when only its header is there'
  'commands/batch/deconv-batch|cp -- "$staged" "$spare" && mv -f -- "$spare" "$output"|cp -- "$staged" "$spare" && mv -f -- "$spare" "${output%.*}"|a result from another machine renamed wrongly'
  'strength/choice.cpp|2 * std::max(all.best(1, 200), coarse_band.best(1, 200))|2 * std::min(all.best(1, 200), coarse_band.best(1, 200))|the strength takes the smaller of its two criteria'
  'tool/converters.cpp|{"./convert", "./im_mac/bin/convert", "./mactools/im_mac/bin/convert"}|{"./im_mac/bin/convert", "./convert", "./mactools/im_mac/bin/convert"}|local converters searched in the wrong order'
  'lib/restore.cpp|if (options.align) align(result);|if (!options.align) align(result);|align inverted'
  'picture/picture_file.cpp|unit ? 65535.0f : 0.0f|unit ? 65536.0f : 0.0f|16-bit samples divided by 65536'
  'commands/restore/options.cpp|whole_number(value.c_str(), 0, 200, command.strength)|whole_number(value.c_str(), 0, 2000, command.strength)|deconv-restore takes strengths above 200'
  'python/module.cpp|image.at(x, y, c) = (float)v / scale;|image.at(x, y, c) = (float)v / 255.0f;|Python integers of every type divided by 255'
  'estimate/kernel_step.cpp|const double sx = x - half + cx, sy = y - half + cy;|const double sx = x - half + cx + 0.5, sy = y - half + cy;|an estimated PSF half a pixel off centre'
  'picture/picture_file.cpp|in->format_name()) == "jpeg"|in->format_name()) == "jpg"|a JPEG not known for one'
  'lib/checks.h|psf_pedestal_limit = 0.05|psf_pedestal_limit = 0.5|a star cut with its sky restored as it is'
  'lib/checks.cpp|filled.emplace_back(i, median(around));|filled.emplace_back(i, 0.0f);|samples that are not finite repaired as 0'
  'psf/named.cpp|if (!(kind->reach(values) <= (widest - 1) / 2))|if (odd_side(kind->reach(values)) > widest)|a blur too wide for int drawn as a small picture'
  'estimate/trust.cpp|return {low, high - low};|return {low, 1.0};|a faint plane judged by its type'"'"'s range'
  'commands/restore/sharpness.h|least_sharpening = 1.1;|least_sharpening = 0.5;|a result no sharper than its picture not reported'
  'picture/fits_file.cpp|for (int row = image.height - 1; row >= 0; --row)|for (int row = 0; row < image.height; ++row)|FITS rows written top first'
  'picture/format_details.cpp|(standard_luminance[i] * scale + 50) / 100|(standard_luminance[i] * scale) / 100|JPEG tables scaled without rounding: qualities misread'
  'picture/picture_file.cpp|if (S_ISREG(status.st_mode) && status.st_size == 0)|if (S_ISREG(status.st_mode) && status.st_size < 0)|an empty file is left to the readers'
)

# The worktree stays between runs, so that a second run rebuilds only what
# changed since.
head=$(git -C "$root" rev-parse "${REVISION:-HEAD}")
if [ -d "$work/src/.git" ] || [ -f "$work/src/.git" ]; then
  git -C "$work/src" checkout -q -- . && git -C "$work/src" checkout -q --detach "$head" || exit 2
else
  git -C "$root" worktree prune
  git -C "$root" worktree add -q --detach "$work/src" "$head" || exit 2
fi
cp -r "$root/.cache" "$work/src/" 2>/dev/null
cmake -S "$work/src" -B "$work/build" -DCMAKE_BUILD_TYPE=Release >/dev/null || exit 2
n=0
for fault in "${faults[@]}"; do
  n=$((n + 1))
  [ $n -ge "$first" ] && [ $n -le "$last" ] || continue
  IFS='|' read -r file text replacement what <<<"$fault"
  (cd "$work/src" && git checkout -q -- .)
  if ! FILE=$work/src/$file TEXT=$text NEW=$replacement python3 -c '
import os, sys
path, text, new = os.environ["FILE"], os.environ["TEXT"], os.environ["NEW"]
source = open(path).read()
if source.count(text) != 1: sys.exit(1)
open(path, "w").write(source.replace(text, new))'; then
    printf '%2d  %-55s NOT APPLIED (%s)\n' $n "$what" "$file"
    continue
  fi
  if ! cmake --build "$work/build" -j 2 >"$work/build.log" 2>&1; then
    printf '%2d  %-55s does not build\n' $n "$what"
    continue
  fi
  (cd "$work/build" && ctest -j 2 --stop-on-failure --output-on-failure >"$work/fault-$n.log" 2>&1)
  caught=$(sed -n 's/^[[:space:]]*[0-9]* - \(.*\) (.*)$/\1/p' "$work/fault-$n.log" | head -1)
  printf '%2d  %-55s %s\n' $n "$what" "${caught:-MISSED}"
done
(cd "$work/src" && git checkout -q -- .)
