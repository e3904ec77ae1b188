#!/bin/sh
# Makes the AAC fixtures with Debian's ffmpeg and records ffprobe's view of
# each, so that the tests compare against an independent reader without
# needing ffmpeg themselves.
#
#   adts_<rate>_<channels>.aac      ADTS stream (-c:a aac -f adts), 0.1 s of tone
#   adts_<rate>_<channels>.ffprobe  its stream values and every packet's pos/size
#   mp4_<rate>_<channels>.ffprobe   stream values and extradata (the
#                                   AudioSpecificConfig of the sample description)
#                                   of the same encoded into an MP4 file
#
# Run from anywhere: tests/data/aac/make_fixtures.sh
set -eu
cd "$(dirname "$0")"

# tone RATE CHANNELS: a 440 Hz tone on every channel of the standard layout
tone() {
    case $2 in
        1) layout=mono ;;
        2) layout=stereo ;;
        6) layout=5.1 ;;
        8) layout=7.1 ;;
    esac
    echo "-f lavfi -i sine=frequency=440:sample_rate=$1:duration=0.1 -af aformat=channel_layouts=$layout"
}

encode() {  # encode RATE CHANNELS FORMAT OUTPUT
    # shellcheck disable=SC2046
    ffmpeg -v error -y $(tone "$1" "$2") -c:a aac -b:a $((16 * $2))k \
        -fflags +bitexact -flags:a +bitexact -f "$3" "$4"
}

for pair in 8000:1 22050:2 44100:2 48000:6 96000:2 32000:8; do
    rate=${pair%:*} channels=${pair#*:}
    name=adts_${rate}_$channels
    encode "$rate" "$channels" adts "$name.aac"
    ffprobe -v error -show_entries stream=sample_rate,channels,profile:packet=pos,size \
        -of default=nw=1 "$name.aac" >"$name.ffprobe"
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
for pair in 16000:1 44100:2 48000:6; do
    rate=${pair%:*} channels=${pair#*:}
    name=mp4_${rate}_$channels
    encode "$rate" "$channels" mp4 "$work/$name.mp4"
    ffprobe -v error -select_streams a:0 -show_entries stream=sample_rate,channels,profile,extradata \
        -show_data -of default=nw=1 "$work/$name.mp4" >"$name.ffprobe"
done
