#!/bin/sh
# qnvtool_errors.sh QNVTOOL SAMPLE: qnvtool lists the sample's units, and bad
# input gives exactly one line on standard error and exit code 1 or 2 (never
# a crash).
set -u
tool=$1
sample=$2
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
exit $fail
