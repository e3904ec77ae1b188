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

# rps.265: main.265 with its VPS and SPS replaced by hand-built ones that use
# what x265 never writes: VPS timing and HRD parameters (which the VPS record
# does not keep); two sub-layers with sub-layer profile and level,
# a conformance window, PCM, explicit short-term sets, long-term pictures,
# VUI HRD with sub-picture parameters, bitstream restrictions and the range
# extension flags. Only its parameter sets are of interest (the slices do not
# match it).
python3 - <<'PY'
class Bits:
    def __init__(self):
        self.bits = []
    def u(self, n, v):
        self.bits += [(v >> (n - 1 - i)) & 1 for i in range(n)]
        return self
    def ue(self, v):
        x = v + 1
        return self.u(x.bit_length() - 1, 0).u(x.bit_length(), x)
    def nal(self):
        self.u(1, 1)
        while len(self.bits) % 8:
            self.u(1, 0)
        raw = [int("".join(map(str, self.bits[i:i + 8])), 2) for i in range(0, len(self.bits), 8)]
        out, zeros = bytearray(), 0
        for b in raw:
            if zeros >= 2 and b <= 3:
                out.append(3)
                zeros = 0
            out.append(b)
            zeros = zeros + 1 if b == 0 else 0
        return bytes(out)

s = Bits().u(16, 0x4201)
s.u(4, 0).u(3, 1).u(1, 1)                                      # vps id, 2 sub-layers, nesting
s.u(8, 0x01).u(32, 0x60000000).u(48, 0x900000000000).u(8, 93)  # general profile, level 3.1
s.u(1, 1).u(1, 1)                                              # sub-layer 0 profile and level present
for _ in range(1, 8):
    s.u(2, 0)
s.u(8, 0x01).u(32, 0x60000000).u(4, 0x9).u(44, 0).u(8, 90)     # sub-layer 0 profile, level 3
s.ue(0).ue(1).ue(64).ue(64)                                    # sps id, 4:2:0, 64x64
s.u(1, 1).ue(0).ue(2).ue(0).ue(4)                              # conformance window
s.ue(0).ue(0).ue(4).u(1, 1)                                    # bit depths, poc lsb 8 bits, ordering
for _ in range(2):
    s.ue(4).ue(2).ue(5)
s.ue(0).ue(3).ue(0).ue(3).ue(1).ue(1)                          # block sizes
s.u(1, 0).u(1, 1).u(1, 1).u(1, 1)                              # scaling, amp, sao, pcm
s.u(4, 7).u(4, 7).ue(0).ue(1).u(1, 1)
s.ue(3)                                                        # three explicit short-term sets
for negative, positive in ((2, 1), (1, 0), (3, 2)):
    if (negative, positive) != (2, 1):
        s.u(1, 0)                                              # inter_ref_pic_set_prediction_flag
    s.ue(negative).ue(positive)
    for i in range(negative + positive):
        s.ue(i % 3).u(1, (i + 1) % 2)
s.u(1, 1).ue(2).u(8, 17).u(1, 1).u(8, 200).u(1, 0)             # long-term pictures
s.u(1, 1).u(1, 1).u(1, 1)                                      # tmvp, smoothing, VUI
s.u(1, 1).u(8, 255).u(16, 4).u(16, 3)                          # SAR 4:3
s.u(1, 0).u(1, 1).u(3, 5).u(1, 0).u(1, 1).u(8, 1).u(8, 1).u(8, 1)
s.u(1, 1).ue(1).ue(1).u(1, 0).u(1, 0).u(1, 0).u(1, 0)          # chroma location, no window
s.u(1, 1).u(32, 1).u(32, 25).u(1, 1).ue(0).u(1, 1)             # timing, HRD
s.u(1, 1).u(1, 0).u(1, 1).u(8, 23).u(5, 4).u(1, 1).u(5, 6)     # NAL HRD with sub-picture parameters
s.u(4, 1).u(4, 2).u(4, 3).u(5, 23).u(5, 15).u(5, 9)
for layer in range(2):
    s.u(1, 0).u(1, 0).u(1, 1)                                  # low delay, one CPB
    s.ue(999).ue(1999).ue(0).ue(0).u(1, 1)
s.u(1, 1).u(1, 0).u(1, 1).u(1, 0).ue(0).ue(2).ue(1).ue(15).ue(15)  # bitstream restrictions
s.u(1, 1).u(1, 1).u(1, 0).u(1, 0).u(1, 0).u(4, 0)              # range extension only
for flag in (0, 1, 1, 0, 0, 1, 0, 0, 0):
    s.u(1, flag)
sps = s.nal()

v = Bits().u(16, 0x4001)
v.u(4, 0).u(2, 3).u(6, 0).u(3, 1).u(1, 1).u(16, 0xFFFF)       # 2 sub-layers
v.u(8, 0x01).u(32, 0x60000000).u(48, 0x900000000000).u(8, 93)
v.u(1, 0).u(1, 1)
for _ in range(1, 8):
    v.u(2, 0)
v.u(8, 90)                                                     # sub_layer_level_idc[0]
v.u(1, 0).ue(4).ue(2).ue(5)                                    # ordering of the highest sub-layer
v.u(6, 0).ue(0)                                                # max_layer_id, layer sets
v.u(1, 1).u(32, 1).u(32, 25).u(1, 1).ue(1).ue(1)               # timing, ticks, one HRD
v.ue(0)                                                        # hrd_layer_set_idx
v.u(1, 1).u(1, 0).u(1, 0).u(4, 1).u(4, 2).u(5, 23).u(5, 15).u(5, 9)
for layer in range(2):
    v.u(1, 1).ue(0).ue(0)                                      # fixed rate, duration, one CPB
    v.ue(999).ue(1999).u(1, 0)
v.u(1, 0)
vps = v.nal()

def replace(data, header, unit):
    start = data.index(b"\x00\x00\x01" + header) + 3
    end = data.index(b"\x00\x00\x01", start)
    while data[end - 1] == 0:
        end -= 1
    return data[:start] + unit + data[end:]

data = open("main.265", "rb").read()
open("rps.265", "wb").write(replace(replace(data, b"\x42", sps), b"\x40", vps))
PY
trace rps.265 rps.trace
