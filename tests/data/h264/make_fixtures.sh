#!/usr/bin/env bash
# Makes the H.264 parameter-set fixtures: for each case a short x264 stream is
# encoded, its SPS and PPS units are kept (<case>.264, Annex B, a few dozen
# bytes) and ffmpeg's trace_headers of those units is stored as the
# reference (<case>.ref: a line "SPS" or "PPS" per unit, then one line
# "<bit position> <syntax element> <value>" per element).
# Needs ffmpeg and x264 (Debian packages ffmpeg, x264). Run from anywhere.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A custom quantisation matrix file (every list differs from the defaults).
cat >"$work/custom.cqm" <<'CQM'
INTRA4X4_LUMA =
6,12,19,26,
12,19,26,31,
19,26,31,35,
26,31,35,40
INTRA4X4_CHROMAU =
8,14,20,28,
14,20,28,33,
20,28,33,37,
28,33,37,43
INTRA4X4_CHROMAV =
8,14,20,28,
14,20,28,33,
20,28,33,37,
28,33,37,43
INTER4X4_LUMA =
10,14,20,24,
14,20,24,27,
20,24,27,30,
24,27,30,34
INTER4X4_CHROMAU =
16,16,16,16,
16,16,16,16,
16,16,16,16,
16,16,16,16
INTER4X4_CHROMAV =
16,16,16,16,
16,16,16,16,
16,16,16,16,
16,16,16,16
INTRA8X8_LUMA =
6,10,13,16,18,23,25,27,
10,11,16,18,23,25,27,29,
13,16,18,23,25,27,29,31,
16,18,23,25,27,29,31,33,
18,23,25,27,29,31,33,36,
23,25,27,29,31,33,36,38,
25,27,29,31,33,36,38,40,
27,29,31,33,36,38,40,42
INTER8X8_LUMA =
9,13,15,17,19,21,22,24,
13,13,17,19,21,22,24,25,
15,17,19,21,22,24,25,27,
17,19,21,22,24,25,27,28,
19,21,22,24,25,27,28,30,
21,22,24,25,27,28,30,32,
22,24,25,27,28,30,32,33,
24,25,27,28,30,32,33,35
CQM

# make CASE SIZE PIXFMT X264-OPTIONS...
make() {
    local name=$1 size=$2 pixfmt=$3
    shift 3
    ffmpeg -hide_banner -loglevel error -f lavfi -i "testsrc=size=$size:rate=25" -frames:v 2 -pix_fmt "$pixfmt" -strict -1 \
        -f yuv4mpegpipe - | x264 --quiet --demuxer y4m --preset veryfast "$@" -o "$work/$name.264" - 2>/dev/null
    ffmpeg -hide_banner -loglevel error -i "$work/$name.264" -c copy -bsf:v filter_units=pass_types=7-8 \
        -frames:v 1 -f h264 -y "$here/$name.264"
    # ffmpeg finds no picture in these units and exits non-zero after tracing them.
    { ffmpeg -hide_banner -i "$here/$name.264" -c copy -bsf:v trace_headers -f null - 2>&1 || true; } |
        sed -n 's/^\[trace_headers @ [^]]*\] //p' |
        awk '/^Sequence Parameter Set/ { print "SPS"; next }
             /^Picture Parameter Set/ { print "PPS"; next }
             /^[0-9]+ / { print $1, $2, $NF }' >"$here/$name.ref"
    echo "$name: $(stat -c %s "$here/$name.264") bytes, $(grep -c PS "$here/$name.ref") units"
}

make baseline 176x144 yuv420p --profile baseline
make main_1080_slices 1920x1080 yuv420p --profile main --slices 4
make high_vui 720x576 yuv420p --profile high --sar 16:11 --overscan show --videoformat pal --range pc \
    --colorprim bt470bg --transfer bt470bg --colormatrix bt470bg --chromaloc 1 --fps 25
make high_sar_hrd_cbr 1280x720 yuv420p --sar 7:5 --fps 30000/1001 --nal-hrd cbr --bitrate 2000 \
    --vbv-maxrate 2000 --vbv-bufsize 2000
make high_hrd_vbr_cqm 352x288 yuv420p --nal-hrd vbr --vbv-maxrate 1500 --vbv-bufsize 3000 --cqmfile "$work/custom.cqm"
make high_cqm_jvt 352x288 yuv420p --cqm jvt
make high10_mbaff 720x480 yuv420p --output-depth 10 --tff
make high422_paff 718x406 yuv422p --fake-interlaced --output-csp i422
make high422_10 352x288 yuv422p10le --output-depth 10 --output-csp i422
make high444_lossless_odd 175x99 yuv444p --output-csp i444 --qp 0
