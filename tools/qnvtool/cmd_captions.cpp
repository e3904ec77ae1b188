// qnvtool captions IN OUT (--cdp FILE | --608-text TEXT | --scc FILE | --mcc FILE) [--start HH:MM:SS:FF]
//                  [--codec h264|hevc|mpeg2] [--rate N]
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
// --scc: the CEA-608 pairs of an SCC file (caption_files.h) on CC1's field,
// one per picture, by time code: the picture displayed i-th has the time
// code --start + i, counted drop-frame when the labels are. Without
// --start, the first picture's time code is the stream's own (an H.264
// pic_timing or HEVC time_code SEI, stream_timecode.h), else 00:00:00:00.
// Each picture gets a CDP built after SMPTE 334-2 (cdp.h) with the rate's
// cc_count: its pair, or padding. --rate defaults to 29 (29.97) here.
//
// --mcc: the CDPs of an MCC file as they are, by time code, counted at the
// file's Time Code Rate (which also gives --rate's default); pictures
// without one get none. A time code section is taken out, since the
// insertions read the triplets at a fixed offset.
//
// qnvtool captions --extract IN [--scc OUT] [--mcc OUT] [--srt OUT] [--vtt OUT]
// writes a stream's captions to files instead (see "Extraction" below).
//
// --608-text generates a CEA-608 pop-on caption on CC1 (row 15): it is loaded
// over the first pictures, shown from the end-of-caption command on and
// erased four pictures before the stream ends. Each CDP carries ten cc_data
// triplets (one field-1 pair, one field-2 pair, eight DTVCC padding
// triplets), the count the H.264 and HEVC SEI announce.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <optional>

