#!/usr/bin/env bash
# qnvtool on a long H.264 stream, side by side with ffmpeg's rewrite of the
# same file (-c copy -bsf:v h264_metadata=aud=insert):
#   bench/stream_bench.sh [GIB]   (default 2)
# The stream is ten seconds of 720p50 from x264's default settings (B-frames
# with B-pyramid) at 20 Mbit/s, repeated to GIB GiB in $QNV_BENCH_DIR
# (default build/bench-streams), written and read once before any timing.
# Each of $QNV_BENCH_ROUNDS (3) rounds runs every command once, pinned to
# core $QNV_BENCH_CORE (1), output to the same folder; printed are the
# median wall time, the largest resident set and the time over ffmpeg's.
# QNV_BENCH_ONLY="ffmpeg_aud qnvtool_nals" picks commands (ffmpeg_aud first).
set -euo pipefail
source "$(dirname "$0")/../scripts/lib.sh"

ensure_packages "${QNV_BUILD_PACKAGES[@]}" ffmpeg x264 time
configure_build "$QNV_ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
tool=$QNV_ROOT/build/bin/qnvtool
gib=${1:-2}
dir=${QNV_BENCH_DIR:-$QNV_ROOT/build/bench-streams}
rounds=${QNV_BENCH_ROUNDS:-3}
core=${QNV_BENCH_CORE:-1}
mkdir -p "$dir"
stream=$dir/long_${gib}g.264

if [ ! -s "$stream" ]; then
    echo "== making $stream"
    ffmpeg -v error -f lavfi -i testsrc2=size=1280x720:rate=50 -frames:v 500 -pix_fmt yuv420p -f yuv4mpegpipe - |
        x264 --quiet --demuxer y4m --bitrate 20000 -o "$dir/piece.264" - 2>/dev/null
    piece=$(stat -c %s "$dir/piece.264")
    copies=$(awk -v g="$gib" -v p="$piece" 'BEGIN { print int(g * 1073741824 / p) + 1 }')
    for ((i = 0; i < copies; i++)); do cat "$dir/piece.264"; done >"$stream.part"
    mv "$stream.part" "$stream"
fi
size=$(stat -c %s "$stream")
cat "$stream" >/dev/null

# run NAME COMMAND...: one timed run; appends "seconds kib" to $dir/NAME.runs.
run() {
    local name=$1
    shift
    /usr/bin/time -f "%e %M" -o "$dir/$name.time" taskset -c "$core" "$@" >/dev/null 2>"$dir/$name.err" ||
        { echo "$name failed:"; tail -3 "$dir/$name.err"; exit 1; }
    cat "$dir/$name.time" >>"$dir/$name.runs"
    rm -f "$dir/out.264"
}
names=(ffmpeg_aud qnvtool_edit_aud qnvtool_captions qnvtool_timecode qnvtool_nals)
[ -n "${QNV_BENCH_ONLY:-}" ] && read -r -a names <<<"$QNV_BENCH_ONLY"
for name in "${names[@]}"; do rm -f "$dir/$name.runs"; done
# run_named NAME: the command of that name, timed.
run_named() {
    case $1 in
    ffmpeg_aud) run "$1" ffmpeg -v error -y -f h264 -i "$stream" -c copy -bsf:v h264_metadata=aud=insert -f h264 "$dir/out.264" ;;
    qnvtool_edit_aud) run "$1" "$tool" --quiet edit "$stream" "$dir/out.264" --aud insert ;;
    qnvtool_captions) run "$1" "$tool" --quiet captions "$stream" "$dir/out.264" --608-text "STREAMING CHECK" ;;
    qnvtool_timecode) run "$1" "$tool" --quiet timecode "$stream" "$dir/out.264" --start 10:00:00:00 --rate 50 ;;
    qnvtool_nals) run "$1" "$tool" --quiet nals "$stream" ;;
    esac
}
for ((r = 0; r < rounds; r++)); do
    for name in "${names[@]}"; do run_named "$name"; done
done

median() { sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
reference=$(cut -d' ' -f1 "$dir/ffmpeg_aud.runs" | median)
printf '%s: %s GiB, %d rounds on core %s\n' "$(basename "$stream")" "$(awk -v s="$size" 'BEGIN { printf "%.2f", s / 1073741824 }')" "$rounds" "$core"
printf '%-18s %9s %12s %14s\n' command seconds "max RSS MiB" "time/ffmpeg"
for name in "${names[@]}"; do
    seconds=$(cut -d' ' -f1 "$dir/$name.runs" | median)
    rss=$(cut -d' ' -f2 "$dir/$name.runs" | sort -n | tail -1)
    awk -v n="$name" -v s="$seconds" -v m="$rss" -v r="$reference" 'BEGIN { printf "%-18s %9.2f %12.1f %14.3f\n", n, s, m / 1024, s / r }'
done
