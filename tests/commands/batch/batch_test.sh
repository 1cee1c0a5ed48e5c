#!/usr/bin/env bash
# deconv-batch as users run it, one case per call: batch_test.sh BUILD CASE.
# Every result is compared byte for byte with a run alone; 77 skips a case.
set -euo pipefail
build=$1 case=$2
data=$(cd "$(dirname "$0")/../../.." && pwd)/.cache/testdata
dir=$(mktemp -d)
sshd_pid=""
cleanup() {
  [ -z "$sshd_pid" ] || kill "$sshd_pid" 2>/dev/null || true
  rm -rf "$dir"
}
trap cleanup EXIT
cd "$dir"

fail() {
  echo "FAILED: $*" >&2
  exit 1
}

# batch ARGS...: runs deconv-batch, its stderr in err and its status in $status.
batch() {
  status=0
  "$build/deconv-batch" "$@" 2>err || status=$?
}

# N pictures pic-1 ... (a space or a letter beyond ASCII in some names), the
# PSF, the reference results ref-N.ppm, and a manifest of them all.
names=()
make_pictures() {
  "$build/deconv-psf" gaussian 1.5 psf.png
  for i in $(seq "$1"); do
    local photo=astronaut.png name="pic-$i.png"
    [ $((i % 2)) = 0 ] && photo=rocket.jpg
    [ $((i % 3)) = 0 ] && name="pic $i.png"
    [ $((i % 5)) = 0 ] && name="bild-ä-$i.png"
    convert "$data/$photo" -crop 96x80+$((20 * i))+$((10 * i)) +repage -blur 0x1.5 "$name"
    alone "$build/deconv" "$name" psf.png "ref-$i.ppm" 1
    names+=("$name")
    printf '%s\tpsf.png\tout/%s.ppm\n' "$name" "${name%.png}" >>manifest
  done
}

same_as_reference() {  # every output is there and complete; with "partial", every one there is
  local i=0 name
  for name in "${names[@]}"; do
    i=$((i + 1))
    [ "${1:-}" = partial ] && [ ! -e "out/${name%.png}.ppm" ] && continue
    cmp -s "out/${name%.png}.ppm" "ref-$i.ppm" || fail "out/${name%.png}.ppm differs or is missing"
  done
}

# deconv's semaphore names are the machine's: reference runs have a /dev/shm of their own.
alone() {
  unshare -rm sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$@"' sh "$@"
}

no_names_left() {
  ! ls /dev/shm | grep -qE '^sem\.(WorkAvailable|WorkComplete|PsfFftDone)Semaphore$' || fail "names left in /dev/shm"
}

# Names a shell would read, in and out, run nothing.
case_one_machine() {
  make_pictures 18
  cp pic-1.png 'x$(touch INJECTED).png'
  printf 'x$(touch INJECTED).png\tpsf.png\tout/q"uote`x`.ppm\n' >>manifest
  "$build/deconv-batch" -j 8 manifest 2>err || fail "status $? $(cat err)"
  [ "$(ls out | wc -l)" = 19 ] || fail "$(ls out | wc -l) outputs"
  same_as_reference
  cmp -s 'out/q"uote`x`.ppm' ref-1.ppm || fail "the quoted output differs"
  [ -z "$(find / -xdev -name INJECTED 2>/dev/null)" ] || fail "a name was run by the shell"
  [ "$(cat err)" = "deconv-batch: 19 restored, 0 failed" ] || fail "summary: $(cat err)"
  [ -z "$(find . -name '.deconv-batch.*')" ] || fail "private folders left"
}

