#!/bin/sh
# Regenerates the caption packet files of the qnvtool checks: two CEA-708
# CDPs at 29.97 fps, each with ten cc_data triplets (CEA-608 padding on both
# fields, eight DTVCC padding triplets) and sequence counters 1 and 2.
#   cdps.bin     the bare CDPs, one after the other
#   packets.bin  the same CDPs as library caption packets: a 4-byte header
#                ("QNV" and the packet number), 61 01 and the data count in
#                front of each
set -eu
cd "$(dirname "$0")"
bytes() { for b in "$@"; do printf "\\$(printf '%03o' "$b")"; done; }
cdp() {
    counter=$1
    set -- 0x96 0x69 43 0x4F 0x43 0 "$counter" 0x72 0xEA 0xFC 0x80 0x80 0xFD 0x80 0x80
    for i in 1 2 3 4 5 6 7 8; do set -- "$@" 0xFA 0 0; done
    set -- "$@" 0x74 0 "$counter"
    sum=0
    for b in "$@"; do sum=$(((sum + b) & 255)); done
    bytes "$@" $(((256 - sum) & 255))
}
{ cdp 1; cdp 2; } >cdps.bin
{ bytes 0x51 0x4E 0x56 1 0x61 1 43; cdp 1; bytes 0x51 0x4E 0x56 2 0x61 1 43; cdp 2; } >packets.bin
