#!/bin/sh
# Regenerates the HEVC fixtures: short x265 streams of each kind the parameter
# set readers must handle, the parameter-set fields that ffmpeg's
# trace_headers prints for each stream (KIND.trace), and an MP4 that ffmpeg
# muxed from main.265 (main.mp4, for its 'hvcC' box).
#
# KIND.trace holds, for every VPS, SPS and PPS of the stream in order, a line
# "VPS", "SPS" or "PPS" and then one "BITPOS NAME VALUE" line per element.
set -eu
cd "$(dirname "$0")"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# encode KIND PIXFMT SIZE FRAMES X265-OPTIONS...
encode() {
    kind=$1 pixfmt=$2 size=$3 frames=$4
    shift 4
    ffmpeg -v error -y -f lavfi -i "testsrc=size=$size:rate=25" -frames:v "$frames" -pix_fmt "$pixfmt" \
        -f yuv4mpegpipe -strict -1 "$tmp/in.y4m"
    timeout 60 x265 --input "$tmp/in.y4m" --y4m --preset ultrafast --no-info --log-level error "$@" --output "$kind.265"
    trace "$kind.265" "$kind.trace"
}

# trace STREAM OUT: the parameter sets of the stream's packets (not the
# demuxer's extradata copy) as "BITPOS NAME VALUE" lines.
trace() {
    ffmpeg -hide_banner -i "$1" -c copy -bsf:v trace_headers -f null - 2>&1 |
        sed -e 's/^\[trace_headers @ [0-9a-fx]*\] //' |
        awk '/^Packet:/ { inpkt = 1; next }
             /^(Video|Sequence|Picture) Parameter Set$/ { if (inpkt) { ps = substr($1, 1, 1) "PS"; print ps }; insec = inpkt; next }
             /^[A-Z]/ { insec = 0; next }
             insec && /^[0-9]+ / { bits = ""; for (k = 3; k < NF - 1; k++) bits = bits $k; print $1, $2, bits, $NF }' >"$2"
}

# An HM-style scaling list file with a custom ramp in every list.
lists() {
    for size in 4X4 8X8 16X16 32X32; do
        n=64
        [ $size = 4X4 ] && n=16
        for pred in INTRA INTER; do
            for comp in LUMA CHROMAU CHROMAV; do
                [ $size = 32X32 ] && [ $comp != LUMA ] && continue
                echo "${pred}${size}_${comp} ="
                i=0 line=""
                while [ $i -lt $n ]; do line="$line$((16 + i % 8 + i / 8)),"; i=$((i + 1)); done
                echo "${line%,}"
                case $size in 16X16 | 32X32) printf '%s\n17\n' "${pred}${size}_${comp}_DC =" ;; esac
            done
        done
    done
}
lists >"$tmp/lists.txt"

encode main yuv420p 64x64 3
encode main10 yuv420p10le 64x64 3 --profile main10 --output-depth 10
encode main422_10 yuv422p10le 64x64 3 --profile main422-10 --output-depth 10
encode main444 yuv444p 64x64 3 --profile main444-8
encode hrd yuv420p 64x64 3 --hrd --vbv-bufsize 800 --vbv-maxrate 600 --repeat-headers
encode wpp yuv420p 64x64 3 --wpp --no-open-gop
encode nowpp yuv420p 64x64 3 --no-wpp --cbqpoffs 3 --crqpoffs -2 --qp 30
encode temporal yuv420p 64x64 6 --temporal-layers --bframes 3 --b-pyramid
encode interlace yuv420p 64x128 4 --interlace tff
encode scaling yuv420p 64x64 3 --scaling-list default
encode scaling_custom yuv420p 64x64 3 --scaling-list "$tmp/lists.txt"
encode lossless yuv420p 64x64 3 --lossless
encode repeat yuv420p 64x64 6 --keyint 2 --min-keyint 2 --repeat-headers --aud
encode vui yuv420p 64x72 3 --sar 4:3 --overscan show --videoformat pal --range full --colorprim bt709 \
    --transfer bt709 --colormatrix bt709 --chromaloc 1 --display-window 0,0,0,8

ffmpeg -v error -i main.265 -c copy -f mp4 -y main.mp4