case_failures() {
  make_pictures 4
  head -c 600 /dev/urandom >"bad psf.png"
  sed -i "2a missing.png\tpsf.png\tout/missing.ppm" manifest
  printf 'pic-1.png\tbad psf.png\tout/bad.ppm\n' >>manifest
  batch -j 4 manifest
  [ $status = 1 ] || fail "status $status"
  grep -qx "deconv-batch: 4 restored, 2 failed" err || fail "summary: $(cat err)"
  grep -q "^deconv-batch: line 3: status 11: .*Failed to open file '$dir/missing.png'" err || fail "$(cat err)"
  grep -q "^deconv-batch: line 6: status 11: " err || fail "$(cat err)"
  [ ! -e out/missing.ppm ] && [ ! -e out/bad.ppm ] || fail "a failed picture has an output"
  same_as_reference
  # A run that fails once is tried again (a deconv that fails each picture's first time).
  mkdir flaky && cp "$build/deconv-batch" flaky/
  printf '#!/bin/sh
[ -e "%s/tried.$(basename "$1")" ] || { touch "%s/tried.$(basename "$1")"; exit 11; }
exec "%s/deconv" "$@"
' \
    "$dir" "$dir" "$build" >flaky/deconv && chmod +x flaky/deconv
  rm -rf out && sed -i '/missing\|bad/d' manifest
  flaky/deconv-batch manifest 2>err && grep -qx "deconv-batch: 4 restored, 0 failed" err || fail "no second try: $(cat err)"
  same_as_reference
}

case_resume() {
  make_pictures 18
  "$build/deconv-batch" -j 2 manifest 2>/dev/null &
  local batch=$!
  for _ in $(seq 400); do
    [ "$(ls out 2>/dev/null | grep -c '\.ppm$')" -ge 6 ] && break
    sleep 0.05
  done
  kill -TERM $batch
  wait $batch && fail "an interrupted batch reports success" || true
  local first
  first=$(ls out | grep -c '\.ppm$')
  [ "$first" -lt 18 ] || fail "the batch ended before it was interrupted"
  same_as_reference partial  # every file under an output's name is whole
  [ -z "$(find . -name '.deconv-batch.*')" ] || fail "private folders left after an interruption"
  mkdir out/.deconv-batch.elsewhere.1  # as a batch killed outright leaves it
  "$build/deconv-batch" -j 4 --resume manifest 2>err || fail "status $? $(cat err)"
  grep -q "^deconv-batch: $((18 - first)) restored, 0 failed, $first restored earlier" err || fail "after $first: $(cat err)"
  [ -z "$(find . -name '.deconv-batch.*')" ] || fail "--resume left a stage behind"
  [ "$(ls out | wc -l)" = 18 ] || fail "$(ls out | wc -l) outputs after --resume"
  same_as_reference
}

# Three machines on loopback addresses, each by its own sshd login, with keys
# made here; --transfer sends the files to each machine's work folder.
case_machines() {
  [ "$(id -u)" = 0 ] && [ -x /usr/sbin/sshd ] || exit 77
  make_pictures 8
  ssh-keygen -q -t ed25519 -N '' -f host_key
  ssh-keygen -q -t ed25519 -N '' -f client_key
  local port
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  printf '%s\n' "Port $port" "ListenAddress 127.0.0.1" "ListenAddress 127.0.0.2" "ListenAddress 127.0.0.3" \
    "HostKey $dir/host_key" "AuthorizedKeysFile $dir/client_key.pub" "PidFile $dir/sshd.pid" \
    "PermitRootLogin prohibit-password" "PasswordAuthentication no" "UsePAM no" "StrictModes no" >sshd_config
  printf '%s\n' "Host *" "  Port $port" "  IdentityFile $dir/client_key" "  StrictHostKeyChecking no" \
    "  UserKnownHostsFile /dev/null" "  LogLevel ERROR" "  BatchMode yes" >ssh_config
  mkdir -p /run/sshd
  /usr/sbin/sshd -D -f sshd_config -E sshd.log &
  sshd_pid=$!
  for _ in $(seq 100); do ssh -F ssh_config 127.0.0.2 true 2>/dev/null && break; sleep 0.05; done
  printf 'ssh -F %s/ssh_config %s\n' "$dir" 127.0.0.1 "$dir" 127.0.0.2 "$dir" 127.0.0.3 >machines
  "$build/deconv-batch" -j 2 --sshloginfile machines --transfer manifest 2>err || fail "status $? $(cat err)"
  [ "$(ls out | wc -l)" = 8 ] || fail "$(ls out | wc -l) outputs"
  same_as_reference
  [ "$(tail -n +2 manifest.joblog | cut -f2 | sort -u | wc -l)" -gt 1 ] || fail "one machine did all"
}

