# Shell helpers of the qnvtool checks against ffmpeg, sourced by the
# tests/data/*/check_ffmpeg.sh scripts. They use $qnvtool, and
# $pictures_expected (when set) for the number of decoded pictures.

fail() {
    echo "FAIL: $*"
    exit 1
}
edit() {
    "$qnvtool" edit "$@" >/dev/null || fail "qnvtool edit $*"
}
# The decoded pictures (framemd5 without its header, which names the SAR).
pictures() {
    ffmpeg -nostdin -v error -i "$1" -f framemd5 - | grep -v '^#'
}
# same_pictures A B: A decodes to $pictures_expected pictures, B to the same.
same_pictures() {
    [ "$(pictures "$1" | wc -l)" = "$pictures_expected" ] ||
        fail "$1: $(pictures "$1" | wc -l) pictures decoded, expected $pictures_expected"
    [ "$(pictures "$1")" = "$(pictures "$2")" ] || fail "$2: decodes to other pictures than $1"
}
# decodes_cleanly FILE: ffmpeg decodes FILE without complaint (to
# $pictures_expected pictures, when set).
decodes_cleanly() {
    errors=$(ffmpeg -nostdin -v error -i "$1" -f null - 2>&1) || fail "$1: ffmpeg failed: $errors"
    [ -z "$errors" ] || fail "$1: decoding errors: $errors"
    [ -z "${pictures_expected:-}" ] || [ "$(pictures "$1" | wc -l)" = "$pictures_expected" ] ||
        fail "$1: $(pictures "$1" | wc -l) pictures decoded, expected $pictures_expected"
}
trace() {
    ffmpeg -nostdin -hide_banner -i "$1" -c copy -bsf:v trace_headers -f null - 2>&1
}
# values FILE NAME: the values trace_headers prints for NAME, in order.
values() {
    trace "$1" | sed -n "s/^\[trace_headers @ [0-9a-fx]*\] [0-9]* *$2 .* = \([0-9]*\)$/\1/p" | tr '\n' ' '
}
