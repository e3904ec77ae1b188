#!/bin/sh
# check_ffmpeg.sh QNVTOOL
#
# Checks qnvtool's caption files against ffmpeg, on the fixtures that
# make_captions.sh made (captions.scc; default x264 and x265 streams whose
# first picture is taken as 00:00:58;00, so the captions cross the
# drop-frame minute):
#   - the SCC file goes into each stream, and --extract --scc gives the same
#     pairs at the same labels back;
#   - the stream decodes cleanly, and ffmpeg's CEA-608 decoder (subcc) shows
#     the same caption text at the same times as --extract --srt (and the
#     WebVTT file holds the same cues);
#   - ffmpeg's scc and mcc demuxers read the extracted SCC and MCC files
#     and find the same caption text in them;
#   - the extracted MCC file goes into the bare stream with --mcc and gives
#     the same pairs back;
#   - a stream that carries its own time codes (qnvtool timecode: H.264
#     pic_timing, HEVC time_code) needs no --start either way;
#   - in MPEG-2 (user data in front of each picture's headers) the pairs come
#     back too, and the stream decodes cleanly.
set -eu
qnvtool=$1
data=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
start="00:00:58;00"
# shellcheck source=../edit_checks.sh
. "$data/../edit_checks.sh"

# SubRip text without ffmpeg's styling tags and line-end CRs.
plain() { sed 's/<[^>]*>//g; s/{[^}]*}//g; s/\r$//' "$@"; }
# The caption text lines of SubRip text, without numbers and times.
texts() { plain "$@" | grep -v -e '^[0-9]*$' -e ' --> ' -e '^$'; }

for stream in h264.264 hevc.265; do
    out=$work/cc-$stream
    "$qnvtool" captions "$data/$stream" "$out" --scc "$data/captions.scc" --start "$start" >/dev/null 2>&1 ||
        fail "$stream: insertion failed"
    decodes_cleanly "$out"

    "$qnvtool" captions --extract "$out" --start "$start" --scc "$work/x.scc" --mcc "$work/x.mcc" \
        --srt "$work/x.srt" --vtt "$work/x.vtt" >/dev/null
    grep . "$data/captions.scc" >"$work/want.scc"
    grep . "$work/x.scc" >"$work/got.scc"
    cmp -s "$work/want.scc" "$work/got.scc" || fail "$stream: extracted SCC differs: $(diff "$work/want.scc" "$work/got.scc")"

    # ffmpeg's caption decoder needs timestamps, which a raw stream with
    # B-frames lacks: an intra-only x264 encode into Matroska keeps the
    # caption data, in display order, with timestamps from 0.
    ffmpeg -nostdin -v error -r 30000/1001 -i "$out" -c:v libx264 -a53cc 1 -bf 0 -y "$out.mkv"
    ffmpeg -nostdin -v error -f lavfi -i "movie=$out.mkv[out0+subcc]" -map 0:1 -f srt - | plain >"$work/subcc.srt"
    [ -s "$work/subcc.srt" ] || fail "$stream: subcc found no captions"
    cmp -s "$work/subcc.srt" "$work/x.srt" ||
        fail "$stream: subcc and --extract --srt differ: $(diff "$work/subcc.srt" "$work/x.srt")"
    # The WebVTT cues are the SubRip ones.
    sed -n 's/ --> /-/p' "$work/x.srt" | tr ',' '.' >"$work/srt.times"
    sed -n 's/ --> /-/p' "$work/x.vtt" >"$work/vtt.times"
    cmp -s "$work/srt.times" "$work/vtt.times" || fail "$stream: WebVTT cue times differ from SubRip"
    head -n 1 "$work/x.vtt" | grep -qx WEBVTT || fail "$stream: no WEBVTT line"

    texts "$work/x.srt" >"$work/want.txt"
    for format in scc mcc; do
        ffmpeg -nostdin -v error -i "$work/x.$format" -f srt - | texts >"$work/$format.txt"
        cmp -s "$work/want.txt" "$work/$format.txt" ||
            fail "$stream: ffmpeg reads other text from our $format file: $(diff "$work/want.txt" "$work/$format.txt")"
    done

    "$qnvtool" captions "$data/$stream" "$work/m-$stream" --mcc "$work/x.mcc" --start "$start" >/dev/null 2>&1 ||
        fail "$stream: MCC insertion failed"
    "$qnvtool" captions --extract "$work/m-$stream" --start "$start" --scc "$work/m.scc" >/dev/null
    grep . "$work/m.scc" >"$work/m-got.scc"
    cmp -s "$work/want.scc" "$work/m-got.scc" || fail "$stream: pairs after the MCC round trip differ"

    "$qnvtool" timecode "$data/$stream" "$work/tc-$stream" --start "$start" --rate 30000/1001 >/dev/null
    "$qnvtool" captions "$work/tc-$stream" "$work/tccc-$stream" --scc "$data/captions.scc" >/dev/null 2>&1 ||
        fail "$stream: insertion by the stream's time codes failed"
    "$qnvtool" captions --extract "$work/tccc-$stream" --scc "$work/t.scc" >/dev/null
    grep . "$work/t.scc" >"$work/t-got.scc"
    cmp -s "$work/want.scc" "$work/t-got.scc" || fail "$stream: pairs placed by the stream's time codes differ"
done
out=$work/cc.m2v
"$qnvtool" captions "$data/mpeg2.m2v" "$out" --scc "$data/captions.scc" --start "$start" >/dev/null ||
    fail "mpeg2: insertion failed"
decodes_cleanly "$out"
"$qnvtool" captions --extract "$out" --start "$start" --scc "$work/p.scc" >/dev/null
grep . "$work/p.scc" >"$work/p-got.scc"
cmp -s "$work/want.scc" "$work/p-got.scc" || fail "mpeg2: extracted SCC differs: $(diff "$work/want.scc" "$work/p-got.scc")"
echo "ffmpeg caption file check passed"
