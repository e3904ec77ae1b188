#!/bin/sh
# Regenerates samples/sample.265: 12 frames of a 176x144 test pattern at 25 fps,
# encoded with Debian's ffmpeg (testsrc) and x265 (an I frame every 6 frames,
# so the stream holds two IRAP pictures, and parameter sets before each).
set -eu
cd "$(dirname "$0")"
ffmpeg -v error -f lavfi -i testsrc=size=176x144:rate=25 -frames:v 12 -pix_fmt yuv420p -f yuv4mpegpipe - |
    x265 --input - --y4m --preset medium --keyint 6 --min-keyint 6 --bframes 2 --repeat-headers \
         --aud --no-info --log-level error --output sample.265
