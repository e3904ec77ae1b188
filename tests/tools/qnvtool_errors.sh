#!/bin/sh
# qnvtool_errors.sh QNVTOOL SAMPLE DATA: qnvtool lists the sample's units, and bad
# input gives exactly one line on standard error and exit code 1 or 2 (never
# a crash).
set -u
tool=$1
sample=$2
data=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail=0

"$tool" nals "$sample" >"$work/out" 2>"$work/err" || { echo "nals on the sample failed"; cat "$work/err"; fail=1; }
grep -q "NAL units, hevc" "$work/out" || { echo "nals: no summary line"; fail=1; }

: >"$work/empty"
printf 'not a stream\n' >"$work/text"
head -c 4000 /dev/urandom | tr -d '\000' >"$work/noise"
expect_error() {
    "$@" >/dev/null 2>"$work/err"
    rc=$?
    lines=$(wc -l <"$work/err")
    if [ "$rc" -ne 1 ] && [ "$rc" -ne 2 ]; then
        echo "'$*': exit code $rc"
        fail=1
    elif [ "$lines" -ne 1 ]; then
        echo "'$*': $lines lines on standard error:"
        cat "$work/err"
        fail=1
    fi
}
# expect_message TEXT COMMAND...: as expect_error, and the line holds TEXT.
expect_message() {
    text=$1
    shift
    expect_error "$@"
    grep -qF -- "$text" "$work/err" || { echo "'$*': no '$text' in: $(cat "$work/err")"; fail=1; }
}
expect_message "$work: Is a directory" "$tool" nals "$work"
# An H.264 P slice reads as an HEVC VPS: the library's complaint joins the
# tool's one line, or comes on its own line with --verbose.
printf '\000\000\000\001\147\102\000\036\253\100\000\000\000\001\101\232\022\064\126\170' >"$work/p.264"
expect_message "(library: Vps Reserved bits" "$tool" hvcc "$work/p.264"
"$tool" hvcc "$work/p.264" --verbose 2>"$work/err"
grep -q "^qnvtool: library: Vps Reserved bits" "$work/err" && [ "$(wc -l <"$work/err")" -eq 2 ] ||
    { echo "hvcc --verbose: $(cat "$work/err")"; fail=1; }
printf '<a><ClipList FileName="x"/></a>\n' >"$work/other.xml"
expect_message "no ClipList, EdlList or Settings" "$tool" project show "$work/other.xml"

# Text from a project file reaches the terminal without control characters,
# and a project comes through a FIFO as a stream does.
printf '<ClipList FileName="&#27;]0;title&#7;" Data="a"/><Settings s="&#x1b;[2J&#x9b;1m"/>\n' >"$work/project.xml"
mkfifo "$work/fifo"
cat "$work/project.xml" >"$work/fifo" &
writer=$!
"$tool" project show "$work/fifo" >"$work/out" 2>"$work/err" || { echo "project show on a FIFO: $(cat "$work/err")"; fail=1; }
kill "$writer" 2>/dev/null  # still waiting for a reader when the tool did not open the FIFO
grep -q '^  s = \\x1B\[2J\\xC2\\x9B1m$' "$work/out" || { echo "project show: setting not escaped"; fail=1; }
if LC_ALL=C grep -q "$(printf '[\001-\011\013-\037\177]')" "$work/out"; then
    echo "project show printed control characters:"
    od -c "$work/out" | head
    fail=1
fi

