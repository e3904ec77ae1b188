#!/bin/sh
# Regenerates the small streams of the caption and time-code checks: 30
# frames of a 64x64 test pattern at 29.97 fps, an I picture every 15 frames,
# with the encoders' default B-frames (so decoding and display order differ).
#   h264.264   x264: three B-frames with B-pyramid (no access unit delimiters)
#   h264hrd.264  the same with NAL HRD parameters and x264's own pic_timing SEI
#                (CPB and DPB delays, pic_struct without clock timestamps)
#   h264tff.264 x264 interlaced (MBAFF, top field first: pic_timing with
#              pic_struct 3 on every frame)
#   hevc.265   x265: its default four B-frames (no access unit delimiters)
#   mpeg2.m2v  ffmpeg mpeg2video
set -eu
cd "$(dirname "$0")"
src() { ffmpeg -v error -f lavfi -i testsrc=size=64x64:rate=30000/1001 -frames:v 30 -pix_fmt yuv420p "$@"; }
src -f yuv4mpegpipe - |
    x264 --demuxer y4m --keyint 15 --min-keyint 15 --preset fast --quiet --output h264.264 - 2>/dev/null
src -f yuv4mpegpipe - |
    x264 --demuxer y4m --keyint 15 --min-keyint 15 --preset fast --quiet --nal-hrd vbr --vbv-bufsize 600 \
         --vbv-maxrate 500 --pic-struct --output h264hrd.264 - 2>/dev/null
src -f yuv4mpegpipe - |
    x264 --demuxer y4m --keyint 15 --min-keyint 15 --preset fast --quiet --tff --output h264tff.264 - 2>/dev/null
src -f yuv4mpegpipe - |
    x265 --input - --y4m --keyint 15 --min-keyint 15 --preset fast --no-info --no-progress \
         --log-level error --output hevc.265
src -c:v mpeg2video -bf 0 -g 15 -q:v 4 -f mpeg2video -y mpeg2.m2v
