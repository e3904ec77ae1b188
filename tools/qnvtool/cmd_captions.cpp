// qnvtool captions IN OUT (--cdp FILE | --608-text TEXT) [--codec h264|hevc|mpeg2] [--rate N]
//
// Inserts one caption packet into every picture of an H.264, HEVC or MPEG-2
// video elementary stream: the i-th packet goes to the picture displayed
// i-th (see picture_order.h for IDR, CRA and RASL pictures and field pairs).
// IN and OUT may be "-" for standard input and output; the stream is read
// and written in chunks.
//
// CDP file: a sequence of caption packets, used in turn (starting over at the
// first when the stream has more access units than the file has packets), in
// one of two forms, told apart by the file's first two bytes:
//   - bare CEA-708 caption distribution packets, each beginning 96 69 and
//     cdp_length bytes long;
//   - the packets as the library takes them: four header bytes of the
//     caller's own (ignored), 61 01 (DID, SDID), the data count DC, then the
//     CDP of DC bytes.
//
// --608-text generates a CEA-608 pop-on caption on CC1 (row 15): it is loaded
// over the first pictures, shown from the end-of-caption command on and
// erased four pictures before the stream ends. Each CDP carries ten cc_data
// triplets (one field-1 pair, one field-2 pair, eight DTVCC padding
// triplets), the count the H.264 and HEVC SEI announce.
#include <cstdio>
#include <cstring>

#include "qnvutil/sei.h"
#include "qnvutil/sei/caption_packet.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/picture_order.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {
namespace {

using Packet = std::vector<uint8_t>;

struct CaptionsOptions {
    std::string in, out, cdpFile, text, codec;
    uint32_t rate = 30;
};

// ---- Caption packets ------------------------------------------------------

constexpr uint8_t kDid = 0x61, kSdid = 0x01;

Packet wrapCdp(const uint8_t* cdp, uint32_t length) {
    Packet p = {0, 0, 0, 0, kDid, kSdid, static_cast<uint8_t>(length)};
    p.insert(p.end(), cdp, cdp + length);
    return p;
}

std::vector<Packet> readCaptionPackets(const std::string& path) {
    InputStream in(path);
    std::vector<uint8_t> bytes = readAll(in);
    std::vector<Packet> packets;
    const bool bare = bytes.size() >= 2 && bytes[0] == 0x96 && bytes[1] == 0x69;
    size_t off = 0;
    while (off < bytes.size()) {
        auto fail = [&](const char* what) {
            throw Error(path + ": " + what + " at offset " + std::to_string(off));
        };
        if (bare) {
            if (bytes.size() - off < 3 || bytes[off] != 0x96 || bytes[off + 1] != 0x69) fail("no CDP");
            uint32_t length = bytes[off + 2];
            if (length < 3 || bytes.size() - off < length) fail("truncated CDP");
            packets.push_back(wrapCdp(bytes.data() + off, length));
            off += length;
        } else {
            if (bytes.size() - off < 7 || bytes[off + 4] != kDid || bytes[off + 5] != kSdid) fail("no caption packet");
            size_t length = size_t(bytes[off + 6]) + 7;
            if (bytes.size() - off < length) fail("truncated caption packet");
            packets.emplace_back(bytes.begin() + off, bytes.begin() + off + length);
            off += length;
        }
    }
    if (packets.empty()) throw Error(path + ": no caption packets");
    return packets;
}

// cdp_frame_rate code of a whole-number rate (29 and 59 meaning 29.97, 59.94).
uint8_t cdpRateCode(uint32_t rate) {
    switch (rate) {
        case 23: return 1;
        case 24: return 2;
        case 25: return 3;
        case 29: return 4;
        case 30: return 5;
        case 50: return 6;
        case 59: return 7;
        case 60: return 8;
        default: throw Error("--608-text: no CDP frame rate for --rate " + std::to_string(rate));
    }
}

uint8_t oddParity(uint8_t b) {
    b &= 0x7F;
    return static_cast<uint8_t>(__builtin_parity(b) ? b : b | 0x80);
}

// One CDP with a field-1 CEA-608 byte pair, as a library caption packet.
Packet cdp608(uint8_t b1, uint8_t b2, uint16_t counter, uint8_t rateCode) {
    const uint8_t hi = static_cast<uint8_t>(counter >> 8), lo = static_cast<uint8_t>(counter);
    Packet cdp = {0x96, 0x69, 0, static_cast<uint8_t>(rateCode << 4 | 0x0F),
                  0x43,  // ccdata_present, caption_service_active, reserved
                  hi, lo, 0x72, 0xE0 | 10};
    cdp.insert(cdp.end(), {0xFC, oddParity(b1), oddParity(b2), 0xFD, 0x80, 0x80});
    for (int i = 0; i < 8; ++i) cdp.insert(cdp.end(), {0xFA, 0x00, 0x00});
    cdp.insert(cdp.end(), {0x74, hi, lo, 0});
    cdp[2] = static_cast<uint8_t>(cdp.size());
    uint8_t sum = 0;
    for (uint8_t b : cdp) sum = static_cast<uint8_t>(sum + b);
    cdp.back() = static_cast<uint8_t>(0x100 - sum);
    return wrapCdp(cdp.data(), static_cast<uint32_t>(cdp.size()));
}

// The CEA-608 byte pairs of a pop-on caption, from its first picture to
// its end-of-caption command; the pictures after them get none, the last
// PacketSource::kTail the erase command.
std::vector<std::pair<uint8_t, uint8_t>> make608Pairs(const std::string& text) {
    if (text.empty() || text.size() > 32) throw Error("--608-text: 1 to 32 characters");
    for (unsigned char c : text) {
        // Characters that the basic CEA-608 set draws as themselves.
        bool plain = c >= 0x20 && c <= 0x7A && c != 0x2A && c != 0x5C && c != 0x5E && c != 0x5F && c != 0x60;
        if (!plain) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "0x%02X", c);
            throw Error(std::string("--608-text: byte ") + hex + " is not a basic CEA-608 character");
        }
    }
    // Control codes on CC1, each sent twice as receivers expect.
    const std::pair<uint8_t, uint8_t> rcl{0x14, 0x20}, enm{0x14, 0x2E}, pac{0x14, 0x70}, eoc{0x14, 0x2F};
    std::vector<std::pair<uint8_t, uint8_t>> pairs = {rcl, rcl, enm, enm, pac, pac};
    for (size_t i = 0; i < text.size(); i += 2)
        pairs.emplace_back(text[i], i + 1 < text.size() ? text[i + 1] : 0);
    pairs.insert(pairs.end(), {eoc, eoc});
    return pairs;
}

