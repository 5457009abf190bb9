#!/usr/bin/env bash
# Installs a built tree into a temporary folder, moves the copy, and builds and runs a program against it in each way that a
# consumer has: find_package, pkg-config, and add_subdirectory, which builds the library once more.
#
#   scripts/check-consumers.sh [BUILD]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
consumers=$PWD/tests/consumers
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

run_both() { # name folder
    echo "run the $1 consumers"
    "$2/consumer_c"
    "$2/consumer_cpp"
}

cmake_consumer() { # name option
    cmake -S "$consumers/$1" -B "$work/$1" "$2"
    cmake --build "$work/$1" --parallel 2
    run_both "$1" "$work/$1"
}

cmake --install "$build" --prefix "$work/first"
mv "$work/first" "$work/installed"

cmake_consumer find_package "-DCMAKE_PREFIX_PATH=$work/installed"

pc=$(find "$work/installed" -name recvault.pc -printf '%h')
mkdir "$work/pkg_config"
PKG_CONFIG_PATH=$pc make -C "$consumers/pkg_config" OUT="$work/pkg_config"
run_both pkg-config "$work/pkg_config"

# The header is C99, where an anonymous union is an extension.
cc -std=c99 -Wall -Werror -fsyntax-only -x c "$work"/installed/include/recvault/recvault.h

cmake_consumer add_subdirectory "-DRECVAULT_SOURCE_DIR=$PWD"
echo "all consumers build and run"
