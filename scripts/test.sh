#!/usr/bin/env bash
# Runs every check of the project, step by step, and stops at the first that fails. The last line sums up the tests.
#
#   scripts/test.sh [--quick]     --quick: the release build, its tests, and the checks that take seconds
#
# Each step is one line here; what it printed lies in build/logs/, and is shown when it fails.
set -euo pipefail
cd "$(dirname "$0")/.."

quick=false
case ${1:-} in
    '') ;;
    --quick) quick=true ;;
    *)
        sed -n '2,6p' "$0" | sed 's/^# \{0,1\}//'
        exit 2
        ;;
esac

logs=build/logs
passed=0
failed=0
skipped=0

step() { # name command...
    local name=$1 log begin=$SECONDS result=0
    shift
    log=$logs/${name// /-}.log
    printf '%-28s' "$name"
    "$@" >"$log" 2>&1 </dev/null || result=$?
    count_tests "$log"
    if ((result != 0)); then
        printf 'FAILED after %d s\n\n' $((SECONDS - begin))
        tail -n 300 "$log"
        printf '\nthe step "%s" failed (exit code %d): %s\nall it printed: %s\n' "$name" "$result" "$*" "$log"
        exit 1
    fi
    printf 'ok %4d s\n' $((SECONDS - begin))
    sed -n 's/^count: /    /p' "$log"
}

# Adds what ctest says at its end: "98% tests passed, 3 tests failed out of 120", where those passed hold those skipped.
count_tests() {
    local bad all idle
    idle=$(grep -cE '^[[:space:]]+[0-9]+ - .* \(Skipped\)$' "$1" || true)
    skipped=$((skipped + idle))
    while read -r bad all; do
        failed=$((failed + bad))
        passed=$((passed + all - bad - idle))
    done < <(sed -nE 's/^[0-9]+% tests passed, ([0-9]+) tests? failed out of ([0-9]+)$/\1 \2/p' "$1")
}

check_format() {
    find src include tests benchmarks examples tools -name '*.h' -print0 -o -name '*.c' -print0 -o -name '*.cpp' -print0 |
        xargs -0 clang-format-14 --dry-run -Werror --ferror-limit=1
}
check_tidy() { find src -name '*.cpp' -print0 | xargs -0 -n 1 -P 2 clang-tidy-14 --quiet -p build/clang; }
configure() { cmake --preset "$1"; }
build() { cmake --build --preset "$@"; }
# Under the sanitizers everything runs against everything else for a minute.
run_tests() {
    local seconds=60
    [[ $1 == release ]] && seconds=3
    RECVAULT_STRESS_SECONDS=$seconds ctest --preset "$1" || return
    grep -a '^count: ' "build/$1/Testing/Temporary/LastTest.log"
}

build_and_test() { # preset
    step "$1 configure" configure "$1"
    step "$1 build" build "$1"
    step "$1 tests" run_tests "$1"
}

mkdir -p "$logs"
if command -v ccache >/dev/null; then export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi
trap 'printf "\n%d passed, %d failed, %d skipped\n" "$passed" "$failed" "$skipped"' EXIT

step 'packages' scripts/install-deps.sh test demo bench
step 'format' check_format
step 'floors' scripts/check-layers.sh
build_and_test release
step 'exports' scripts/check-exports.sh build/release/librecvault.so
$quick && exit
step 'consumers' scripts/check-consumers.sh build/release
step 'clang configure' configure clang
step 'clang thread safety' build clang --target recvault recvault_testing
step 'clang-tidy' check_tidy
build_and_test asan
build_and_test tsan
step 'fuzzers' scripts/fuzz.sh 60
