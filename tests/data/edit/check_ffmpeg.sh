#!/bin/sh
# check_ffmpeg.sh QNVTOOL vui|aud|sei
#
# Checks qnvtool edit against ffmpeg on 320x240 streams that x264 and x265
# code from twelve test pictures into a temporary folder (B-frames, an IDR or
# CRA every six pictures).
#   vui: ffprobe reports the colour, range, aspect, level, rate and size that
#        the options set, and the decoded pictures (framemd5) stay the same
#        where no option changes them;
#   aud: removing the encoders' delimiters and inserting them again gives one
#        delimiter in front of every picture, with the picture types the
#        encoders wrote, and the same pictures; two slices per picture;
#   sei: --remove-sei 5 takes the user-data-unregistered messages out and
#        keeps the others, also those sharing a NAL unit with one (which
#        ffmpeg's h264_metadata adds to x264's buffering period unit).
set -eu
qnvtool=$1
mode=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

pictures_expected=12
# shellcheck source=../edit_checks.sh
. "$(dirname "$0")/../edit_checks.sh"

ffmpeg -nostdin -v error -f lavfi -i testsrc=size=320x240:rate=25 -frames:v 12 -pix_fmt yuv420p \
    -f yuv4mpegpipe "$work/in.y4m"
# encode CODEC OUT [encoder options]
encode() {
    codec=$1
    out=$2
    shift 2
    if [ "$codec" = h264 ]; then
        x264 --quiet --bframes 2 --b-pyramid normal --keyint 6 "$@" -o "$out" "$work/in.y4m" 2>/dev/null
    else
        x265 --input "$work/in.y4m" --y4m --bframes 3 --keyint 6 --log-level error --no-progress "$@" \
            --output "$out" 2>/dev/null
    fi
}

case $mode in
vui)
    # codec | encoder options | edit options | ffprobe entries expected after | same pictures
    while IFS='|' read -r codec encoder options expected same; do
        [ -n "$codec" ] || continue
        in=$work/in.$codec
        out=$work/out.$codec
        # shellcheck disable=SC2086
        encode $codec "$in" $encoder
        # shellcheck disable=SC2086
        edit "$in" "$out" $options
        probe=$(ffprobe -v error -show_streams "$out")
        for entry in $expected; do
            echo "$probe" | grep -qx "$entry" || fail "$codec $options: no $entry in ffprobe's report"
        done
        errors=$(ffmpeg -nostdin -v error -i "$out" -f null - 2>&1) || fail "$out: ffmpeg failed: $errors"
        [ -z "$errors" ] || fail "$codec $options: decoding errors: $errors"
        [ "$same" = no ] || same_pictures "$in" "$out"
    done <<'EOF'
h264||--primaries 9 --transfer 16 --matrix 9 --range pc --sar 4:3|color_primaries=bt2020 color_transfer=smpte2084 color_space=bt2020nc color_range=pc sample_aspect_ratio=4:3|yes
hevc||--primaries 9 --transfer 16 --matrix 9 --range pc --sar 5:7|color_primaries=bt2020 color_transfer=smpte2084 color_space=bt2020nc color_range=pc sample_aspect_ratio=5:7|yes
h264|--colorprim bt709 --transfer bt709 --colormatrix bt709 --sar 12:11|--transfer 16 --range tv|color_primaries=bt709 color_transfer=smpte2084 color_space=bt709 color_range=tv sample_aspect_ratio=12:11|yes
hevc|--colorprim bt709 --transfer bt709 --colormatrix bt709 --range full|--matrix 1 --range tv --sar 2:1|color_primaries=bt709 color_transfer=bt709 color_space=bt709 color_range=tv sample_aspect_ratio=2:1|yes
h264||--level 5.1 --fps 50 --crop 2,4,6,8|width=314 height=226 level=51 r_frame_rate=50/1|no
hevc||--level 5.1 --fps 30000/1001 --crop 2,4,6,8|width=314 height=226 level=153 r_frame_rate=30000/1001|no
EOF
    ;;
aud)
    for codec in h264 hevc; do
        in=$work/aud.$codec
        encode $codec "$in" --aud --slices 2
        edit "$in" "$work/none.$codec" --aud remove
        edit "$work/none.$codec" "$work/again.$codec" --aud insert
        same_pictures "$in" "$work/none.$codec"
        same_pictures "$in" "$work/again.$codec"
        for stream in none again; do
            # One letter per delimiter (D) and per picture's first slice (P).
            order=$(trace "$work/$stream.$codec" | sed -n \
                -e 's/.*Access Unit Delimiter.*/D/p' \
                -e 's/.*first_mb_in_slice  *[01]* = 0$/P/p' \
                -e 's/.*first_slice_segment_in_pic_flag  *1 = 1$/P/p' | tr -d '\n')
            expected=PPPPPPPPPPPP
            [ $stream = none ] || expected=DPDPDPDPDPDPDPDPDPDPDPDP
            [ "$order" = "$expected" ] || fail "$stream.$codec: delimiters and pictures in the order $order"
        done
        # The picture types are those the encoder wrote (x265 writes no
        # delimiter in front of the first picture).
        name=primary_pic_type
        [ $codec = h264 ] || name=pic_type
        theirs=$(values "$in" $name)
        ours=$(values "$work/again.$codec" $name)
        [ $codec = h264 ] || ours=${ours#* }
        [ "$ours" = "$theirs" ] || fail "$codec: $name '$ours', the encoder's '$theirs'"
    done
    ;;
sei)
    # payload_types FILE: the SEI payloadType values in stream order.
    payload_types() { values "$1" last_payload_type_byte; }
    encode h264 "$work/hrd.264" --nal-hrd vbr --vbv-bufsize 2000 --vbv-maxrate 1500
    ffmpeg -nostdin -v error -i "$work/hrd.264" -c copy \
        -bsf:v h264_metadata=sei_user_data=086f3693-b7b3-4f2c-9653-21492feee5b8+qnv -y "$work/shared.264"
    [ "$(trace "$work/shared.264" | grep -c "Supplemental Enhancement")" = \
        "$(trace "$work/hrd.264" | grep -c "Supplemental Enhancement")" ] ||
        fail "h264_metadata put its message into a unit of its own"
    edit "$work/hrd.264" "$work/hrd-5.264" --remove-sei 5
    edit "$work/shared.264" "$work/shared-5.264" --remove-sei 5
    cmp -s "$work/hrd-5.264" "$work/shared-5.264" ||
        fail "removing the added messages does not give the stream without them"
    before=$(payload_types "$work/hrd.264")
    after=$(payload_types "$work/shared-5.264")
    [ "$after" = "$(echo "$before" | sed 's/\<5 //g')" ] || fail "h264 payload types '$after' from '$before'"
    same_pictures "$work/hrd.264" "$work/shared-5.264"

    encode hevc "$work/hrd.265" --hrd --vbv-bufsize 2000 --vbv-maxrate 1500
    edit "$work/hrd.265" "$work/hrd-5.265" --remove-sei 5
    before=$(payload_types "$work/hrd.265")
    after=$(payload_types "$work/hrd-5.265")
    case " $before" in *" 5 "*) ;; *) fail "x265 wrote no user data unregistered message: '$before'" ;; esac
    [ "$after" = "$(echo "$before" | sed 's/\<5 //g')" ] || fail "hevc payload types '$after' from '$before'"
    same_pictures "$work/hrd.265" "$work/hrd-5.265"
    ;;
*)
    fail "unknown mode $mode"
    ;;
esac
echo "ffmpeg edit $mode check passed"