#include "qnvutil/sei.h"
#include "qnvutil/sei/caption_packet.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/annexb.h"
#include "tools/qnvtool/caption_files.h"
#include "tools/qnvtool/cdp.h"
#include "tools/qnvtool/cea608.h"
#include "tools/qnvtool/picture_order.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/stream_timecode.h"
#include "tools/qnvtool/tool.h"
#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {
namespace {

using Packet = std::vector<uint8_t>;

struct CaptionsOptions {
    std::string in, out, cdpFile, text, sccFile, mccFile, srtFile, vttFile, start, codec;
    uint32_t rate = 30;
    bool rateGiven = false;
    bool extract = false;
};

// ---- Caption packets ------------------------------------------------------

constexpr uint8_t kDid = 0x61, kSdid = 0x01;

Packet wrapCdp(const uint8_t* cdp, uint32_t length) {
    Packet p;
    cdp::wrap(cdp, length, p);
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

// The rate code of --rate for the CDPs the tool builds.
cdp::FrameRate cdpRate(uint32_t rate, const char* option) {
    const cdp::FrameRate r = cdp::frameRateOf(rate);
    if (r == cdp::FrameRate::kNone)
        throw Error(std::string(option) + ": no CDP frame rate for --rate " + std::to_string(rate));
    return r;
}

uint8_t oddParity(uint8_t b) {
    b &= 0x7F;
    return static_cast<uint8_t>(__builtin_parity(b) ? b : b | 0x80);
}

// One CDP with a field-1 CEA-608 byte pair (parity bits as given) and
// padding in the rest of the rate's cc_count, as a library caption packet.
void cdp608(uint8_t b1, uint8_t b2, uint16_t counter, cdp::FrameRate rate, uint32_t count, Packet& packet) {
    cdp::Packet p;
    p.rate = rate;
    p.sequence = counter;
    p.count = count;
    p.triplets[0] = {cdp::kField1, b1, b2};
    p.triplets[1] = {cdp::kField2, 0x80, 0x80};
    for (uint32_t i = 2; i < count; ++i) p.triplets[i] = {cdp::kDtvccPadding, 0x00, 0x00};
    cdp::buildCaptionPacket(p, packet);
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

// The packet each displayed picture gets: from a CDP file, in turn; the
// generated 608 caption, whose last pictures erase it (so the packet of a
// picture depends on whether the stream ends within kTail pictures); or by
// time code from an SCC or MCC file. An empty packet: none for the picture.
class PacketSource {
public:
    static constexpr uint32_t kTail = 4;

    explicit PacketSource(const CaptionsOptions& o) {
        if (!o.sccFile.empty()) {
            const std::vector<uint8_t> text = readFile(o.sccFile);
            scc_ = captions::readScc(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()),
                                     o.sccFile);
            counting_ = scc_.counting;
            rate_ = o.rateGiven ? o.rate : 29;
            if (rate_ != 29 && rate_ != 30)
                throw Error("--scc: SCC time codes count 30 frames a second; --rate " + std::to_string(rate_) +
                            " is not 29 (29.97) or 30");
            rateCode_ = cdpRate(rate_, "--scc");
            start_ = startCount(o.start, "--scc");
            startGiven_ = !o.start.empty();
            sccCursor_.emplace(scc_, start_);
        } else if (!o.mccFile.empty()) {
            const std::vector<uint8_t> text = readFile(o.mccFile);
            mcc_ = captions::readMcc(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()),
                                     o.mccFile);
            mccName_ = o.mccFile;
            counting_ = mcc_.rate->counting;
            rate_ = o.rateGiven ? o.rate : mcc_.rate->wholeRate;
            const uint32_t perSecond = rate_ == 29 ? 30 : rate_ == 59 ? 60 : rate_ == 23 ? 24 : rate_;
            if (perSecond != counting_.perSecond)
                throw Error("--mcc: the file's Time Code Rate " + std::string(mcc_.rate->text) +
                            " does not count at --rate " + std::to_string(rate_));
            start_ = startCount(o.start, "--mcc");
            startGiven_ = !o.start.empty();
        } else if (o.text.empty()) {
            rate_ = o.rate;
            packets_ = readCaptionPackets(o.cdpFile);
            for (size_t i = 0; i < packets_.size(); ++i) validate(packets_[i], "caption packet " + std::to_string(i));
        } else {
            pairs_ = make608Pairs(o.text);
            rate_ = o.rate;
            rateCode_ = cdpRate(o.rate, "--608-text");
        }
    }
    uint32_t lookahead() const { return pairs_.empty() ? 0 : kTail; }
    uint32_t rate() const { return rate_; }
    // SCC and MCC files without --start: the stream's own time code, read
    // from the picture displayed `rank`-th, gives the first picture's.
    bool wantsStart() const { return (sccCursor_ || mcc_.rate) && !startGiven_; }
    void startKnown() { startGiven_ = true; }
    void startFrom(const PictureTimeCode& tc, int64_t rank) {
        uint32_t count = 0;
        if (!captions::labelToCount(counting_, tc.hours, tc.minutes, tc.seconds, tc.frames, count) || count < rank) {
            char text[40];
            std::snprintf(text, sizeof text, "%02u:%02u:%02u%c%02u", tc.hours, tc.minutes, tc.seconds,
                          tc.dropFrame ? ';' : ':', tc.frames);
            warn(std::string("the stream's time code ") + text +
                 " does not count as the caption file does; the first picture is 00:00:00:00");
            return;
        }
        start_ = count - static_cast<uint32_t>(rank);
        if (sccCursor_) sccCursor_.emplace(scc_, start_);
    }

    // The packet of the picture displayed `rank`-th; `total` is the number
    // of displayed pictures once known (else -1).
    const Packet& packet(int64_t rank, int64_t total) {
        const uint16_t counter = static_cast<uint16_t>(rank);
        if (sccCursor_) {
            const captions::SccPair* pair = sccCursor_->at(frameOf(rank));
            cdp608(pair ? pair->b1 : 0x80, pair ? pair->b2 : 0x80, counter, rateCode_, cdp::ccCountOf(rateCode_),
                   generated_);
            placed_ += pair ? 1 : 0;
            return generated_;
        }
        if (mcc_.rate) return mccPacket(frameOf(rank));
        if (!packets_.empty()) return packets_[static_cast<size_t>(rank) % packets_.size()];
        const std::pair<uint8_t, uint8_t> edm{0x14, 0x2C}, none{0x00, 0x00};
        std::pair<uint8_t, uint8_t> pair = size_t(rank) < pairs_.size() ? pairs_[size_t(rank)] : none;
        if (total >= 0 && rank >= total - int64_t(kTail)) pair = rank < total - 2 ? edm : none;
        cdp608(oddParity(pair.first), oddParity(pair.second), static_cast<uint16_t>(rank % 0xFFFF + 1), rateCode_, 10,
               generated_);
        return generated_;
    }
    // After the last picture: throws Error when the stream was too short for
    // the generated caption; warns of SCC and MCC captions that found no
    // picture. Returns a note for the summary line.
    std::string finish(int64_t total) const {
        const size_t needed = pairs_.size() + kTail;
        if (!pairs_.empty() && size_t(total) < needed)
            throw Error("--608-text: the stream has " + std::to_string(total) + " pictures, the caption needs " +
                        std::to_string(needed));
        const uint32_t end = frameOf(total);
        const char sep = counting_.dropped ? ';' : ':';
        const std::string span = captions::labelText(counting_, start_, sep) + " to " +
                                 captions::labelText(counting_, end, sep);
        if (sccCursor_) {
            const captions::SccCursor::Leftover l = sccCursor_->leftover(end);
            if (!l.labelInside) warn("no SCC time code falls inside the stream's span, " + span);
            if (l.queuePastEnd)
                warn("the SCC caption queue runs " + std::to_string(l.queuePastEnd) +
                     " frames past the end of the stream; its last pairs are left out");
            std::string note = std::to_string(placed_) + " SCC pairs placed, " + span;
            if (l.before) note += ", " + std::to_string(l.before) + " before the stream";
            if (l.after) note += ", " + std::to_string(l.after) + " after it";
            return note;
        }
        if (mcc_.rate) {
            if (mccPlaced_ == 0) warn("no MCC time code falls inside the stream's span, " + span);
            std::string note = std::to_string(mccPlaced_) + " MCC packets placed, " + span;
            const uint64_t skipped = mcc_.packets.size() - mccPlaced_;
            if (skipped) note += ", " + std::to_string(skipped) + " outside the stream or sharing a picture";
            if (mccTrimmed_) note += ", " + std::to_string(mccTrimmed_) + " time code sections taken out";
            return note;
        }
        return {};
    }

private:
    static void validate(const Packet& p, const std::string& what) {
        if (qnv::validateCaptionPacket(p.data(), static_cast<uint32_t>(p.size())) == 0) return;
        const std::vector<LibraryComplaint> complaints = takeLibraryComplaints();
        const std::string reason = complaints.empty() ? std::string() : complaints.back().line;
        throw Error(what + " is invalid" + (reason.empty() ? "" : ": " + reason));
    }
    static void warn(const std::string& text) {
        clearProgressLine();
        std::fprintf(stderr, "qnvtool: warning: %s\n", text.c_str());
    }
    uint32_t startCount(const std::string& text, const char* option) const {
        uint32_t count = 0;
        if (!text.empty() && !captions::parseLabel(text, counting_, count))
            throw Error(std::string(option) + ": --start '" + printable(text) + "' is not a time code at the file's rate");
        return count;
    }
    uint32_t frameOf(int64_t rank) const { return static_cast<uint32_t>(start_ + uint64_t(rank)); }

    // The MCC file's first CDP at `frame` (pictures come in decoding order);
    // later ones of the same frame are left out.
    const Packet& mccPacket(uint32_t frame) {
        generated_.clear();
        const auto it = std::lower_bound(mcc_.packets.begin(), mcc_.packets.end(), frame,
                                         [](const captions::MccPacket& p, uint32_t f) { return p.frame < f; });
        if (it == mcc_.packets.end() || it->frame != frame) return generated_;
        const captions::MccPacket& m = *it;
        cdp::Packet p;
        cdp::read(m.cdp.data(), m.cdp.size(), p);  // checked when the file was read
        if (p.hasTimeCode) {
            cdp::buildCaptionPacket(p, generated_);
            ++mccTrimmed_;
        } else {
            cdp::wrap(m.cdp.data(), m.cdp.size(), generated_);
        }
        validate(generated_, mccName_ + ":" + std::to_string(m.line) + ": the CDP");
        ++mccPlaced_;
        return generated_;
    }

    uint32_t rate_ = 30;
    cdp::FrameRate rateCode_ = cdp::FrameRate::kNone;
    std::vector<Packet> packets_;
    std::vector<std::pair<uint8_t, uint8_t>> pairs_;
    Packet generated_;
    // SCC and MCC files: the counting of their time codes and the first
    // picture's count.
    captions::Counting counting_;
    uint32_t start_ = 0;
    bool startGiven_ = false;
    captions::SccFile scc_;
    std::optional<captions::SccCursor> sccCursor_;
    uint64_t placed_ = 0;
    captions::MccFile mcc_;
    std::string mccName_;
    uint64_t mccPlaced_ = 0, mccTrimmed_ = 0;
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
        if (source.wantsStart()) {
            PictureTimeCode tc;
            if (pictureTimeCode(*au, codec, aus.splitter(), tc))
                source.startFrom(tc, rank);
            source.startKnown();
        }
        const Packet& packet = source.packet(rank, units.ended() ? units.ranked() : -1);
        if (packet.empty()) {
            out.write(*au);
            continue;
        }
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
                uint32_t added = qnvUtilAddHevcCaptions(&frame, source.rate());
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
    const std::string note = source.finish(units.ranked());
    out.commit();
    std::fprintf(summaryFile(out), "%llu access units, %zu with captions, %s%s%s\n",
                 static_cast<unsigned long long>(units.units()), captioned, videoCodecName(codec),
                 note.empty() ? "" : "; ", note.c_str());
}

// ---- Extraction ---------------------------------------------------------------
//
// qnvtool captions --extract IN [--scc OUT] [--mcc OUT] [--srt OUT] [--vtt OUT]
//                  [--start HH:MM:SS:FF] [--rate N] [--codec ...]
//
// Finds the cc_data of every picture (qnvutilFindCaptions) and takes the
// pictures in display order: the picture displayed i-th has the time code
// --start + i (without --start: counted from the stream's own time code,
// as for insertion) and the time i / rate. SCC: its field-1 pair at its time
// code, padding left out. MCC: one CDP per picture on a line with the
// picture's time code, rebuilt with the rate's cc_count (DTVCC padding
// added when the picture carried fewer triplets, or none) and without a
// time code section of its own, which some readers do not step over. SRT and WebVTT: CC1 captions
// from the CEA-608 decoder.

// Time codes and times of the pictures at a whole-number rate.
struct PictureClock {
    uint32_t rate = 29;
    captions::Counting counting;
    uint32_t start = 0;
    char separator = ':';
    const captions::MccRate* mccRate = nullptr;