// ---- H.264 access units as length-prefixed frames -------------------------
//
// The library places the SEI behind the parameter sets of a length-prefixed
// frame, or in front of its first other unit; in Annex B form it relies on a
// leading access unit delimiter, which encoders do not always write.

void appendLengthPrefixed(const std::vector<uint8_t>& unit, std::vector<uint8_t>& out) {
    qnv::nal::UnitWalk walk(unit.data(), static_cast<uint32_t>(unit.size()), qnv::nal::Framing::kAnnexB);
    for (qnv::nal::Unit u; walk.next(u);) {
        out.insert(out.end(), {uint8_t(u.size >> 24), uint8_t(u.size >> 16), uint8_t(u.size >> 8), uint8_t(u.size)});
        out.insert(out.end(), unit.begin() + u.header(), unit.begin() + u.end());
    }
}

void writeAnnexB(const uint8_t* frame, uint32_t size, OutputStream& out) {
    static const uint8_t kStartCode[4] = {0, 0, 0, 1};
    qnv::nal::UnitWalk walk(frame, size, qnv::nal::Framing::kLengthPrefixed);
    for (qnv::nal::Unit u; walk.next(u);) {
        out.write(kStartCode, 4);
        out.write(frame + u.header(), u.size);
    }
    if (walk.truncated()) throw Error("internal: length-prefixed frame overrun");
}

// ---- Packets for pictures ---------------------------------------------------

// The packet each displayed picture gets: from a CDP file, in turn, or the
// generated 608 caption, whose last pictures erase it (so the packet of a
// picture depends on whether the stream ends within kTail pictures).
class PacketSource {
public:
    static constexpr uint32_t kTail = 4;

    PacketSource(const CaptionsOptions& o) : rate_(o.rate) {
        if (o.text.empty()) {
            packets_ = readCaptionPackets(o.cdpFile);
            for (size_t i = 0; i < packets_.size(); ++i) validate(packets_[i], i);
        } else {
            pairs_ = make608Pairs(o.text);
            rateCode_ = cdpRateCode(o.rate);
        }
    }
    uint32_t lookahead() const { return packets_.empty() ? kTail : 0; }

    // The packet of the picture displayed `rank`-th; `total` is the number
    // of displayed pictures once known (else -1).
    const Packet& packet(int64_t rank, int64_t total) {
        if (!packets_.empty()) return packets_[static_cast<size_t>(rank) % packets_.size()];
        const std::pair<uint8_t, uint8_t> edm{0x14, 0x2C}, none{0x00, 0x00};
        std::pair<uint8_t, uint8_t> pair = size_t(rank) < pairs_.size() ? pairs_[size_t(rank)] : none;
        if (total >= 0 && rank >= total - int64_t(kTail)) pair = rank < total - 2 ? edm : none;
        generated_ = cdp608(pair.first, pair.second, static_cast<uint16_t>(rank % 0xFFFF + 1), rateCode_);
        return generated_;
    }
    // Throws Error when the stream was too short for the generated caption.
    void checkLength(int64_t total) const {
        const size_t needed = pairs_.size() + kTail;
        if (packets_.empty() && size_t(total) < needed)
            throw Error("--608-text: the stream has " + std::to_string(total) + " pictures, the caption needs " +
                        std::to_string(needed));
    }

private:
    static void validate(const Packet& p, size_t i) {
        if (qnv::validateCaptionPacket(p.data(), static_cast<uint32_t>(p.size())) == 0) return;
        const std::vector<LibraryComplaint> complaints = takeLibraryComplaints();
        const std::string reason = complaints.empty() ? std::string() : complaints.back().line;
        throw Error("caption packet " + std::to_string(i) + " is invalid" + (reason.empty() ? "" : ": " + reason));
    }

