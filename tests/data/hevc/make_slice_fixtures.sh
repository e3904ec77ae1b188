#!/usr/bin/env bash
# Makes the HEVC slice header fixtures in slices/: short x265 streams with
# default B-frames, an open GOP with CRA and RASL pictures, weighted
# prediction, wavefront entry points and two slices (<case>.265), and
# ffmpeg's trace of their slice segment headers (<case>.ref: a line "SLICE"
# per slice segment, then "<bit position> <syntax element> <bits> <value>").
# Needs ffmpeg and
# x265 (Debian packages ffmpeg, x265). Run from anywhere.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)/slices
mkdir -p "$here"

trace() {
    ffmpeg -hide_banner -v trace -i "$1" -c copy -bsf:v trace_headers -f null - 2>&1 |
        sed -n 's/^\[trace_headers @ [^]]*\] //p' |
        awk '/^Slice Segment Header/ { print "SLICE"; keep = 1; next }
             /^[A-Z]/ { keep = 0; next }
             keep && /^[0-9]+ / { print $1, $2, $3, $NF }' >"$2"
}

# make CASE FRAMES X265-OPTIONS...
make() {
    local name=$1 frames=$2
    shift 2
    ffmpeg -hide_banner -loglevel error -f lavfi -i "testsrc2=size=128x96:rate=25,fade=in:0:$frames" \
        -frames:v "$frames" -pix_fmt yuv420p -f yuv4mpegpipe - |
        x265 --input - --y4m --log-level error --no-info "$@" -o "$here/$name.265" 2>/dev/null
    trace "$here/$name.265" "$here/$name.ref"
    echo "$name: $(stat -c %s "$here/$name.265") bytes, $(grep -c SLICE "$here/$name.ref") slice segments"
}
make default 16
make opengop 20 --open-gop --keyint 8 --min-keyint 8 --bframes 3
make weighted 12 --weightp --weightb --bframes 2 --no-wpp
make wpp_slices 8 --wpp --slices 2 --ctu 16 --bframes 0
