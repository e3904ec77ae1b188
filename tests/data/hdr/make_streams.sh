#!/bin/sh
# Regenerates the small streams of the HDR tests: 6 frames of a 64x64 test
# pattern at 25 fps, an IDR picture every 3 frames, with the colour SEI the
# encoders write from their own options:
#   x265.265   x265 --master-display, --max-cll, --atc-sei
#   x264.264   x264 --mastering-display, --cll
#   plain.265  x265 without colour SEI
#   plain.264  x264 without colour SEI
# The values are those of tests/qnvutil/hdr/color_sei_test.cpp.
set -eu
cd "$(dirname "$0")"
display='G(13250,34500)B(7500,3000)R(34000,16000)WP(15635,16450)L(10000000,50)'
src() { ffmpeg -v error -f lavfi -i testsrc=size=64x64:rate=25 -frames:v 6 -pix_fmt yuv420p -f yuv4mpegpipe -; }
x265run() {
    out=$1
    shift
    src | x265 --input - --y4m --keyint 3 --min-keyint 3 --bframes 1 --preset fast --no-info --no-progress \
        --log-level error "$@" --output "$out"
}
x265run x265.265 --master-display "$display" --max-cll 1000,400 --atc-sei 18
x265run plain.265
src | x264 --demuxer y4m --keyint 3 --min-keyint 3 --bframes 1 --preset fast --quiet \
    --mastering-display "$display" --cll 1000,400 --output x264.264 - 2>/dev/null
src | x264 --demuxer y4m --keyint 3 --min-keyint 3 --bframes 1 --preset fast --quiet --output plain.264 - 2>/dev/null
# plain.265 in an MP4 file, for the Dolby Vision configuration box check
# (the box goes behind its sample entry's 'hvcC'; the index follows the
# media data, so no chunk offset moves).
ffmpeg -v error -i plain.265 -c copy -tag:v hvc1 -f mp4 -y plain.mp4