expect_error "$tool" nals "$work/missing"
expect_error "$tool" nals "$work/empty"
expect_error "$tool" nals "$work/text"
expect_error "$tool" nals "$work/noise"
expect_error "$tool" nals "$sample" --codec vp9
expect_error "$tool" nals
expect_error "$tool" no-such-command
expect_error "$tool" tc 5
expect_error "$tool" tc 1 --type bogus
expect_error "$tool" tc 00:01:00:01 --type drop-frame
expect_error "$tool" rate 0/1
expect_error "$tool" probe "$work/text"
expect_error "$tool" probe --kind aac "$work/text"
expect_error "$tool" probe --kind h264 "$work/noise"
expect_error "$tool" project show "$work/missing"
expect_error "$tool" project show "$work/text"
expect_error "$tool" captions "$sample" "$work/out.265" --cdp "$work/text" --codec hevc
expect_error "$tool" captions "$sample" "$work/out.265" --cdp "$work/missing"
printf 'Scenarist_SCC V1.0\n\n00:00:00:00\t9420 9420\n\n00:00:01:00\t94z0\n' >"$work/bad.scc"
expect_message "bad.scc:5: '94z0' is not a byte pair" "$tool" captions "$sample" "$work/out.265" --scc "$work/bad.scc"
printf 'File Format=MacCaption_MCC V1.0\nTime Code Rate=25\n\n00:00:00:00\tT03S0367\n' >"$work/bad.mcc"
expect_message "bad.mcc:4: CDP: too short" "$tool" captions "$sample" "$work/out.265" --mcc "$work/bad.mcc"
expect_message "--extract: give at least one of" "$tool" captions --extract "$sample"
expect_message "--srt and --vtt go with --extract" "$tool" captions "$sample" "$work/out.265" --srt "$work/out.srt" --scc "$work/bad.scc"
expect_error "$tool" captions --extract "$work/text" --srt "$work/out.srt"
expect_error "$tool" timecode "$work/text" "$work/out.265" --start 01:00:00:00 --rate 25
expect_error "$tool" timecode "$sample" "$work/out.265" --start 25:61:00:00 --rate 25
expect_error "$tool" mediacmd read "$work/noise"
expect_error "$tool" mediacmd xml --cmd bogus
expect_error "$tool" interlace "$work/text" "$work/out.265"
expect_error "$tool" avcc "$work/noise"
expect_error "$tool" avcc "$sample"
expect_error "$tool" avcc --read "$work/noise"
expect_error "$tool" avcc --read "$work/missing"
expect_error "$tool" avcc
expect_error "$tool" edit "$work/missing" "$work/out.265" --aud insert
expect_error "$tool" edit "$work/text" "$work/out.265" --aud insert
expect_error "$tool" edit "$work/noise" "$work/out.265" --aud insert --codec hevc
expect_error "$tool" edit "$sample" "$work/out.265"
expect_error "$tool" edit "$sample" "$work/out.265" --aud sideways
expect_error "$tool" edit "$sample" "$work/out.265" --range studio
expect_error "$tool" edit "$sample" "$work/out.265" --primaries 256
expect_error "$tool" edit "$sample" "$work/out.265" --sar 0:1
expect_error "$tool" edit "$sample" "$work/out.265" --sar 16x9
expect_error "$tool" edit "$sample" "$work/out.265" --fps 0
expect_error "$tool" edit "$sample" "$work/out.265" --crop 1,0,0,0
expect_error "$tool" edit "$sample" "$work/out.265" --crop 0,0,0
expect_error "$tool" edit "$sample" "$work/out.265" --crop 0,0,9000,9000
expect_error "$tool" edit "$sample" "$work/out.265" --level 1b
expect_error "$tool" edit "$sample" "$work/out.265" --level 4.15
expect_error "$tool" edit "$sample" "$work/out.265" --level 7
expect_error "$tool" edit "$sample" "$work/out.265" --remove-sei 5,,6
mkdir "$work/folder"
expect_error "$tool" edit "$sample" "$work/folder" --aud insert

# A malformed caption file or stream writes nothing.
[ ! -e "$work/out.265" ] && [ ! -e "$work/out.srt" ] || { echo "captions: a failed run left output"; fail=1; }

# A command that fails leaves its destination as it was, and no temporary
# file, also when it fails after writing: a caption longer than the stream
# is found at its end, and a crop that the second sequence's SPS cannot take
# in the middle.
printf 'kept\n' >"$work/kept.265"
printf 'kept\n' >"$work/kept.264"
cat "$sample" "$data/sei/hevc.265" >"$work/two.265"
head -c 1200 "$data/sei/h264.264" >"$work/short.264"
expect_message "the stream has 1 pictures, the caption needs 18" \
    "$tool" captions "$work/short.264" "$work/kept.264" --608-text "HELLO THERE"
expect_message "the window leaves nothing of the 64x64 picture" "$tool" edit "$work/two.265" "$work/kept.265" --crop 0,0,0,80
expect_error "$tool" edit "$sample" "$work/kept.265" --crop 1,0,0,0
expect_error "$tool" edit "$sample" "$work/folder" --aud insert
expect_error "$tool" timecode "$sample" "$work/missing/out.265" --start 01:00:00:00 --rate 25
expect_error "$tool" interlace "$sample" "$work/folder"
for kept in "$work/kept.265" "$work/kept.264"; do
    [ "$(cat "$kept")" = kept ] || { echo "a failed command changed $kept"; fail=1; }
done
[ -z "$(find "$work" -name '.*' ! -name . )" ] || { echo "temporary files left: $(ls -A "$work")"; fail=1; }

# Pipes: standard input to standard output, the summary on standard error.
cat "$data/sei/h264.264" | "$tool" captions - - --608-text HI 2>"$work/err" | "$tool" nals - >"$work/out" ||
    { echo "captions in a pipe failed: $(cat "$work/err")"; fail=1; }
grep -q "30 access units, 30 with captions" "$work/err" && grep -q "NAL units, h264" "$work/out" ||
    { echo "captions in a pipe: $(cat "$work/err" "$work/out" | tail -2)"; fail=1; }
"$tool" edit "$sample" "$work/kept.265" --aud insert >/dev/null 2>&1 || { echo "edit --aud insert failed"; fail=1; }
[ "$(cat "$work/kept.265")" != kept ] || { echo "edit: the destination was not replaced"; fail=1; }
exit $fail
