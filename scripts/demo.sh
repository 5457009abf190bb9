#!/usr/bin/env bash
# Builds the recorder demo and lets it record real media into a new folder. Half way it is killed, and started again on the
# same folder. ffprobe and ffmpeg then judge each file: its video and audio frames against those delivered, its duration, and
# whether all of it decodes. Of the files that were open at the kill nothing but the unwritten tail may be missing.
# Then it uses what was recorded: draws it as lines of text, plays the four cameras in step over midnight, and exports ten
# seconds into a file of their own.
#
#   scripts/demo.sh [--hours H] [--quick]     --hours: recorded time of each camera, 2 by default, 0.5 at least; an hour of
#                                             the four takes some 350 MB
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
            # What is played has to lie before the kill.
            if ! awk -v hours="$hours" 'BEGIN { exit !(hours >= 0.5) }'; then
                echo 'demo.sh: at least half an hour' >&2
                exit 2
            fi
            shift
            ;;
        --quick)
            skip_frame=nokey
            what_decoded='its key frames decode'
            ;;
        *)
            sed -n '2,11p' "$0" | sed 's/^# \{0,1\}//'
            exit 2
            ;;
    esac
    shift
done

build_demo() { # folder
    cmake -S . -B "$1" -DCMAKE_BUILD_TYPE=Release -DRECVAULT_BUILD_EXAMPLES=ON &&
        cmake --build "$1" --target recorder_demo timeline_example play_example export_example \
            --parallel "$(nproc)"
}

# What ffprobe counts in a file: "video PACKETS SECONDS audio PACKETS", or what it complains about.
measure() { # path
    ffprobe -v error -count_packets -show_entries stream=codec_type,duration,nb_read_packets -of csv=p=0 "$1" 2>&1 |
        awk -F, '$1 == "video" && NF == 3 { printf "video %s %s ", $3, $2; next }
                 $1 == "audio" && NF == 3 { printf "audio %s ", $3; next }
                 { printf "ffprobe says: %s ", $0 }'
}

# Holds what was measured against what was delivered; a frame lasts 0.04 seconds. A cut file may lack its tail, which is
# looked at elsewhere; the repair reckons its duration in whole seconds a segment, of which there are three at most.
compare() { # measured video audio cut
    awk -v video="$2" -v audio="$3" -v cut="$4" '
        NF != 5 || $1 != "video" || $4 != "audio" { print "not one video and one audio stream: " $0; next }
        { off = $3 - $2 / 25; most = cut ? 3.1201 : 0.0401 }
        off > most || off < -most { print "lasts " $3 " s with " $2 " video frames" }
        cut { next }
        $2 != video { print $2 " video frames, delivered were " video }
        $5 != audio { print $5 " audio frames, delivered were " audio }' <<<"$1"
}

# The file of each channel that was open at the kill, by the manifest as it was then.
open_at_kill() {
    awk '{ n = split($8, part, "/"); last[part[n - 2] "/" part[n - 1]] = $8 } END { for (channel in last) print last[channel] }' \
        "$store/killed.txt"
}

# ffmpeg keeps all pictures until the first sound comes, so that it would take all memory for a file that has lost its sound.
# The comparison comes first for that reason. The rate of a cut file is a little off, so that two pictures may fall on one
# tick of the null output, which would complain: of those vfr leaves one out, once both are decoded.
judge() { # line of the manifest
    local path video audio measured complaints cut=0
    read -r video audio _ _ _ _ _ path <<<"$1"
    if open_at_kill | grep -qxF "$path"; then cut=1; fi
    measured=$(measure "$path")
    complaints=$(compare "$measured" "$video" "$audio" "$cut" 2>&1)
    if [[ -z $complaints ]]; then
        complaints=$(ffmpeg -nostdin -v error -threads 1 -skip_frame "$skip_frame" -i "$path" -fps_mode vfr -f null - 2>&1) ||
            complaints="ffmpeg ended with exit code $?: $complaints"
    fi
    if [[ -n $complaints ]]; then
        printf 'BAD   %s\n%s\n' "$path" "$(head -n 20 <<<"$complaints" | sed 's/^/      /')"
        return 1
    fi
    read -r _ video _ _ audio <<<"$measured"
    printf 'good  %-48s %6d video  %6d audio%s\n' "${path#"$store/"}" "$video" "$audio" "$([[ $cut == 0 ]] || echo "  cut by the kill")"
}

# Judges the files of the manifest, as many at a time as there are processors.
judge_files() {
    export -f judge compare measure open_at_kill
    export store skip_frame
    # shellcheck disable=SC2016 # the inner shell expands it
    xargs -d '\n' -n 1 -P "$(nproc)" bash -c 'judge "$1"' judge <"$store/manifest.txt"
}

