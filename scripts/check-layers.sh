#!/usr/bin/env bash
# Holds the floors of src/: a file includes files of its own group and of the groups that its group may use, and only the
# sources of the platform group include operating-system headers. Prints one line for each violation.
#
#   scripts/check-layers.sh [SRC]
set -euf -o pipefail
src=${1:-$(dirname "$0")/../src}

# The groups from the bottom up, the groups that each may use beside itself (* for all), and its files, named from src/.
groups='
platform  |                                               | platform/*
support   | platform                                      | Annotations.h RecFileNode.h RecType.h GlobalObj.h Text.h
support   | platform                                      | Log.* Mutex.* Thread.* HandleDispather.* FileManager.*
frames    | platform support                              | LiveFrameList.*
avi       | platform support frames                       | avi/*
crossing  | platform support                              | Crossing.h
storage   | platform support frames avi crossing          | RecNode.* Disk.* StorageManager.*
recording | platform support frames avi crossing          | AviWriter.* RecChManager.* RecDevManager.*
recording | platform support frames avi crossing          | AviSaveAs.* SaveAsManager.*
playback  | platform support frames avi storage recording | AviReader.* DataPop.* DataPopManager.*
query     | platform support frames avi storage recording | RecSegManager.* RecFileQuery.* RecFileQueryManager.*
top       | *                                             | GlobalObj.cpp Crossing.cpp recvault.cpp
'

# What the platform floor is there for is not taken from the standard library either.
platform_work='thread|mutex|shared_mutex|condition_variable|semaphore|future|filesystem|fstream'

trim() { sed 's/^ *//; s/ *$//' <<<"$1"; }

declare -A group_of may_use
load_groups() {
    local name uses patterns pattern file
    while IFS='|' read -r name uses patterns; do
        [[ -n $name ]] || continue
        name=$(trim "$name")
        may_use[$name]=" $name $(trim "$uses") "
        for pattern in $patterns; do
            for file in "${files[@]}"; do
                # shellcheck disable=SC2053  # the right side is a pattern
                if [[ $file == $pattern && -z ${group_of[$file]:-} ]]; then group_of[$file]=$name; fi
            done
        done
    done <<<"$groups"
}

violations=0
complain() {
    echo "$1:$2: $3"
    violations=$((violations + 1))
}

check_quoted() { # file line included
    local file=$1 group=${group_of[$1]} other=${group_of[$3]:-}
    if [[ -z $other ]]; then
        complain "$file" "$2" "\"$3\" is no file of a group, named from src/"
    elif [[ ${may_use[$group]} != *" $other "* && ${may_use[$group]} != *' * ' ]]; then
        complain "$file" "$2" "$group may not include \"$3\" of $other"
    fi
}

check_angled() { # file line included
    local file=$1 group=${group_of[$1]}
    [[ $group == platform && $file == *.cpp ]] && return
    if [[ $3 =~ ^($platform_work)$ ]]; then
        complain "$file" "$2" "<$3> does the work of the platform floor"
    elif [[ $3 != recvault/recvault.h && ! $3 =~ ^[a-z_0-9]+$ ]]; then
        complain "$file" "$2" "<$3> is neither a C++ standard header nor the public header"
    fi
}

check_file() {
    local file=$1 number line
    if [[ -z ${group_of[$file]:-} ]]; then
        complain "$file" 1 "the file belongs to no group"
        return
    fi
    while IFS=: read -r number line; do
        if [[ $line =~ ^[[:space:]]*\#[[:space:]]*include[[:space:]]*\"([^\"]+)\" ]]; then
            check_quoted "$file" "$number" "${BASH_REMATCH[1]}"
        elif [[ $line =~ ^[[:space:]]*\#[[:space:]]*include[[:space:]]*\<([^>]+)\> ]]; then
            check_angled "$file" "$number" "${BASH_REMATCH[1]}"
        else
            complain "$file" "$number" "an include that this check cannot read"
        fi
    done < <(grep -nE '^[[:space:]]*#[[:space:]]*include' "$src/$file" || true)
}

mapfile -t files < <(cd "$src" && find . -type f ! -name CMakeLists.txt ! -name '*.map' ! -name '*.md' -printf '%P\n' | sort)
((${#files[@]} > 0)) || { echo "no sources in $src"; exit 1; }
load_groups
for file in "${files[@]}"; do check_file "$file"; done
if ((violations > 0)); then
    echo "$violations violation(s) of the floors"
    exit 1
fi
echo "${#files[@]} files keep to their floors"
