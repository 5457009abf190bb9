#!/usr/bin/env bash
# Installs the Debian packages that a task needs, where they are missing.
#
#   scripts/install-deps.sh GROUP...     groups: test, tools, demo, bench
set -euo pipefail

packages_of() {
    case $1 in
        build) echo gcc g++ cmake make ninja-build pkg-config ;;
        test)
            echo "$(packages_of build)" libgtest-dev libgmock-dev clang-14 clang-format-14 clang-tidy-14 "$(packages_of tools)" \
                ffmpeg chromium python3-gi gir1.2-gst-rtsp-server-1.0 gstreamer1.0-plugins-good
            ;;
        tools) echo "$(packages_of build)" "$(packages_of media)" libcli11-dev libfmt-dev nlohmann-json3-dev ;;
        media) echo libavformat-dev libavcodec-dev libavutil-dev ;;
        demo) echo "$(packages_of build)" "$(packages_of media)" libcli11-dev ffmpeg ;;
        bench) echo "$(packages_of build)" "$(packages_of media)" libbenchmark-dev libcli11-dev libsqlite3-dev ffmpeg ;;
        *)
            echo "install-deps.sh: no group '$1' (test, tools, demo, bench)" >&2
            return 1
            ;;
    esac
}

is_installed() { [[ $(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null) == installed ]]; }

as_root() {
    if ((EUID == 0)); then "$@"; else sudo "$@"; fi
}

missing=()
for group in "$@"; do
    packages=$(packages_of "$group")
    for package in $packages; do
        if ! is_installed "$package"; then missing+=("$package"); fi
    done
done
((${#missing[@]} > 0)) || exit 0

if ! command -v apt-get >/dev/null; then
    echo "install-deps.sh: no apt-get here; please install: ${missing[*]}" >&2
    exit 1
fi
echo "installing ${missing[*]}"
as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq update
as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends "${missing[@]}" >/dev/null
