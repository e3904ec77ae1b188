#!/bin/sh
# check_ffmpeg.sh QNVTOOL hevc|h264
#
# Checks qnvtool edit's colour SEI against ffmpeg on the streams beside this
# script (make_streams.sh): 6 pictures, an IDR every 3.
#   hevc: after --mastering-display and --max-cll on x265's plain stream,
#         ffprobe reports our mastering display and light level on every key
#         frame, trace_headers finds one copy per key frame, and the decoded
#         pictures stay the same;
#         --every-au on x265's HDR stream replaces its values on every
#         picture; --remove-hdr leaves none; probe --hdr reports x265's values.
#   h264: the same edits on x264's streams, checked through trace_headers
#         (ffmpeg's H.264 decoder does not report these messages).
set -eu
qnvtool=$1
mode=$2
data=$(dirname "$0")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

pictures_expected=6
# shellcheck source=../edit_checks.sh
. "$data/../edit_checks.sh"

display='G(8500,39850)B(6550,2300)R(35400,14600)WP(15635,16450)L(40000000,5)'
# ffprobe's report of that display.
ours='red_x=35400/50000,red_y=14600/50000,green_x=8500/50000,green_y=39850/50000,blue_x=6550/50000,blue_y=2300/50000,white_point_x=15635/50000,white_point_y=16450/50000,min_luminance=5/10000,max_luminance=40000000/10000,'

# One line per frame: "KEY md=<mastering display> cll=<light level>".
frames() {
    ffprobe -v error -show_frames "$1" | awk '
        /^\[FRAME\]/ { key = ""; md = ""; cll = ""; sd = "" }
        /^key_frame=/ { key = substr($0, 11) }
        /^side_data_type=/ { sd = substr($0, 16) }
        sd == "Mastering display metadata" && /^(red|green|blue|white|min|max)_/ { md = md $0 "," }
        sd == "Content light level metadata" && /^max_/ { cll = cll $0 "," }
        /^\[\/FRAME\]/ { print key " md=" md " cll=" cll }'
}
# check_frames FILE KEY_LINE OTHER_LINE: every key frame's line and every
# other frame's line.
check_frames() {
    report=$(frames "$1")
    [ "$(echo "$report" | wc -l)" = 6 ] || fail "$1: ffprobe reports $(echo "$report" | wc -l) frames"
    keys=$(echo "$report" | grep -c '^1 ') || true
    [ "$keys" -ge 2 ] || fail "$1: $keys key frames"
    bad=$(echo "$report" | grep -vx "1 $2" | grep -vx "0 $3") || true
    [ -z "$bad" ] || fail "$1: frames reported as: $bad"
}
keyframes() {
    ffprobe -v error -show_entries frame=key_frame -of csv=p=0 "$1" | grep -c '^1'
}

case $mode in
hevc)
    # ffmpeg's HEVC decoder keeps the values of an IRAP picture for the
    # pictures that follow it; trace_headers counts the messages written.
    edit "$data/plain.265" "$work/a.265" --mastering-display "$display" --max-cll 1000,400
    check_frames "$work/a.265" "md=$ours cll=max_content=1000,max_average=400," \
        "md=$ours cll=max_content=1000,max_average=400,"
    keys=$(keyframes "$work/a.265")
    [ "$(trace "$work/a.265" | grep -c 'Mastering Display Colour Volume')" = "$keys" ] ||
        fail "a.265: not one mastering display message per key frame"
    [ "$(trace "$work/a.265" | grep -c 'Content Light Level Information')" = "$keys" ] ||
        fail "a.265: not one light level message per key frame"
    same_pictures "$data/plain.265" "$work/a.265"

    # x265's values give way to ours on every picture.
    edit "$data/x265.265" "$work/b.265" --mastering-display "$display" --max-cll 2000,300 --every-au
    check_frames "$work/b.265" "md=$ours cll=max_content=2000,max_average=300," \
        "md=$ours cll=max_content=2000,max_average=300,"
    same_pictures "$data/x265.265" "$work/b.265"
    [ "$("$qnvtool" probe --hdr "$work/b.265" | grep -c '"max_content_light_level": 2000')" = 6 ] ||
        fail "probe --hdr does not list the light level of every access unit"

    edit "$data/x265.265" "$work/c.265" --remove-hdr
    check_frames "$work/c.265" "md= cll=" "md= cll="
    same_pictures "$data/x265.265" "$work/c.265"
    [ "$("$qnvtool" probe --hdr "$work/c.265")" = "[]" ] || fail "probe --hdr finds colour SEI after --remove-hdr"

    # probe reports what x265 wrote (the values themselves: ColorSeiFind in
    # tests/qnvutil/hdr).
    first=$("$qnvtool" probe --hdr --first "$data/x265.265")
    for entry in '"display_primaries_x": \[' '"max_content_light_level": 1000' '"access_unit": 0'; do
        echo "$first" | grep -q "$entry" || fail "probe --hdr --first: no $entry in $first"
    done
    ;;
h264)
    keys=$(keyframes "$data/plain.264")
    [ "$keys" -ge 2 ] || fail "plain.264: $keys key frames"
    # traced FILE NAME=VALUE...: trace_headers gives NAME the VALUE once per key frame.
    traced() {
        file=$1
        shift
        for pair in "$@"; do
            expected=$(for _ in $(seq "$keys"); do printf '%s ' "${pair#*=}"; done)
            got=$(values "$file" "${pair%%=*}")
            [ "$got" = "$expected" ] || fail "$file: ${pair%%=*} traced as '$got', expected '$expected'"
        done
    }

    edit "$data/plain.264" "$work/a.264" --mastering-display "$display" --max-cll 1000,400 --atc 14
    traced "$work/a.264" 'display_primaries_x\[0\]=8500' 'display_primaries_y\[2\]=14600' white_point_y=16450 \
        max_display_mastering_luminance=40000000 min_display_mastering_luminance=5 max_content_light_level=1000 \
        max_pic_average_light_level=400 preferred_transfer_characteristics=14
    same_pictures "$data/plain.264" "$work/a.264"

    # x264's values give way to ours.
    edit "$data/x264.264" "$work/b.264" --mastering-display "$display" --max-cll 2000,300
    traced "$work/b.264" 'display_primaries_x\[0\]=8500' max_content_light_level=2000
    same_pictures "$data/x264.264" "$work/b.264"

    edit "$data/x264.264" "$work/c.264" --remove-hdr
    ! trace "$work/c.264" | grep -q -e 'Mastering Display' -e 'Content Light' || fail "c.264: colour SEI left"
    same_pictures "$data/x264.264" "$work/c.264"
    first=$("$qnvtool" probe --hdr --first "$data/x264.264")
    echo "$first" | grep -q '"max_content_light_level": 1000' || fail "probe --hdr --first: $first"
    ;;
*)
    fail "unknown check $mode"
    ;;
esac
echo "ok: $mode"
