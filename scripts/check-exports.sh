#!/usr/bin/env bash
# Holds the dynamic symbol table of the library against the public header: the functions that the header declares, 35, and
# nothing else.
#
#   scripts/check-exports.sh [build/librecvault.so]
set -euo pipefail
cd "$(dirname "$0")/.."
library=${1:-build/librecvault.so}
header=include/recvault/recvault.h

declared() { sed -nE 's/^RECVAULT_API .*\b(KELM_AviFile_\w+)\(.*/\1 T/p' "$header" | sort; }
exported() { nm -D --defined-only --format=posix "$library" | awk '{ print $1, $2 }' | sort; }

[[ -f $library ]] || { echo "there is no $library"; exit 1; }
count=$(declared | wc -l)
if ((count != 35)); then
    echo "$header declares $count functions, not 35"
    exit 1
fi
if ! diff <(declared) <(exported); then
    echo "$library (>) does not export what $header declares (<)"
    exit 1
fi
echo "$library exports the $count functions of $header and nothing else"
