#!/usr/bin/env bash
# deconv-estimate's evaluation (bench/estimate_bench.cpp). It builds deconv's
# engine in the process, so it runs in a /dev/shm of its own: the engine's
# semaphore names are the machine's.
#   bench/estimate_bench.sh [BUILD] [OPTIONS of bench_estimate]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build-bench}" && pwd)
shift || true
exec unshare -rm sh -c 'mount -t tmpfs tmpfs /dev/shm && exec "$@"' sh "$build/bench/bench_estimate" "$@"
