#!/bin/sh
# Regenerates the caption file checks' fixtures:
#   captions.scc  CEA-608 captions on CC1 at drop-frame time codes around the
#                 minute 00:01:00;02 (whose frame numbers 00 and 01 do not
#                 exist): a pop-on caption, a pop-on caption with basic-set
#                 replacements and special characters that is loaded across
#                 the minute, and a roll-up caption of two rows. Every pair
#                 carries odd parity; no line queues behind another.
#   h264.264      150 frames of a 64x64 test pattern at 29.97 fps, x264 with
#                 its default settings
#   hevc.265      the same frames, x265 with its default settings
#   mpeg2.m2v     the same frames, ffmpeg's mpeg2video
# The streams' first picture is taken as 00:00:58;00.
set -eu
cd "$(dirname "$0")"

# Odd parity on a 7-bit byte.
parity() {
    b=$(($1)) n=0 v=$(($1))
    while [ "$v" -gt 0 ]; do n=$((n + (v & 1))); v=$((v >> 1)); done
    [ $((n % 2)) -eq 1 ] && echo "$b" || echo $((b | 128))
}
# word B1 B2: one pair as four hex digits, parity added.
word() { printf '%02x%02x' "$(parity "$1")" "$(parity "$2")"; }
# text STRING: the characters in pairs (the last padded with 00).
text() {
    s=$1 out=""
    while [ -n "$s" ]; do
        a=$(printf '%d' "'$(printf '%s' "$s" | cut -c1)")
        rest=$(printf '%s' "$s" | cut -c2-)
        if [ -n "$rest" ]; then
            b=$(printf '%d' "'$(printf '%s' "$rest" | cut -c1)")
            s=$(printf '%s' "$rest" | cut -c2-)
        else
            b=0 s=""
        fi
        out="$out $(word "$a" "$b")"
    done
    printf '%s' "${out# }"
}
# Control codes, each sent twice.
twice() { w=$(word "$1" "$2"); printf '%s %s' "$w" "$w"; }
RCL=$(twice 0x14 0x20) ENM=$(twice 0x14 0x2E) EOC=$(twice 0x14 0x2F) EDM=$(twice 0x14 0x2C)
RU2=$(twice 0x14 0x25) CR=$(twice 0x14 0x2D)
PAC15=$(twice 0x14 0x70) PAC14=$(twice 0x14 0x50)
NOTE=$(twice 0x11 0x37)   # eighth note
TM=$(twice 0x11 0x34)     # trade mark sign

{
    printf 'Scenarist_SCC V1.0\n\n'
    printf '00:00:58;05\t%s %s %s %s %s\n\n' "$RCL" "$ENM" "$PAC15" "$(text 'CAPTION ONE')" "$EOC"
    printf '00:00:59;10\t%s\n\n' "$EDM"
    # \ and ~ stand for e acute and n tilde in the basic set.
    printf '00:00:59;18\t%s %s %s %s %s %s %s %s\n\n' "$RCL" "$ENM" "$PAC14" "$(text 'CAF\ MA~ANA')" "$PAC15" \
        "$(text 'SONG')" "$NOTE $TM" "$EOC"
    printf '00:01:01;00\t%s\n\n' "$EDM"
    printf '00:01:01;10\t%s %s %s %s\n\n' "$RU2" "$PAC15" "$(text 'ROLL ONE')" "$CR"
    printf '00:01:02;00\t%s %s\n\n' "$(text 'ROLL TWO')" "$CR"
    printf '00:01:02;20\t%s\n' "$EDM"
} >captions.scc

src() { ffmpeg -v error -f lavfi -i testsrc=size=64x64:rate=30000/1001 -frames:v 150 -pix_fmt yuv420p -f yuv4mpegpipe -; }
src | x264 --demuxer y4m --quiet --output h264.264 - 2>/dev/null
src | x265 --input - --y4m --no-info --no-progress --log-level error --output hevc.265
src | ffmpeg -v error -f yuv4mpegpipe -i - -c:v mpeg2video -q:v 12 -f mpeg2video -y mpeg2.m2v
