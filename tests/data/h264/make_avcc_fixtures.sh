#!/usr/bin/env bash
# Makes the 'avcC' fixtures: for each case a one-frame x264 stream
# (avcc_<case>.264, Annex B) and the MP4 that ffmpeg muxes from it by stream
# copy (avcc_<case>.mp4), whose 'avcC' box the tests compare with the record
# built from the stream.
# Needs ffmpeg and x264 (Debian packages ffmpeg, x264). Run from anywhere.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

# make CASE PIXFMT X264-OPTIONS...
make() {
    local name=avcc_$1 pixfmt=$2
    shift 2
    ffmpeg -hide_banner -loglevel error -f lavfi -i "testsrc=size=64x48:rate=25" -frames:v 1 -pix_fmt "$pixfmt" \
        -strict -1 -f yuv4mpegpipe - | x264 --quiet --demuxer y4m --preset veryfast "$@" -o "$here/$name.264" - 2>/dev/null
    ffmpeg -hide_banner -loglevel error -i "$here/$name.264" -c copy -fflags +bitexact -y "$here/$name.mp4"
    echo "$name: $(stat -c %s "$here/$name.264") + $(stat -c %s "$here/$name.mp4") bytes"
}

make high420 yuv420p --profile high
make high422_10 yuv422p10le --output-depth 10 --output-csp i422
make baseline yuv420p --profile baseline
