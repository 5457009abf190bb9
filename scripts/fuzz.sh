#!/usr/bin/env bash
# Builds the fuzzers and runs each for a while, two at a time. Stops with the input that made one fall.
#
#   scripts/fuzz.sh [SECONDS]     60 by default
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}

scripts/install-deps.sh test
cmake --preset fuzz
cmake --build --preset fuzz
trap 'rm -rf /dev/shm/recvault-fuzz-*' EXIT
mkdir -p build/fuzz/logs

run() { # target
    local corpus=build/fuzz/corpus/$1
    mkdir -p "$corpus"
    if ! "build/fuzz/tests/fuzz/$1_fuzz" -max_total_time="$seconds" -max_len=8192 -timeout=20 -close_fd_mask=3 -print_final_stats=1 -artifact_prefix="build/fuzz/$1-" \
        "$corpus" "tests/fuzz/corpus/$1" 2>"build/fuzz/logs/$1.log"; then
        tail -n 60 "build/fuzz/logs/$1.log"
        echo "the fuzzer '$1' found something: build/fuzz/$1-*"
        return 1
    fi
    grep -hE '^stat::number_of_executed_units|^Done ' "build/fuzz/logs/$1.log" | sed "s/^/$1: /"
}

run reader & first=$!
run repair
wait "$first"
run index & first=$!
run scan
wait "$first"
