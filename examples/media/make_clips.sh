#!/bin/sh
# Makes the clips of this folder anew. Wants ffmpeg with x264, and Python 3 up to 3.12 for its ADPCM encoder.
# Usage: make_clips.sh [FOLDER], by default the folder of this script.
set -eu

out=${1:-$(dirname "$0")}
mkdir -p "$out"
cd "$out"

# A picture drawn by ffmpeg, encoded by x264: a key frame each second and nowhere else, no B-frames.
# h264_clip SOURCE SIZE FILE
h264_clip() {
    ffmpeg -nostdin -v error -y -f lavfi -i "$1=size=$2:rate=25:duration=10" -c:v libx264 -preset veryslow -crf 36 \
        -pix_fmt yuv420p -g 25 -keyint_min 25 -sc_threshold 0 -bf 0 -threads 1 -f h264 "$3"
}

h264_clip testsrc 640x360 640x360.h264
h264_clip testsrc2 480x270 480x270.h264

ffmpeg -nostdin -v error -y -f lavfi -i testsrc2=size=480x270:rate=25:duration=2 -c:v mjpeg -q:v 31 -pix_fmt yuvj420p \
    -threads 1 -f mjpeg 480x270.mjpeg

# A tone with a beep each second: 8000 samples a second, mono.
# tone FREQUENCY OPTION...
tone() {
    frequency=$1
    shift
    ffmpeg -nostdin -v error -y -f lavfi -i "sine=frequency=$frequency:beep_factor=4:sample_rate=8000:duration=5.1" "$@"
}

tone 440 -t 5 -c:a pcm_alaw -f alaw alaw.g711

# ffmpeg's encoder makes only blocks whose size is a power of two. Recorders use 164 bytes: a head of 4 (first sample, step
# index, 0) and 320 further samples of 4 bits, in the layout of a WAV file, which wants the earlier sample in the low half of
# a byte where audioop puts it in the high half.
tone 330 -c:a pcm_s16le -f s16le - | python3 -W ignore::DeprecationWarning -c '
import audioop, struct, sys

BLOCKS, SAMPLES, RATE = 125, 321, 8000
pcm = sys.stdin.buffer.read()
blocks, index = b"", 0
for n in range(BLOCKS):
    part = pcm[2 * SAMPLES * n : 2 * SAMPLES * (n + 1)]
    first, = struct.unpack_from("<h", part)
    nibbles, (_, next_index) = audioop.lin2adpcm(part[2:], 2, (first, index))
    blocks += struct.pack("<hBB", first, index, 0) + bytes((b << 4 | b >> 4) & 0xFF for b in nibbles)
    index = next_index
form = struct.pack("<HHIIHHHH", 0x11, 1, RATE, RATE * 164 // SAMPLES, 164, 4, 2, SAMPLES)
body = (b"WAVE" + b"fmt " + struct.pack("<I", len(form)) + form
        + b"fact" + struct.pack("<II", 4, BLOCKS * SAMPLES) + b"data" + struct.pack("<I", len(blocks)) + blocks)
sys.stdout.buffer.write(b"RIFF" + struct.pack("<I", len(body)) + body)
' > ima-adpcm.wav