# Where namespaces are refused, the runs take turns, and the batch says so once.
case_no_namespaces() {
  make_pictures 5
  mkdir refuse && printf '#!/bin/sh\nexit 1\n' >refuse/unshare && chmod +x refuse/unshare
  PATH=$dir/refuse:$PATH "$build/deconv-batch" -j 4 manifest 2>err || fail "status $? $(cat err)"
  [ "$(grep -c 'no namespaces on' err)" = 1 ] || fail "$(cat err)"
  same_as_reference
  [ "$(ls out | wc -l)" = 5 ] || fail "$(ls out | wc -l) outputs"
  no_names_left
}

# -s auto: each picture at the strength deconv-strength picks for it, which
# the summary lists; the result is deconv's at that strength.
case_auto_strength() {
  make_pictures 3
  convert pic-2.png -seed 5 -attenuate 3 +noise Gaussian noisy.png
  printf 'noisy.png\tpsf.png\tout/noisy.ppm\n' >>manifest
  "$build/deconv-batch" -s auto manifest 2>err || fail "status $? $(cat err)"
  local line strength listed=0
  for pair in $(sed -n 's/.*strength by line: //p' err); do
    line=${pair%%:*} strength=${pair##*:}
    IFS=$'\t' read -r input _ output < <(sed -n "${line}p" manifest)
    alone "$build/deconv" "$input" psf.png expected.ppm 1 95 "$strength"
    cmp -s "$output" expected.ppm || fail "line $line differs from deconv at strength $strength"
    [ "$line" != 4 ] || [ "$strength" -gt "$(sed -n 's/.* 2:\([0-9]*\).*/\1/p' err)" ] || fail "noise did not raise the strength: $(cat err)"
    listed=$((listed + 1))
  done
  [ $listed = 4 ] || fail "$(cat err)"
}

# A disk that fills up: deconv says 0 for outputs cut short, the batch counts
# them failed and leaves no such file under an output's name.
case_full_disk() {
  make_pictures 6
  mkdir out full
  local status=0
  # What the tmpfs held is copied out of the namespace that mounted it.
  unshare -rm sh -c 'mount -t tmpfs -o size=100k tmpfs full && "$@"; s=$?; cp -a full/. out; exit $s' \
    sh "$build/deconv-batch" -j 2 - <<<"$(sed 's/\tout\//\tfull\//' manifest)" 2>err || status=$?
  [ $status = 1 ] || fail "status $status: $(cat err)"
  local restored failed
  read -r restored failed < <(sed -n 's/^deconv-batch: \([0-9]*\) restored, \([0-9]*\) failed$/\1 \2/p' err)
  [ "$restored" -ge 1 ] && [ "$failed" -ge 1 ] && [ $((restored + failed)) = 6 ] || fail "$(cat err)"
  [ "$(ls out | wc -l)" = "$restored" ] || fail "$(ls out | wc -l) outputs for $restored restored"
  same_as_reference partial
  [ -z "$(ls -A out | grep deconv-batch)" ] || fail "stages left"
}

# A picture that makes deconv run for ever, among good ones: the batch ends at
# its time limit; killed from outside, it stops at once and leaves nothing.
case_hang() {
  make_pictures 3
  "$build/deconv-psf" gaussian 2 wide-psf.png
  convert "$data/astronaut.png" -crop 20x100+200+100 +repage hang.png
  sed -i "2a hang.png\twide-psf.png\tout/hang.ppm" manifest
  local start=$SECONDS
  batch -j 2 --timeout 4 manifest
  [ $status = 1 ] && [ $((SECONDS - start)) -le 12 ] || fail "status $status after $((SECONDS - start)) s: $(cat err)"
  grep -qx "deconv-batch: 3 restored, 1 failed" err && grep -qx "deconv-batch: line 3: time limit: stopped after 4 s" err || fail "$(cat err)"
  same_as_reference
  printf 'pic-1.png\tpsf.png\tnew/1.ppm\nhang.png\twide-psf.png\tnew/hang.ppm\n' >hangs
  start=$SECONDS status=0
  timeout 4 "$build/deconv-batch" hangs 2>err || status=$?
  [ $status = 124 ] && [ $((SECONDS - start)) -le 9 ] || fail "status $status after $((SECONDS - start)) s: $(cat err)"
  grep -q "^deconv-batch: 1 restored, 0 failed, 1 interrupted" err && grep -qx "deconv-batch: line 2: interrupted under way" err || fail "$(cat err)"
  [ -z "$(ls -A new | grep -v 1.ppm)" ] || fail "left in new/: $(ls -A new)"
}

# Pictures not restored for want of a job log or a machine: the summary says so.
case_reasons() {
  make_pictures 2
  mkdir manifest.joblog
  batch manifest
  [ $status = 1 ] && grep -qx "deconv-batch: 0 restored, 0 failed, 2 not run" err &&
    grep -q "^deconv-batch: nothing run: cannot write the job log $dir/manifest.joblog: Is a directory" err || fail "$(cat err)"
  [ ! -e out ] || fail "a batch without its job log ran"
  batch -S nosuchhost.invalid - <manifest
  [ $status = 1 ] && grep -qx "deconv-batch: 0 restored, 0 failed, 2 not run" err &&
    grep -qx "deconv-batch: line 2: not run: host nosuchhost.invalid unreachable" err || fail "$(cat err)"
}

# deconv-restore's own options and blurs by their numbers, as deconv-restore makes them alone.
case_restore() {
  [ -x "$build/deconv-restore" ] || exit 77
  make_pictures 2
  printf 'pic-1.png\tgaussian:1.5\tout/numbers.png\n' >>manifest
  "$build/deconv-batch" --restore -w 1 -s 12 --depth 16 --timeout 60 manifest 2>err || fail "status $? $(cat err)"
  "$build/deconv-restore" --workers 1 --psf psf.png --strength 12 --depth 16 pic-2.png expected-2.ppm
  "$build/deconv-restore" --workers 1 --psf gaussian:1.5 --strength 12 --depth 16 pic-1.png expected-numbers.png
  cmp -s out/pic-2.ppm expected-2.ppm && cmp -s out/numbers.png expected-numbers.png || fail "differs from deconv-restore alone"
  rm -f manifest.joblog
  # Not the 8-bit default (encoded, 98 %): a batch that dropped them would differ.
  "$build/deconv-batch" --restore -w 1 --method richardson-lucy --iterations 4 --background 3 --light linear \
    --highlights 100 manifest 2>err || fail "status $? $(cat err)"
  "$build/deconv-restore" --workers 1 --psf psf.png --method richardson-lucy --iterations 4 --background 3 \
    --light linear --highlights 100 pic-2.png expected-2.ppm
  cmp -s out/pic-2.ppm expected-2.ppm || fail "richardson-lucy differs from deconv-restore alone"
}

# A PSF of auto is deconv-estimate's; a picture it refuses fails with its words.
case_estimated_psf() {
  [ -x "$build/deconv-estimate" ] || exit 77
  convert "$data/astronaut.png" -crop 200x200+100+60 +repage -blur 0x1.5 pic-1.png  # room for a blur of 41
  head -c 600 /dev/urandom >noise.png
  printf 'pic-1.png\tauto\tout/estimated.ppm\nnoise.png\tauto\tout/noise.ppm\n' >manifest
  batch manifest
  [ $status = 1 ] && grep -q "^deconv-batch: line 2: deconv-estimate: status [1-9][0-9]*: ." err || fail "$(cat err)"
  "$build/deconv-estimate" pic-1.png estimated-psf.png >/dev/null
  alone "$build/deconv" pic-1.png estimated-psf.png expected.ppm 1
  cmp -s out/estimated.ppm expected.ppm || fail "differs from deconv with deconv-estimate's PSF"
}

# --save-psf keeps each picture's PSF, drawn or estimated, as deconv-restore
# does; a result no sharper than its picture is restored, counted and named.
case_kept_psf() {
  [ -x "$build/deconv-restore" ] || exit 77
  make_pictures 1
  convert "$data/astronaut.png" -crop 200x200+100+60 +repage -blur 0x1.5 blurred.png
  convert "$data/astronaut.png" -crop 120x120+150+40 +repage sharp.png
  printf 'blurred.png\tauto\tout/estimated.png\npic-1.png\tgaussian:1.5\tout/drawn.ppm\nsharp.png\tgaussian:0.3\tout/sharp.png\n' >manifest
  batch --restore -w 1 -s 200 --save-psf kept manifest
  [ $status = 0 ] || fail "status $status: $(cat err)"
  grep -q "^deconv-batch: 3 restored, 0 failed, 1 no sharper" err &&
    grep -q "^deconv-batch: line 3: restored, but no sharper than its picture" err || fail "$(cat err)"
  "$build/deconv-restore" --workers 1 --strength 200 --psf auto --save-psf expected-estimated.png blurred.png expected.png
  "$build/deconv-restore" --workers 1 --strength 200 --psf gaussian:1.5 --save-psf expected-drawn.png pic-1.png expected.png
  cmp -s kept/estimated.png expected-estimated.png && cmp -s kept/drawn.png expected-drawn.png ||
    fail "the kept PSFs differ from deconv-restore's: $(ls kept)"
}

# An unreadable picture fails with the reader's reason, not the run's last
# line ("PNG library error", "General exception"), for deconv-restore and deconv.
case_reader_reasons() {
  "$build/deconv-psf" gaussian 1.5 psf.png
  head -c 3000 "$data/astronaut.png" >cut.png
  : >empty.png
  mkdir folder.png
  printf 'cut.png\tpsf.png\tout/1.png\nempty.png\tpsf.png\tout/2.png\nfolder.png\tpsf.png\tout/3.png\n' >manifest
  batch --restore manifest
  [ $status = 1 ] || fail "status $status: $(cat err)"
  for reason in "1: status 11: deconv-restore: cannot read $dir/cut.png: the file is cut short" \
    "2: status 11: deconv-restore: cannot read $dir/empty.png: an empty file" \
    "3: status 11: deconv-restore: cannot read $dir/folder.png: a directory, not a picture"; do
    grep -qx "deconv-batch: line $reason" err || fail "$(cat err)"
  done
  rm -f manifest.joblog && batch manifest
  [ $status = 1 ] && [ "$(grep -c '^deconv-batch: line [123]: status 11: .*\(convert\|gm\).*\(cut\|empty\|folder\)\.png' err)" = 3 ] &&
    ! grep -q 'General exception' err || fail "$(cat err)"
}

# Bad command lines and manifests: status 2 and nothing run (--help and the
# one-line message are faces_test's, for every command).
case_command_line() {
  make_pictures 1
  for args in "" "-w 0 manifest" "-j x manifest" "-q 5 manifest" "-s 201 manifest" "-s automatic manifest" "--sideways manifest" \
    "--timeout -1 manifest" "--depth 16 manifest" "--restore --depth 12 manifest" \
    "manifest manifest" "--resume -" "missing.tsv"; do
    # shellcheck disable=SC2086
    batch $args </dev/null
    [ $status = 2 ] || fail "'$args' gave $status"
  done
  printf '# a comment\n\npic-1.png\tpsf.png\n' >short
  batch short
  [ $status = 2 ] && grep -q "short line 3: expected INPUT, PSF and OUTPUT separated by tabs" err || fail "$(cat err)"
  printf 'pic-1.png\tpsf.png\tout/a.ppm\npic-1.png\tpsf.png\t./out/a.ppm\n' >twice
  batch twice
  [ $status = 2 ] && grep -q "twice line 2: ./out/a.ppm is written by line 1 too" err || fail "$(cat err)"
  [ ! -e out ] || fail "a batch ran with a bad manifest"
}

"case_$case"
