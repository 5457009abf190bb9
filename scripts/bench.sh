#!/usr/bin/env bash
# Builds the release preset and runs the benchmarks that docs/performance.md tells of, one after the other. Takes over ten
# minutes and up to 6 GiB in FOLDER, where 10 must be free; everything written there is removed. Leave the machine alone
# meanwhile.
#
#   scripts/bench.sh [SECONDS [FOLDER]]
#       SECONDS  real time for each contestant of the pace benchmark, 60 by default
#       FOLDER   where files are written, with a path of at most 13 characters; /dev/shm by default
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
parent=${2:-/dev/shm}
programs=build/release/benchmarks
log=build/logs/bench.log

mkdir -p build/logs
scripts/install-deps.sh test demo bench
folder=$(mktemp -d "$parent/b-XXXXXX")
trap 'rm -rf "$folder"' EXIT

quietly() { "$@" >"$log" 2>&1 || { cat "$log"; return 1; }; }

# Tables on the output; the log of the library, on the other stream, is shown when a run fails.
measure() { # title command...
    printf '\n== %s\n' "$1"
    shift
    "$@" 2>"$log" || { tail -n 50 "$log"; return 1; }
}

quietly cmake --preset release -DRECVAULT_BUILD_BENCHMARKS=ON
quietly cmake --build --preset release --target input_benchmark pace_benchmark throughput_benchmark \
    store_benchmark playback_benchmark

echo "$(nproc) x $(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo | head -n 1), Linux $(uname -r), files in $parent"
measure 'one call' "$programs/input_benchmark" --benchmark_counters_tabular=true "$folder"
measure 'pace of cameras' "$programs/pace_benchmark" --channels 64 --bytes 20000 --seconds "$seconds" --folder "$folder"
measure 'pace of many small cameras' \
    "$programs/pace_benchmark" --channels 256 --bytes 2000 --seconds "$seconds" --folder "$folder"
measure 'as fast as it goes' "$programs/throughput_benchmark" --channels 16 --gigabytes 2 --folder "$folder"
measure 'keeping a store' "$programs/store_benchmark" --folder "$folder"
measure 'playback' "$programs/playback_benchmark" --folder "$folder"