    uint32_t rate_;
    uint8_t rateCode_ = 0;
    std::vector<Packet> packets_;
    std::vector<std::pair<uint8_t, uint8_t>> pairs_;
    Packet generated_;
};

// ---- The command ------------------------------------------------------------

void runCaptions(const CaptionsOptions& o) {
    PacketSource source(o);
    InputStream in(o.in);
    UnitReader reader(in);
    const VideoCodec codec = resolveCodec(streamHead(reader), o.codec, in.name());
    AccessUnitReader aus(reader, codec);
    RankedUnits units(aus, codec, source.lookahead());
    OutputStream out(o.out);

    std::vector<uint8_t> buffer;
    size_t captioned = 0;
    const std::vector<uint8_t>* au;
    int64_t rank;
    uint64_t offset;
    while (units.next(au, rank, offset)) {
        // The i-th packet goes to the picture displayed i-th; a second field
        // or a picture that is not displayed gets none.
        if (rank < 0) {
            out.write(*au);
            continue;
        }
        const Packet& packet = source.packet(rank, units.ended() ? units.ranked() : -1);
        buffer.clear();
        if (codec == VideoCodec::kH264)
            appendLengthPrefixed(*au, buffer);
        else
            buffer.assign(au->begin(), au->end());
        const uint32_t size = static_cast<uint32_t>(buffer.size());
        buffer.resize(size + packet.size() + 320);  // the room the insertions demand

        DFrame frame{};
        frame.frameData = buffer.data();
        frame.frameCapacity = static_cast<uint32_t>(buffer.size());
        frame.frameSize = size;
        frame.captionSize = static_cast<uint32_t>(packet.size());
        std::memcpy(frame.captionPacket, packet.data(), packet.size());
        bool inserted = false;
        switch (codec) {
            case VideoCodec::kH264: {
                int32_t r = qnvutilAddAVCCaptions(&frame, packet.data(), frame.captionSize, 1);
                inserted = r == QNV_SEI_OK;
                writeAnnexB(frame.frameData, frame.frameSize, out);
                break;
            }
            case VideoCodec::kHevc: {
                uint32_t added = qnvUtilAddHevcCaptions(&frame, o.rate);
                frame.frameSize += added;
                inserted = added != 0;
                out.write(frame.frameData, frame.frameSize);
                break;
            }
            case VideoCodec::kMpeg2: {
                int32_t r = qnvutilAddMPEG2Captions(&frame);
                inserted = r == QNV_SEI_OK;
                out.write(frame.frameData, frame.frameSize);
                break;
            }
        }
        captioned += inserted ? 1 : 0;
    }
    if (units.units() == 0) throw Error(in.name() + ": no access units");
    source.checkLength(units.ranked());
    out.commit();
    std::fprintf(summaryFile(out), "%llu access units, %zu with captions, %s\n",
                 static_cast<unsigned long long>(units.units()), captioned, videoCodecName(codec));
}

const Registration kCaptions([](CLI::App& app) {
    auto o = std::make_shared<CaptionsOptions>();
    CLI::App* sub = app.add_subcommand("captions", "Insert closed captions (CEA-708 CDPs) into every access unit");
    sub->add_option("IN", o->in, "H.264, HEVC or MPEG-2 video elementary stream")->required();
    sub->add_option("OUT", o->out, "output stream")->required();
    auto* cdp = sub->add_option("--cdp", o->cdpFile,
                                "file of caption packets, used in turn: bare CDPs (96 69 ...) or packets with a "
                                "4-byte header, 61 01 and the data count in front of each CDP");
    auto* text = sub->add_option("--608-text", o->text, "generate a CEA-608 pop-on caption showing TEXT (CC1)");
    cdp->excludes(text);
    sub->add_option("--codec", o->codec, "h264, hevc or mpeg2 (detected when not given)")
        ->check(CLI::IsMember({"h264", "hevc", "mpeg2"}));
    sub->add_option("--rate", o->rate,
                    "frames per second as a whole number (29 for 29.97): limits the HEVC caption bytes and sets "
                    "the generated CDPs' frame rate")
        ->capture_default_str();
    sub->callback([o, cdp, text] {
        if (cdp->count() == 0 && text->count() == 0) throw Error("captions: give --cdp FILE or --608-text TEXT");
        runCaptions(*o);
    });
});

}  // namespace
}  // namespace qnvtool