    int64_t micros(int64_t rank) const {
        const bool fractional = rate == 23 || rate == 29 || rate == 59;
        const int64_t num = fractional ? 1001 : 1000, den = fractional ? rate + 1 : rate;
        return (rank * num * 1000000 / 1000 + den / 2) / den;
    }
};

// `stream`: the time code of the picture displayed `rank`-th, when the
// stream carries one and --start is not given.
PictureClock pictureClock(const CaptionsOptions& o, const PictureTimeCode* stream, int64_t rank) {
    PictureClock c;
    c.rate = o.rateGiven ? o.rate : 29;
    // Drop-frame counting at 29.97 and 59.94 unless --start says ':' (or
    // the stream's time code says non-drop-frame).
    const bool fractional = c.rate == 29 || c.rate == 59;
    const bool drop = fractional && (stream ? stream->dropFrame : o.start.empty() || o.start.find(';') != std::string::npos);
    for (const captions::MccRate& r : captions::kMccRates)
        if (r.wholeRate == (c.rate == 23 ? 24 : c.rate) && (r.counting.dropped != 0) == drop) c.mccRate = &r;
    if (c.rate == 29 && !drop) c.mccRate = &captions::kMccRates[2];  // "30"
    if (c.rate == 59 && !drop) c.mccRate = &captions::kMccRates[5];  // "60"
    if (!c.mccRate) throw Error("--extract: no time code counts at --rate " + std::to_string(c.rate));
    c.counting = c.mccRate->counting;
    c.separator = drop ? ';' : ':';
    if (!o.start.empty() && !captions::parseLabel(o.start, c.counting, c.start))
        throw Error("--start '" + printable(o.start) + "' is not a time code at --rate " + std::to_string(c.rate));
    uint32_t count = 0;
    if (stream && captions::labelToCount(c.counting, stream->hours, stream->minutes, stream->seconds, stream->frames,
                                         count) && count >= rank)
        c.start = count - static_cast<uint32_t>(rank);
    return c;
}

// The cc_data found in one picture, waiting for the pictures displayed
// before it.
struct FoundCaptions {
    bool known = false;
    uint32_t count = 0;
    uint32_t words[QNV_CC_MAX_TRIPLETS];
};

class CaptionOutputs {
public:
    CaptionOutputs(const CaptionsOptions& o, const PictureClock& clock) : clock_(clock) {
        if (!o.sccFile.empty()) {
            sccOut_.emplace(o.sccFile);
            scc_.emplace(*sccOut_, clock.counting.dropped != 0);
        }
        if (!o.mccFile.empty()) {
            mccOut_.emplace(o.mccFile);
            mcc_.emplace(*mccOut_, *clock.mccRate, captions::currentMccHeader());
        }
        if (!o.srtFile.empty()) {
            srtOut_.emplace(o.srtFile);
            srt_.emplace(*srtOut_, cea608::SubtitleWriter::Format::kSrt);
        }
        if (!o.vttFile.empty()) {
            vttOut_.emplace(o.vttFile);
            vtt_.emplace(*vttOut_, cea608::SubtitleWriter::Format::kVtt);
        }
    }

