#!/bin/sh
# check_ffmpeg.sh QNVTOOL
#
# Checks qnvtool interlace against ffmpeg. x265 codes four 1920x544 pictures
# (59.94 per second, no reordering, one stream with HRD parameters and timing
# SEI, one without) into a temporary folder; qnvtool pairs them into two
# field pairs. Each result must decode without errors as four 1920x540
# fields with a 1:2 sample aspect ratio, and ffmpeg's trace_headers must show
# field_seq_flag 1, Extended_SAR 1:2, the conformance window cropping 2
# chroma lines at the bottom, the interlaced source flags, and one
# pic_timing per field with pic_struct 11 and 10 in turn (the source's
# buffering period and picture timing messages gone).
set -eu
qnvtool=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# shellcheck source=../edit_checks.sh
. "$(dirname "$0")/../edit_checks.sh"

ffmpeg -nostdin -v error -f lavfi -i testsrc=size=1920x544:rate=60000/1001 -frames:v 4 -pix_fmt yuv420p \
    -f yuv4mpegpipe "$work/in.y4m"
encode() {
    x265 --input "$work/in.y4m" --y4m --preset ultrafast --bframes 0 --no-info --log-level error \
        --no-progress "$@" 2>/dev/null
}
encode --output "$work/plain.265"
encode --hrd --vbv-bufsize 4000 --vbv-maxrate 3000 --output "$work/hrd.265"
trace "$work/hrd.265" | grep -q "Buffering Period" || fail "x265 wrote no buffering period message"

# field VALUES NAME: the values trace_headers printed for NAME, in order.
field() {
    sed -n "s/^\[trace_headers @ [0-9a-fx]*\] [0-9]* *$2 .* = \([0-9]*\)$/\1/p" "$1" | tr '\n' ' ' | sed 's/ $//'
}
# all TRACE NAME VALUE: every value of NAME (at least one) is VALUE.
all() {
    got=$(field "$1" "$2")
    [ -n "$got" ] || fail "$1: no $2"
    for v in $got; do [ "$v" = "$3" ] || fail "$1: $2 is '$got', expected $3 throughout"; done
}

for stream in plain hrd; do
    out=$work/$stream-fields.265
    "$qnvtool" interlace "$work/$stream.265" "$out" >/dev/null
    decodes_cleanly "$out"
    got=$(ffprobe -v error -count_frames -select_streams v:0 \
        -show_entries stream=width,height,sample_aspect_ratio,nb_read_frames -of csv=p=0 "$out")
    [ "$got" = "1920,540,1:2,4" ] || fail "$out: width,height,sar,frames are $got, expected 1920,540,1:2,4"

    trace=$work/$stream.trace
    ffmpeg -nostdin -hide_banner -i "$out" -c copy -bsf:v trace_headers -f null - >"$trace" 2>&1 ||
        fail "$out: trace_headers failed: $(grep -i error "$trace")"
    ! grep -qi "error\|invalid" "$trace" || fail "$out: trace_headers complains: $(grep -i "error\|invalid" "$trace")"
    all "$trace" field_seq_flag 1
    all "$trace" frame_field_info_present_flag 1
    all "$trace" aspect_ratio_idc 255
    all "$trace" sar_width 1
    all "$trace" sar_height 2
    all "$trace" conformance_window_flag 1
    all "$trace" conf_win_bottom_offset 2
    all "$trace" general_progressive_source_flag 0
    all "$trace" general_interlaced_source_flag 1
    all "$trace" vui_hrd_parameters_present_flag 0
    structs=$(field "$trace" pic_struct)
    [ "$structs" = "11 10 11 10" ] || fail "$out: pic_struct is '$structs', expected '11 10 11 10'"
    ! grep -q "Buffering Period" "$trace" || fail "$out: a buffering period message is left"
done
echo "ffmpeg interlace check passed"
