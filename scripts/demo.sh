#!/usr/bin/env bash
# Builds the recorder demo, lets it record real media into a new folder, and lets ffprobe and ffmpeg judge each file: its
# video and audio frames against those delivered, its duration, and whether all of it decodes.
#
#   scripts/demo.sh [--hours H] [--quick]     --hours: recorded time of each camera, 2 by default; takes some 400 MB each
#                                             --quick: decode the key frames only
#
# shellcheck disable=SC2317 # it does not see that xargs calls judge
set -euo pipefail
cd "$(dirname "$0")/.."

hours=2
skip_frame=default
what_decoded=decodes
while (($# > 0)); do
    case $1 in
        --hours)
            hours=${2:?how many hours?}
            shift
            ;;
        --quick)
            skip_frame=nokey
            what_decoded='its key frames decode'
            ;;
        *)
            sed -n '2,7p' "$0" | sed 's/^# \{0,1\}//'
            exit 2
            ;;
    esac
    shift
done

build_demo() { # folder
    cmake -S . -B "$1" -DCMAKE_BUILD_TYPE=Release -DRECVAULT_BUILD_EXAMPLES=ON &&
        cmake --build "$1" --target recorder_demo --parallel "$(nproc)"
}

# What ffprobe counts in a file: "video PACKETS SECONDS audio PACKETS", or what it complains about.
measure() { # path
    ffprobe -v error -count_packets -show_entries stream=codec_type,duration,nb_read_packets -of csv=p=0 "$1" 2>&1 |
        awk -F, '$1 == "video" && NF == 3 { printf "video %s %s ", $3, $2; next }
                 $1 == "audio" && NF == 3 { printf "audio %s ", $3; next }
                 { printf "ffprobe says: %s ", $0 }'
}

# Holds what was measured against what was delivered; a frame lasts 0.04 seconds.
compare() { # measured video audio seconds
    awk -v video="$2" -v audio="$3" -v seconds="$4" '
        { off = $3 - seconds }
        NF != 5 || $1 != "video" || $4 != "audio" { print "not one video and one audio stream: " $0; next }
        $2 != video { print $2 " video frames, delivered were " video }
        $5 != audio { print $5 " audio frames, delivered were " audio }
        off > 0.0401 || off < -0.0401 { print "lasts " $3 " s, delivered were " seconds " s" }' <<<"$1"
}

# ffmpeg keeps all pictures until the first sound comes, so that it would take all memory for a file that has lost its sound.
# The comparison comes first for that reason.
judge() { # line of the manifest
    local path video audio seconds complaints
    IFS=$'\t' read -r path video audio seconds <<<"$1"
    complaints=$(compare "$(measure "$path")" "$video" "$audio" "$seconds" 2>&1)
    if [[ -z $complaints ]]; then
        complaints=$(ffmpeg -nostdin -v error -threads 1 -skip_frame "$skip_frame" -i "$path" -f null - 2>&1) ||
            complaints="cannot be decoded: $complaints"
    fi
    if [[ -n $complaints ]]; then
        printf 'BAD   %s\n%s\n' "$path" "$(head -n 20 <<<"$complaints" | sed 's/^/      /')"
        return 1
    fi
    printf 'good  %-48s %6d video  %6d audio  %7.2f s\n' "${path#"$store/"}" "$video" "$audio" "$seconds"
}

delivered() { grep -v '^#' "$store/manifest.tsv"; }

# Judges the files of the manifest, as many at a time as there are processors.
judge_files() {
    export -f judge compare measure
    export store skip_frame
    # shellcheck disable=SC2016 # the inner shell expands it
    delivered | xargs -d '\n' -n 1 -P "$(nproc)" bash -c 'judge "$1"' judge
}

# No record file beside those delivered, and none without its end.
judge_folder() {
    diff <(delivered | cut -f 1 | sort) <(find "$store" -name '*.avi' | sort) >&2 || return 1
    if find "$store" -name '*_idx' | grep . >&2; then
        echo 'these files are not finished' >&2
        return 1
    fi
}

# The library tells failures in lines that begin so; INFO is the ordinary course of things. An export has nothing for a
# writer thread to do: the thread says so and ends.
judge_log() {
    local failures
    failures=$(grep -E -A 1 '^(ERR\.|WARN\.|\[rcvt:)' "$store/recorder.log" |
        grep -vE '^(\[rcvt: .*kelm_avi_writer::ThreadFunc|INFO\.|--)') || return 0
    printf '%s:\n%s\n' "$store/recorder.log" "$(head -n 40 <<<"$failures")" >&2
    return 1
}

scripts/install-deps.sh demo
mkdir -p build/logs
echo 'building the demo into build/demo'
if ! build_demo build/demo >build/logs/demo.log 2>&1; then
    tail -n 100 build/logs/demo.log
    exit 1
fi

# The path of a partition has at most 31 characters.
parent=${TMPDIR:-/tmp}
((${#parent} <= 12)) || parent=/tmp
store=$(mktemp -d "$parent/recvault-XXXXXX")
trap 'printf "The recordings are in %s. Remove them with: rm -r %s\n" "$store" "$store"' EXIT
echo "recording into $store"

verdict=0
build/demo/examples/recorder_demo --store "$store" --hours "$hours" --manifest "$store/manifest.tsv" \
    --log "$store/recorder.log" || verdict=1
if [[ ! -f $store/manifest.tsv ]]; then
    tail -n 20 "$store/recorder.log"
    exit 1
fi
printf '\nffprobe counts, ffmpeg decodes:\n'
judge_folder || verdict=1
judge_log || verdict=1
judge_files || verdict=1

if ((verdict == 0)); then
    printf '\nPASSED: every file holds what was delivered, lasts as long, and %s.\n' "$what_decoded"
else
    printf '\nFAILED: see above.\n'
fi
exit $verdict