    // The picture displayed `rank`-th and its cc_data.
    void picture(int64_t rank, const FoundCaptions& found) {
        const uint32_t frame = clock_.start + static_cast<uint32_t>(rank);
        const int64_t time = clock_.micros(rank);
        captioned_ += found.count ? 1 : 0;
        for (uint32_t i = 0; i < found.count; ++i) {
            const uint32_t w = found.words[i];
            // cc_valid 1, cc_type 0: a field-1 pair.
            if ((w >> 16 & 0x07) != 0x04) continue;
            const uint8_t b1 = static_cast<uint8_t>(w >> 8), b2 = static_cast<uint8_t>(w);
            if (scc_) scc_->add(frame, b1, b2);
            decoder_.pair(time, b1, b2);
            break;
        }
        if (mcc_) {
            cdp::Packet p;
            p.rate = cdp::frameRateOf(clock_.rate);
            p.sequence = static_cast<uint16_t>(rank);
            p.count = found.count;
            for (uint32_t i = 0; i < found.count; ++i)
                p.triplets[i] = {static_cast<uint8_t>(found.words[i] >> 16), static_cast<uint8_t>(found.words[i] >> 8),
                                 static_cast<uint8_t>(found.words[i])};
            for (; p.count < cdp::ccCountOf(p.rate); ++p.count) p.triplets[p.count] = {cdp::kDtvccPadding, 0, 0};
            uint8_t bytes[cdp::kMaxBytes];
            const size_t n = cdp::build(p, bytes);
            mcc_->add(frame, bytes, n);
        }
    }

