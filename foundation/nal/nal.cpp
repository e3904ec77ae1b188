#include "foundation/nal/nal.h"

#include <cstring>

#include "foundation/nalscan/zeropair.h"

namespace qnv::nal {

const char* typeName(Codec codec, uint32_t type) {
    static const char* const kHevc[64] = {
        "TRAIL_N", "TRAIL_R", "TSA_N", "TSA_R", "STSA_N", "STSA_R", "RADL_N", "RADL_R",
        "RASL_N", "RASL_R", "RSV_VCL_N10", "RSV_VCL_R11", "RSV_VCL_N12", "RSV_VCL_R13", "RSV_VCL_N14",
        "RSV_VCL_R15", "BLA_W_LP", "BLA_W_RADL", "BLA_N_LP", "IDR_W_RADL", "IDR_N_LP", "CRA_NUT",
        "RSV_IRAP_VCL22", "RSV_IRAP_VCL23", "RSV_VCL24", "RSV_VCL25", "RSV_VCL26", "RSV_VCL27", "RSV_VCL28",
        "RSV_VCL29", "RSV_VCL30", "RSV_VCL31", "VPS_NUT", "SPS_NUT", "PPS_NUT", "AUD_NUT", "EOS_NUT",
        "EOB_NUT", "FD_NUT", "PREFIX_SEI_NUT", "SUFFIX_SEI_NUT", "RSV_NVCL41", "RSV_NVCL42", "RSV_NVCL43",
        "RSV_NVCL44", "RSV_NVCL45", "RSV_NVCL46", "RSV_NVCL47", "UNSPEC48", "UNSPEC49", "UNSPEC50",
        "UNSPEC51", "UNSPEC52", "UNSPEC53", "UNSPEC54", "UNSPEC55", "UNSPEC56", "UNSPEC57", "UNSPEC58",
        "UNSPEC59", "UNSPEC60", "UNSPEC61", "UNSPEC62", "UNSPEC63"};
    static const char* const kH264[32] = {
        "unspecified", "slice", "slice data A", "slice data B", "slice data C", "IDR slice", "SEI", "SPS",
        "PPS", "access unit delimiter", "end of sequence", "end of stream", "filler data", "SPS extension",
        "prefix NAL", "subset SPS", "depth parameter set", "reserved", "reserved", "auxiliary slice",
        "slice extension", "depth slice extension", "reserved", "reserved", "unspecified", "unspecified",
        "unspecified", "unspecified", "unspecified", "unspecified", "unspecified", "unspecified"};
    // guard: the type is masked to its table
    return codec == Codec::kHevc ? kHevc[type & 63] : kH264[type & 31];
}

// ---- UnitWalk -----------------------------------------------------------------------

bool UnitWalk::next(Unit& unit) {
    return framing_ == Framing::kAnnexB ? nextAnnexB(unit) : nextLengthPrefixed(unit);
}

bool UnitWalk::nextAnnexB(Unit& unit) {
    // A start code needs a byte after it: its zero pair lies at or before size - 4.
    uint32_t code = kNoZeroPair;
    for (uint32_t from = pos_; uint64_t(from) + 4 <= size_;) {
        const uint32_t q = FindZeroPair(data_, from, size_ - 4);
        if (q == kNoZeroPair) break;
        if (data_[q + 2] == 1) {
            code = q;
            break;
        }
        from = q + 1;
    }
    if (code == kNoZeroPair) {
        pos_ = size_;
        return false;
    }
    // The zero byte in front belongs to the start code when it is not the
    // end of the previous unit.
    const uint32_t prefix = code > pos_ && data_[code - 1] == 0 ? 4 : 3;
    const uint32_t header = code + 3;
    uint32_t end = size_;
    for (uint32_t from = header; uint64_t(from) + 3 <= size_;) {
        const uint32_t q = FindZeroPair(data_, from, size_ - 3);
        if (q == kNoZeroPair) break;
        if (data_[q + 2] <= 1) {
            end = q;
            break;
        }
        from = q + 1;
    }
    unit = Unit{header - prefix, prefix, end - header};
    pos_ = end;
    return true;
}

bool UnitWalk::nextLengthPrefixed(Unit& unit) {
    if (pos_ >= size_) return false;
    // guard: a length field cut off by the end, or a length running past it, ends the walk
    const uint32_t left = size_ - pos_;
    const uint32_t length = left >= 4 ? getBe32(data_ + pos_) : 0;
    if (left < 4 || length > left - 4) {
        truncated_ = true;
        pos_ = size_;
        return false;
    }
    unit = Unit{pos_, 4, length};
    pos_ += 4 + length;
    return true;
}

// ---- Emulation prevention ---------------------------------------------------------

uint32_t unescape(const uint8_t* src, uint8_t* dst, uint32_t n, const UnescapeOptions& options) {
    if (n == 0) return 0;
    const uint8_t last = src[n - 1];
    const uint32_t from = options.from < n ? options.from : n;
    if (dst != src) std::memcpy(dst, src, from);
    uint32_t copyFrom = from, out = from, removed = 0;
    for (uint32_t search = from; uint64_t(search) + 3 <= n;) {
        const uint32_t q = FindZeroPair(src, search, n - 3);
        if (q == kNoZeroPair) break;
        const uint8_t third = src[q + 2];
        if (third == 3 || (third == 0x0C && options.dropZeroC)) {
            const uint32_t run = q + 2 - copyFrom;
            std::memmove(dst + out, src + copyFrom, run);
            out += run;
            copyFrom = search = q + 3;  // zeros are counted anew behind the removed byte
            ++removed;
        } else {
            search = q + 1;
        }
    }
    std::memmove(dst + out, src + copyFrom, n - copyFrom);
    out += n - copyFrom;
    if (options.keepLength) std::memset(dst + out, last, n - out);
    return removed;
}

namespace {

// The escaper's walk: `run(from, count)` takes source bytes as they stand,
// `prevention()` an 03 in front of the next one.
template <class Run, class Prevention>
void escapeWalk(const uint8_t* src, uint32_t n, const EscapeOptions& options, Run run, Prevention prevention) {
    uint32_t copyFrom = 0;
    for (uint32_t search = 0; uint64_t(search) + 3 <= n;) {
        const uint32_t q = FindZeroPair(src, search, n - 3);
        if (q == kNoZeroPair) break;
        const uint8_t third = src[q + 2];
        if (third <= 3 && !(third == 2 && options.passZeroZeroTwo)) {
            run(copyFrom, q + 2 - copyFrom);
            prevention();
            // The byte behind the 03 starts a new count: it may be the first
            // zero of the next pair, never the second.
            copyFrom = search = q + 2;
        } else {
            search = q + 1;
        }
    }
    run(copyFrom, n - copyFrom);
    if (n > 0 && src[n - 1] == 0 && !options.openEnd) prevention();
}

}  // namespace

uint32_t escape(const uint8_t* src, uint32_t n, uint8_t* dst, const EscapeOptions& options) {
    uint32_t out = 0;
    escapeWalk(
        src, n, options,
        [&](uint32_t from, uint32_t count) {
            if (count == 0) return;  // guard: empty input may come with null pointers
            std::memcpy(dst + out, src + from, count);
            out += count;
        },
        [&] { dst[out++] = 3; });
    return out;
}

uint32_t escapedSize(const uint8_t* src, uint32_t n, const EscapeOptions& options) {
    uint32_t out = 0;
    escapeWalk(src, n, options, [&](uint32_t, uint32_t count) { out += count; }, [&] { ++out; });
    return out;
}

}  // namespace qnv::nal
