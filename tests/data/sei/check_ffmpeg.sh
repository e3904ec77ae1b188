#!/bin/sh
# check_ffmpeg.sh QNVTOOL captions|timecode
#
# Checks qnvtool's caption and time-code insertion against ffmpeg's decoders,
# on the streams that make_streams.sh and make_cdps.sh made (30 frames each).
#   captions: the streams decode cleanly; ffprobe reports ATSC A53 caption
#             side data on every H.264 and HEVC frame; the CEA-608 text that
#             went in comes back out of ffmpeg's caption decoder exactly, its
#             characters in display order although the streams carry B-frames.
#   timecode: ffprobe reports the SMPTE 12-1 time code of every frame, across
#             the drop-frame minute boundary at 29.97.
#   timecode-h264: the same for H.264 pic_timing, frame by frame in display
#             order although the stream carries B-frames, the pictures
#             decoding to the same frames as before; and on a stream with HRD
#             parameters and pic_timing of its own, non-drop-frame, that
#             pic_timing replaced (one per picture) with its delays kept;
#             and on an interlaced stream, each frame's pic_struct kept.
set -eu
qnvtool=$1
mode=$2
data=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
frames=30
pictures_expected=$frames
text="DISPLAY ORDER 42"
# shellcheck source=../edit_checks.sh
. "$data/../edit_checks.sh"

a53_on_every_frame() {
    n=$(ffprobe -v error -show_frames "$1" | grep -c "^side_data_type=ATSC A53 Part 4 Closed Captions$" || true)
    [ "$n" = "$frames" ] || fail "$1: A53 caption side data on $n of $frames frames"
}

text_comes_back() {
    # The caption decoder needs timestamps, which a raw stream with B-frames
    # lacks. The decoder hands out pictures, with their caption data, in
    # display order; an intra-only x264 encode of them into Matroska keeps
    # that data with timestamps.
    ffmpeg -nostdin -v error -r 30000/1001 -i "$1" -c:v libx264 -a53cc 1 -bf 0 -y "$1.mkv"
    subtitles=$(ffmpeg -nostdin -v error -f lavfi -i "movie=$1.mkv[out0+subcc]" -map 0:1 -f srt - 2>&1)
    echo "$subtitles" | grep -q "}$text<" || fail "$1: caption text not decoded in order: $subtitles"
}

# 00:00:59;28 on, at 29.97 drop-frame: ;00 and ;01 of the minute are left out.
drop_frame_minute="00:00:59;28 00:00:59;29$(for f in $(seq -w 2 29); do printf ' 00:01:00;%s' "$f"; done)"

time_codes_are() {
    got=$(ffprobe -v error -show_frames "$1" | sed -n 's/^value=//p' | tr '\n' ' ' | sed 's/ $//')
    [ "$got" = "$2" ] || fail "$1: time codes: got '$got', expected '$2'"
}

case $mode in
captions)
    for stream in h264.264 hevc.265 mpeg2.m2v; do
        out=$work/cc-$stream
        "$qnvtool" captions "$data/$stream" "$out" --608-text "$text" --rate 29 >/dev/null
        decodes_cleanly "$out"
        if [ "$stream" = mpeg2.m2v ]; then
            # Every picture starts with the GA94 user data. Its flag byte holds
            # the triplet count alone, with process_cc_data_flag 0, which
            # ffmpeg's MPEG-2 decoder takes as "no captions"; with the flag
            # (and cc_count 10) set, the same blocks must decode as captions.
            n=$(LC_ALL=C grep -aoP '\x00\x00\x01\xb2GA94\x03\x0c\xff' "$out" | wc -l)
            [ "$n" = "$frames" ] || fail "$out: $n GA94 user data blocks, expected $frames"
            LC_ALL=C perl -0777 -pe 's/\x00\x00\x01\xb2GA94\x03\x0c/\x00\x00\x01\xb2GA94\x03\x4a/g' "$out" >"$out.flagged"
            out=$out.flagged
        fi
        a53_on_every_frame "$out"
        text_comes_back "$out"
    done
    # Both CDP file forms give the same stream, captioned on every frame.
    "$qnvtool" captions "$data/h264.264" "$work/bare.264" --cdp "$data/cdps.bin" >/dev/null
    "$qnvtool" captions "$data/h264.264" "$work/wrapped.264" --cdp "$data/packets.bin" >/dev/null
    cmp -s "$work/bare.264" "$work/wrapped.264" || fail "the two CDP file forms give different streams"
    decodes_cleanly "$work/bare.264"
    a53_on_every_frame "$work/bare.264"
    ;;
timecode)
    out=$work/tc.265
    "$qnvtool" timecode "$data/hevc.265" "$out" --start 00:00:59:28 --rate 30000/1001 >/dev/null
    decodes_cleanly "$out"
    time_codes_are "$out" "$drop_frame_minute"
    ;;
timecode-h264)
    out=$work/tc.264
    "$qnvtool" timecode "$data/h264.264" "$out" --start 00:00:59:28 --rate 30000/1001 >/dev/null
    decodes_cleanly "$out"
    same_pictures "$data/h264.264" "$out"
    time_codes_are "$out" "$drop_frame_minute"

    out=$work/tc-hrd.264
    "$qnvtool" timecode "$data/h264hrd.264" "$out" --start 01:00:00:00 --rate 30000/1001 --ndf >/dev/null
    decodes_cleanly "$out"
    same_pictures "$data/h264hrd.264" "$out"
    time_codes_are "$out" "$(for f in $(seq -w 0 29); do printf '01:00:00:%s ' "$f"; done | sed 's/ $//')"
    delays() { echo "$(values "$1" cpb_removal_delay)$(values "$1" dpb_output_delay)"; }
    [ -n "$(delays "$out")" ] || fail "$out: no CPB and DPB delays"
    [ "$(delays "$out")" = "$(delays "$data/h264hrd.264")" ] || fail "$out: CPB and DPB delays changed"
    n=$(trace "$out" | grep -c "Picture Timing" || true)
    [ "$n" = "$frames" ] || fail "$out: $n pic_timing messages, expected $frames"

    # Interlaced frames keep their field order (pic_struct 3, top field first).
    out=$work/tc-tff.264
    "$qnvtool" timecode "$data/h264tff.264" "$out" --start 00:00:59:28 --rate 30000/1001 >/dev/null
    same_pictures "$data/h264tff.264" "$out"
    time_codes_are "$out" "$drop_frame_minute"
    structs=$(trace "$out" | grep -c ' pic_struct .* = 3$' || true)
    [ "$structs" = "$frames" ] || fail "$out: pic_struct 3 on $structs of $frames frames"
    ;;
*)
    fail "unknown mode $mode"
    ;;
esac
echo "ffmpeg $mode check passed"