    // After the last picture, `total` of them: the files put in place.
    std::string finish(int64_t total) {
        decoder_.finish(clock_.micros(total));
        std::string note = std::to_string(captioned_) + " of " + std::to_string(total) + " pictures carry captions";
        if (scc_) {
            scc_->finish();
            sccOut_->commit();
            note += "; SCC: " + std::to_string(scc_->pairs()) + " pairs";
        }
        if (mcc_) {
            mccOut_->commit();
            note += "; MCC: " + std::to_string(mcc_->packets()) + " CDPs";
        }
        if (srt_) {
            srtOut_->commit();
            note += "; SRT: " + std::to_string(srt_->cues()) + " captions";
        }
        if (vtt_) {
            vttOut_->commit();
            note += "; WebVTT: " + std::to_string(vtt_->cues()) + " captions";
        }
        return note;
    }

private:
    void cue(const cea608::Cue& c) {
        if (srt_) srt_->add(c);
        if (vtt_) vtt_->add(c);
    }

    const PictureClock& clock_;
    std::optional<OutputStream> sccOut_, mccOut_, srtOut_, vttOut_;
    std::optional<captions::SccWriter> scc_;
    std::optional<captions::MccWriter> mcc_;
    std::optional<cea608::SubtitleWriter> srt_, vtt_;
    cea608::Decoder decoder_{[this](const cea608::Cue& c) { cue(c); }};
    uint64_t captioned_ = 0;
};

void runExtract(const CaptionsOptions& o) {
    if (o.sccFile.empty() && o.mccFile.empty() && o.srtFile.empty() && o.vttFile.empty())
        throw Error("--extract: give at least one of --scc, --mcc, --srt, --vtt");
    // The options checked before anything is read.
    if (pictureClock(o, nullptr, 0).counting.perSecond != 30 && !o.sccFile.empty())
        throw Error("--scc: SCC time codes count 30 frames a second; --rate " + std::to_string(o.rate) +
                    " is not 29 (29.97) or 30");
    InputStream in(o.in);
    UnitReader reader(in);
    const VideoCodec codec = resolveCodec(streamHead(reader), o.codec, in.name());
    const uint32_t form = codec == VideoCodec::kH264  ? QNV_CC_FORM_AVC
                          : codec == VideoCodec::kHevc ? QNV_CC_FORM_HEVC
                                                       : QNV_CC_FORM_MPEG2;
    AccessUnitReader aus(reader, codec);
    RankedUnits units(aus, codec, 0);
    // The outputs open at the first picture, once its time code is known.
    PictureClock clock;
    std::optional<CaptionOutputs> outputs;

    // Pictures come in decoding order; their captions wait here, by rank,
    // until every picture displayed before them has come (as many as the
    // stream's reorder depth): a ring whose head holds the rank `next`.
    std::vector<FoundCaptions> ring(16);
    size_t head = 0;
    int64_t next = 0;  // the rank handed to the outputs next
    size_t waiting = 0;
    CaptionDataRecord record;
    const std::vector<uint8_t>* au;
    int64_t rank;
    uint64_t offset;
    while (units.next(au, rank, offset)) {
        if (rank < 0) continue;
        if (!outputs) {
            PictureTimeCode tc;
            const bool carried = o.start.empty() && pictureTimeCode(*au, codec, aus.splitter(), tc);
            clock = pictureClock(o, carried ? &tc : nullptr, rank);
            outputs.emplace(o, clock);
        }
        // guard: a rank behind the ones handed out, or too far ahead, is a
        // broken order; it is refused rather than held.
        if (rank < next || rank - next > 4096)
            throw Error(in.name() + ": picture order broken at offset " + std::to_string(offset));
        const size_t slot = static_cast<size_t>(rank - next);
        if (slot >= ring.size()) {
            std::vector<FoundCaptions> wider(2 * (slot + 1));
            for (size_t i = 0; i < ring.size(); ++i) wider[i] = ring[(head + i) % ring.size()];
            ring.swap(wider);
            head = 0;
        }
        FoundCaptions& f = ring[(head + slot) % ring.size()];
        f.known = true;
        f.count = 0;
        ++waiting;
        if (qnvutilFindCaptions(au->data(), static_cast<uint32_t>(au->size()), form, 0, &record) == 0) {
            f.count = record.tripletCount < QNV_CC_MAX_TRIPLETS ? record.tripletCount : QNV_CC_MAX_TRIPLETS;
            std::copy(record.cc_data, record.cc_data + f.count, f.words);
        }
        while (ring[head].known) {
            outputs->picture(next++, ring[head]);
            ring[head].known = false;
            head = (head + 1) % ring.size();
            --waiting;
        }
    }
    if (units.units() == 0 || !outputs) throw Error(in.name() + ": no pictures");
    if (waiting != 0) throw Error(in.name() + ": pictures missing from the display order");
    const std::string note = outputs->finish(next);
    const bool pipe = o.sccFile == "-" || o.mccFile == "-" || o.srtFile == "-" || o.vttFile == "-";
    clearProgressLine();
    std::fprintf(pipe ? stderr : stdout, "%llu access units, %s; %s\n", static_cast<unsigned long long>(units.units()),
                 videoCodecName(codec), note.c_str());
}

const Registration kCaptions([](CLI::App& app) {
    auto o = std::make_shared<CaptionsOptions>();
    CLI::App* sub = app.add_subcommand("captions", "Insert closed captions (CEA-708 CDPs) into every access unit");
    sub->add_option("IN", o->in, "H.264, HEVC or MPEG-2 video elementary stream")->required();
    sub->add_option("OUT", o->out, "output stream (not with --extract)");
    auto* extract = sub->add_flag("--extract", o->extract,
                                  "write the stream's captions to the files of --scc, --mcc, --srt and --vtt instead");
    auto* srt = sub->add_option("--srt", o->srtFile, "with --extract: SubRip file of the CC1 captions");
    auto* vtt = sub->add_option("--vtt", o->vttFile, "with --extract: WebVTT file of the CC1 captions");
    auto* cdp = sub->add_option("--cdp", o->cdpFile,
                                "file of caption packets, used in turn: bare CDPs (96 69 ...) or packets with a "
                                "4-byte header, 61 01 and the data count in front of each CDP");
    auto* text = sub->add_option("--608-text", o->text, "generate a CEA-608 pop-on caption showing TEXT (CC1)");
    auto* scc = sub->add_option("--scc", o->sccFile,
                                "SCC file: its CEA-608 pairs go to the pictures by time code (with --extract: "
                                "written with the field-1 pairs)");
    auto* mcc = sub->add_option("--mcc", o->mccFile,
                                "MCC file: its CDPs go to the pictures by time code (with --extract: written "
                                "with one CDP per picture)");
    sub->add_option("--start", o->start,
                    "time code of the first picture in display order, for --scc, --mcc and --extract (default "
                    "00:00:00:00; with --extract at 29.97 and 59.94, ':' before the frames counts non-drop-frame)");
    cdp->excludes(text)->excludes(scc)->excludes(mcc);
    text->excludes(scc)->excludes(mcc);
    sub->add_option("--codec", o->codec, "h264, hevc or mpeg2 (detected when not given)")
        ->check(CLI::IsMember({"h264", "hevc", "mpeg2"}));
    auto* rate = sub->add_option("--rate", o->rate,
                    "frames per second as a whole number (29 for 29.97): limits the HEVC caption bytes and sets "
                    "the generated CDPs' frame rate (default with --scc: 29; with --mcc: the file's Time Code Rate)")
        ->capture_default_str();
    extract->excludes(cdp)->excludes(text);
    sub->callback([o, cdp, text, scc, mcc, rate, srt, vtt] {
        o->rateGiven = rate->count() != 0;
        if (o->extract) {
            if (!o->out.empty()) throw Error("captions --extract: no OUT stream; give the files with --scc, --mcc, --srt, --vtt");
            runExtract(*o);
            return;
        }
        if (srt->count() + vtt->count() != 0) throw Error("captions: --srt and --vtt go with --extract");
        if (o->out.empty()) throw Error("captions: give the OUT stream");
        if (cdp->count() + text->count() + scc->count() + mcc->count() == 0)
            throw Error("captions: give --cdp FILE, --608-text TEXT, --scc FILE or --mcc FILE");
        if (scc->count() != 0 && mcc->count() != 0) throw Error("captions: give --scc or --mcc, not both");
        runCaptions(*o);
    });
});

}  // namespace
}  // namespace qnvtool
