#!/usr/bin/env bash
# Makes the H.264 slice header fixtures in slices/: for each case a short x264
# stream (<case>.264, Annex B) and ffmpeg's trace of its slice headers
# (<case>.ref: a line "SLICE" per slice unit, then one line
# "<bit position> <syntax element> <bits> <value>" per element).
# Needs ffmpeg and x264 (Debian packages ffmpeg, x264). Run from anywhere.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)/slices
mkdir -p "$here"

# make CASE SIZE FRAMES X264-OPTIONS...
make() {
    local name=$1 size=$2 frames=$3
    shift 3
    # A fade makes x264 use weighted prediction where it is enabled.
    ffmpeg -hide_banner -loglevel error -f lavfi -i "testsrc2=size=$size:rate=25,fade=in:0:$frames" \
        -frames:v "$frames" -pix_fmt yuv420p -f yuv4mpegpipe - |
        x264 --quiet --demuxer y4m "$@" -o "$here/$name.264" - 2>/dev/null
    ffmpeg -hide_banner -v trace -i "$here/$name.264" -c copy -bsf:v trace_headers -f null - 2>&1 |
        sed -n 's/^\[trace_headers @ [^]]*\] //p' |
        awk '/^Slice Header/ { print "SLICE"; next } /^[0-9]+ / { print $1, $2, $3, $NF }' >"$here/$name.ref.tmp"
    # keep each slice's header: its lines up to the next unit's NAL header
    python3 - "$here/$name.ref.tmp" "$here/$name.ref" <<'PY'
import sys
lines = open(sys.argv[1]).read().split("\n")
out, keep = [], False
for line in lines:
    if line == "SLICE":
        out.append(line); keep = True; continue
    if not line: continue
    pos, name = line.split()[:2]
    if name == "forbidden_zero_bit" and keep and out[-1] != "SLICE":
        keep = False  # the next unit (not a slice) begins
    if keep: out.append(line)
open(sys.argv[2], "w").write("\n".join(out) + "\n")
PY
    rm -f "$here/$name.ref.tmp"
    echo "$name: $(stat -c %s "$here/$name.264") bytes, $(grep -c SLICE "$here/$name.ref") slices"
}
make pyramid 128x96 12 --preset medium --bframes 3 --b-pyramid normal --ref 4 --weightp 2 --slices 2
make strict 128x96 16 --preset medium --bframes 3 --b-pyramid strict --ref 4 --keyint 8 --open-gop
make mbaff 128x96 8 --preset medium --tff --bframes 2 --ref 3
make baseline_small 128x96 6 --profile baseline --slice-max-size 120 --ref 2