# No record file beside those delivered, and none without its end.
judge_folder() {
    diff <(awk '{ print $8 }' "$store/manifest.txt" | sort) <(find "$store" -name '*.avi' | sort) >&2 || return 1
    if find "$store" -name '*_idx' | grep . >&2; then
        echo 'these files are not finished' >&2
        return 1
    fi
}

# The library tells failures in lines that begin so; INFO is the ordinary course of things. An export has nothing for a
# writer thread to do: the thread says so and ends.
judge_logs() {
    local failures
    failures=$(cat "$store"/*.log | grep -E -A 1 '^(ERR\.|WARN\.|\[rcvt:)' |
        grep -vE '^(\[rcvt: .*kelm_avi_writer::ThreadFunc|INFO\.|--)') || return 0
    printf '%s:\n%s\n' "$store/*.log" "$(head -n 40 <<<"$failures")" >&2
    return 1
}

# Where the last frame of a record file ends, by the size of its movi list.
movi_end() { # path
    echo $(($(od -An -t u4 -j 77816 -N 4 "$1") + 77820))
}

# A line a channel: what was delivered to its files up to the kill, and what the store has now. Files that were closed before
# have to be whole, the one that was open may lack its tail: the writer leaves less than 16 KiB in the ring, the frame that
# the end of its last block tore, and what came since it last looked. It looks every 20 ms, so that this is one delivery of a
# camera, and on a busy machine what comes in a tenth of a second more. In time a tail is rounded up to whole deliveries.
judge_kill() {
    local video audio bytes largest path kept_video kept_audio opened
    opened=$(open_at_kill)
    while read -r video audio bytes largest _ _ _ path; do
        read -r _ kept_video _ _ kept_audio <<<"$(measure "$path")"
        printf '%s %d %d %d %d %d %d %d %d\n' "$(cut -d / -f 4,5 <<<"${path#"$store"}")" "$video" "$audio" "$kept_video" \
            "$kept_audio" $((bytes - 77824)) $((bytes - $(movi_end "$path"))) "$largest" "$(grep -cxF "$path" <<<"$opened")"
    done <"$store/killed.txt" >"$store/kill.txt"
    awk '
        { video[$1] += $2; audio[$1] += $3; kept[$1] += $4; kept_audio[$1] += $5 }
        $9 == 0 && ($2 != $4 || $3 != $5 || $7 != 0) { print $1 ": a file that was closed before the kill lacks frames"; bad = 1 }
        $9 == 1 { rate = $6 / $2 * 25; lost[$1] = $7; most[$1] = 16384 + 2 * $8 + rate / 10; most_seconds[$1] = most[$1] / rate }
        END {
            print "                              delivered        in the store             lost           at most"
            print "channel                  video    audio     video    audio    bytes  seconds    bytes  seconds"
            for (c in video) {
                seconds = (video[c] - kept[c]) / 25
                audio_seconds = (audio[c] - kept_audio[c]) / 25
                printf "%-22s %7d  %7d   %7d  %7d   %6d  %7.2f   %6d  %7.2f\n", c, video[c], audio[c], kept[c],
                       kept_audio[c], lost[c], seconds, most[c], most_seconds[c] | "sort"
                if (seconds < 0 || seconds > most_seconds[c] + 0.04) bad = 1
                if (audio_seconds < 0 || audio_seconds > most_seconds[c] + 0.2) bad = 1
                if (lost[c] < 0 || lost[c] > most[c]) bad = 1
            }
            close("sort")
            exit bad
        }' "$store/kill.txt"
}

# Records up to half way, then for some seconds in real time, and kills the recorder in the middle of that.
record_and_kill() {
    "${record[@]}" --log "$store/recorder-1.log" --live-from 0.48 >"$store/recorder-1.out" &
    recorder=$!
    until grep -q 'in real time' "$store/recorder-1.out"; do
        kill -0 "$recorder" 2>/dev/null || return 1
        sleep 0.1
    done
    # The files that ended at midnight are finished first, so that the kill meets those alone that are being written.
    until (($(find "$store" -name '*_idx' | wc -l) == ${#channels[@]})); do
        kill -0 "$recorder" 2>/dev/null || return 1
        sleep 0.1
    done
    sleep "$((RANDOM % 3 + 2)).$((RANDOM % 90 + 10))"
    kill -KILL "$recorder"
    wait "$recorder" 2>/dev/null || true
    cp "$store/manifest.txt" "$store/killed.txt"
    printf 'killed the recorder, process %d; %d files are not finished\n' "$recorder" \
        "$(find "$store" -name '*_idx' | wc -l)"
}

# Calls an example for the store and its device; what the library logs goes to a file.
example() { # name arguments...
    timeout --foreground 300 "build/demo/examples/$1_example" "$store" depot "${@:2}" 2>>"$store/$1.log"
}

# A time of the library as the examples take it.
as_text() { # seconds
    date -u -d "@$1" +%Y-%m-%dT%H:%M:%S
}

# The days that the recordings lie on, and then the time of the demo alone, in which each camera has its record types and one
# gap.
draw_timelines() {
    local begin end day line n=0
    begin=$(awk 'NR == 1 || $5 < begin { begin = $5 } END { print begin }' "$store/manifest.txt")
    end=$(awk '$6 > end { end = $6 } END { print end + 1 }' "$store/manifest.txt")
    for ((day = begin / 86400 * 86400; day < end; day += 86400)); do
        draw_timeline "the day $(date -u -d "@$day" +%Y-%m-%d)" "$day" $((day + 86400)) || return 1
    done
    draw_timeline 'the recorded time alone' "$begin" "$end" || return 1
    while read -r _ line; do
        [[ $line =~ ^${timelines[n++]}$ ]] || return 1
    done < <(tail -n +2 "$store/timeline.txt")
    ((n == ${#channels[@]}))
}

draw_timeline() { # title begin end
    printf '\n%s\n' "$1"
    example timeline "$(as_text "$2")" "$(as_text "$3")" "${channels[@]}" | tee "$store/timeline.txt"
}

# The frames that playback leaves out at the end of a closed file, of which it reads multiples of 4096 bytes.
left_out() { # path
    local end
    end=$(movi_end "$1")
    ffprobe -v error -show_entries packet=pos,size -of csv=p=0 "$1" |
        awk -F, -v read=$((end - end % 4096)) '$1 + $2 > read { ++n } END { print n + 0 }'
}

# Each camera gives 25 pictures, one of them a key frame, and 25 frames of sound a second, and its file ends at midnight.
# Channels in step keep within 2 seconds.
play_in_step() {
    local begin=$SECONDS channel path frames wrong=0
    example play "$(as_text $((midnight - 30)))" "$(as_text $((midnight + 29)))" "${channels[@]}" | tee "$store/play.txt" ||
        return 1
    printf '60 s played in %d s\n' $((SECONDS - begin))
    for channel in "${channels[@]}"; do
        path=$(awk -v end=$((midnight - 1)) -v folder="$(printf '/channel%02d/' $((channel + 1)))" \
            '$6 == end && index($8, folder) { print $8 }' "$store/manifest.txt")
        frames=$((60 * 50 - $(left_out "$path")))
        if ! grep -qxF "channel $channel: $frames frames, 60 of them key frames" "$store/play.txt"; then
            echo "channel $channel should have had $frames frames, 60 of them key frames"
            wrong=1
        fi
    done
    grep -qxE 'largest distance between frames of different channels: [0-2] s' "$store/play.txt" && ((wrong == 0))
}

export_ten_seconds() {
    local path=$store/ten-seconds.avi time=$((midnight - 300))
    example export 0 "$(as_text $((time - 5)))" "$(as_text $((time + 4)))" "$path" || return 1
    judge "250 250 - - - - - $path" || return 1
    printf '      lasts %s s, %s\n' "$(measure "$path" | cut -d ' ' -f 3)" "$what_decoded"
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
complain() { # what is wrong
    echo "$1" >&2
    verdict=1
}

# What recorder_demo records: over which midnight, which channels, and the lines that they give.
midnight=$(date -u -d 2036-01-01 +%s)
channels=(0 1 2 8)
timelines=('1+2+1+[-.]+1+' '1+[-.]+1+' '1+[-.]+1+' '3+[-.]+3+4+')
record=(build/demo/examples/recorder_demo --store "$store" --hours "$hours" --manifest "$store/manifest.txt")
if ! record_and_kill; then
    tail -n 20 "$store/recorder-1.log"
    exit 1
fi
echo 'starting it again on the same folder'
"${record[@]}" --log "$store/recorder-2.log" --resume || verdict=1
printf '\nwhat the kill cost:\n'
judge_kill || complain 'more than the unwritten tail is lost'
printf '\nffprobe counts, ffmpeg decodes:\n'
judge_folder || verdict=1
judge_files || verdict=1

printf '\nwhat was recorded when: record types, dots for nothing, dashes for a part of the time\n'
draw_timelines || complain 'the lines are not what was recorded'
printf '\nfour cameras in step, a minute around midnight (3000 frames each, but for the last 4 KiB of a file):\n'
play_in_step || complain 'frames are missing, or the channels are too far apart'
printf '\nten seconds around 23:55, played into a file of their own:\n'
export_ten_seconds || complain 'the export is not what was recorded'
judge_logs || verdict=1

if ((verdict == 0)); then
    printf '\nPASSED: every file holds what was delivered but for the tail that a kill may cost, lasts as long, and %s.\n' "$what_decoded"
else
    printf '\nFAILED: see above.\n'
fi
exit $verdict
