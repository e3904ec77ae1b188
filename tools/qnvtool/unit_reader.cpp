#include "tools/qnvtool/unit_reader.h"

#include <algorithm>
#include <cstring>

#include "qnvutil/order/access_unit.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace nal = qnv::nal;

UnitReader::UnitReader(InputStream& in) : in_(in) {}

bool UnitReader::refill() {
    if (eof_) return false;
    // Keep what is not handed out, at the front.
    if (begin_ > 0) {
        std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
        base_ += begin_;
        end_ -= begin_;
        begin_ = 0;
    }
    if (end_ > kMaxUnitBytes)
        throw Error(in_.name() + ": a NAL unit at offset " + std::to_string(base_) + " is larger than " +
                    std::to_string(kMaxUnitBytes >> 20) + " MiB");
    // Grow by at least what is held, so that a long unit is walked a
    // bounded number of times over.
    const size_t chunk = in_.chunk();
    const size_t want = end_ + (end_ > chunk ? end_ : chunk);
    if (buffer_.size() < want) buffer_.resize(want);
    const size_t n = in_.read(buffer_.data() + end_, buffer_.size() - end_);
    end_ += n;
    if (n == 0) eof_ = true;
    haveCurrent_ = false;  // the walk starts again over the new bytes
    return n != 0;
}

const uint8_t* UnitReader::peek(size_t count, size_t& available) {
    while (end_ - begin_ < count && !eof_) refill();
    available = end_ - begin_ < count ? end_ - begin_ : count;
    return buffer_.data() + begin_;
}

uint64_t UnitReader::skip(uint64_t count) {
    uint64_t skipped = 0;
    haveCurrent_ = false;
    while (skipped < count) {
        if (begin_ == end_) {
            base_ += end_;  // nothing held: read into the front
            begin_ = end_ = 0;
            if (!refill()) break;
        }
        const uint64_t take = std::min<uint64_t>(count - skipped, end_ - begin_);
        begin_ += take;
        skipped += take;
    }
    return skipped;
}

bool UnitReader::next(StreamUnit& unit) {
    for (;;) {
        if (!haveCurrent_) {
            // guard: the walk's offsets are 32-bit; what is held stays far below that (kMaxUnitBytes)
            walkBase_ = begin_;
            walk_ = nal::UnitWalk(buffer_.data() + begin_, static_cast<uint32_t>(end_ - begin_), nal::Framing::kAnnexB);
            haveCurrent_ = walk_.next(current_);
            if (!haveCurrent_) {
                if (!eof_) {
                    refill();
                    continue;
                }
                if (end_ == begin_) return false;
                // Bytes with no unit in them.
                const auto held = static_cast<uint32_t>(end_ - begin_);
                unit = StreamUnit{buffer_.data() + begin_, held, base_ + begin_, held, 0, 0};
                begin_ = end_;
                return true;
            }
        }
        // The current unit is whole once its end lies before the bytes held
        // (a terminating zero pair was seen) or the input has ended; its
        // span once the following unit's start code is found.
        if (walkBase_ + current_.end() >= end_ && !eof_) {
            refill();
            continue;
        }
        nal::Unit following{};
        const bool more = walk_.next(following);
        if (!more && !eof_) {
            refill();
            continue;
        }
        const size_t spanEnd = more ? walkBase_ + following.offset : end_;
        unit = StreamUnit{buffer_.data() + begin_, static_cast<uint32_t>(spanEnd - begin_), base_ + begin_,
                          static_cast<uint32_t>(walkBase_ + current_.header() - begin_), current_.prefix,
                          current_.size};
        begin_ = spanEnd;
        current_ = following;
        haveCurrent_ = more;
        return true;
    }
}

std::vector<uint8_t> streamHead(UnitReader& units) {
    size_t available = 0;
    const uint8_t* head = units.peek(kDetectBytes, available);
    if (available == 0) throw Error(units.input().name() + ": empty file");
    return std::vector<uint8_t>(head, head + available);
}

// ---- Access units ------------------------------------------------------------

AccessUnitReader::AccessUnitReader(UnitReader& units, VideoCodec codec) : units_(units) {
    if (codec != VideoCodec::kMpeg2)
        splitter_ = std::make_unique<qnv::order::AccessUnitSplitter>(codec == VideoCodec::kHevc ? nal::Codec::kHevc
                                                                                                 : nal::Codec::kH264);
}

AccessUnitReader::~AccessUnitReader() = default;

bool AccessUnitReader::next(std::vector<uint8_t>& bytes, uint64_t& offset) {
    bytes.clear();
    if (done_) return false;
    if (havePending_) {
        // The unit that ended the last access unit begins this one; its
        // bytes are still the reader's, which has not moved on since.
        bytes.assign(pending_.raw, pending_.raw + pending_.rawSize);
        offset = pending_.offset;
        if (splitter_) splitter_->note(pending_.unit(), pending_.size);
        havePending_ = false;
    }
    for (StreamUnit u; units_.next(u);) {
        if (u.prefix != 0 && !splitter_) {
            // MPEG-2: the unit is the start code's value and what follows it.
            const uint8_t code = u.size != 0 ? u.unit()[0] : 0xFF;
            // User data after a picture's slices is the next picture's (the
            // caption insertion puts it in front of the sequence header).
            const bool header = code == 0xB3 || code == 0xB8 || code == 0x00 || code == 0xB2;
            if (header && mpeg2Picture_ && !bytes.empty()) {
                pending_ = u;
                havePending_ = true;
                mpeg2Picture_ = false;
                return true;
            }
            mpeg2Picture_ |= code >= 0x01 && code <= 0xAF;
        } else if (u.prefix != 0) {
            const bool opens = splitter_->opens(u.unit(), u.size);
            if (opens && !bytes.empty()) {
                pending_ = u;
                havePending_ = true;
                return true;
            }
            splitter_->note(u.unit(), u.size);
        }
        if (bytes.empty()) offset = u.offset;
        bytes.insert(bytes.end(), u.raw, u.raw + u.rawSize);
    }
    done_ = true;
    return !bytes.empty();
}

}  // namespace qnvtool
