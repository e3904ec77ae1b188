// NAL unit framing of whole frames: Annex B start codes to 4-byte big-endian
// length prefixes and back, in place, and the search for a unit by its header
// byte.
//
// Annex B to lengths keeps the result of the classic walk (one cursor from
// the front, moving the rest of the frame up by one byte at every three-byte
// start code) but does the work in linear time: a first pass counts the
// three-byte codes, a second pass from the back moves each unit once to its
// final place and writes its length. Both find the codes with the block
// masks of the NAL scanner, so that short units cost little each.
#include <cstring>
#include <initializer_list>

#include "qnvutil/h264.h"
#include "qnvutil/h264/framing.h"
#include "foundation/nalscan/blockscan.h"
#include "foundation/nalscan/nalscan.h"

namespace {

inline void putBe32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

inline uint32_t getBe32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

// The four bytes at pos; bytes past the end of the frame read as zero.
inline uint32_t getBe32Clipped(const uint8_t* data, uint64_t pos, uint32_t size) {
    uint32_t v = 0;
    for (uint64_t i = pos; i < pos + 4; ++i) v = v << 8 | (i < size ? data[i] : 0u);
    return v;
}

constexpr uint32_t kNone = 0xFFFFFFFFu;

// The vector helpers below are always inlined, so the ABI of vector
// arguments (which differs with and without AVX) never applies.
#pragma GCC diagnostic ignored "-Wpsabi"

// Frames below four bytes: only 00 00 01 converts (to FF FF FF FF, the size
// - 4 of a frame without a slot of its own, in the spare byte the code
// provides). guard: any other short frame would get its length written past
// its end, so it is left as it is.
uint32_t tinyResult(const uint8_t* data, uint32_t size) {
    return size == 3 && data[0] == 0 && data[1] == 0 && data[2] == 1 ? 4 : size;
}

// Moves bytes [lo, hi) up by `shift` (0 < shift): long runs through memmove;
// shorter ones from the top down in blocks of kChunk bytes, with the lowest
// block (or the two halves of a short run) loaded before any store can reach
// it.
template <size_t kSize>
[[gnu::always_inline]] inline void moveEnds(uint8_t* data, uint32_t lo, uint32_t hi, uint32_t shift) {
    uint8_t head[kSize], tail[kSize];
    std::memcpy(head, data + lo, kSize);
    std::memcpy(tail, data + hi - kSize, kSize);
    std::memcpy(data + hi - kSize + shift, tail, kSize);
    std::memcpy(data + lo + shift, head, kSize);
}

template <size_t kChunk>
[[gnu::always_inline]] inline void moveUp(uint8_t* data, uint32_t lo, uint32_t hi, uint32_t shift) {
    typedef uint8_t Chunk __attribute__((vector_size(kChunk)));
    const uint32_t n = hi - lo;
    if (n >= 4096) {
        std::memmove(data + lo + shift, data + lo, n);
    } else if (n > kChunk) {
        // The top chunk, then chunks whose destinations are aligned, each
        // loaded before the store of the one above it.
        Chunk head, v;
        std::memcpy(&head, data + lo, kChunk);
        std::memcpy(&v, data + hi - kChunk, kChunk);
        int64_t dst = int64_t(hi) + shift - int64_t(kChunk);
        int64_t next = dst - int64_t(reinterpret_cast<uintptr_t>(data + dst) & (kChunk - 1));
        for (; next >= int64_t(lo) + shift; next -= int64_t(kChunk)) {
            Chunk w;
            std::memcpy(&w, data + next - shift, kChunk);
            std::memcpy(data + dst, &v, kChunk);
            v = w;
            dst = next;
        }
        std::memcpy(data + dst, &v, kChunk);
        std::memcpy(data + lo + shift, &head, kChunk);
    } else if (kChunk > 32 && n > 32) {
        moveEnds<32>(data, lo, hi, shift);
    } else if (n >= 16) {
        moveEnds<16>(data, lo, hi, shift);
    } else if (n >= 8) {
        moveEnds<8>(data, lo, hi, shift);
    } else if (n >= 4) {
        moveEnds<4>(data, lo, hi, shift);
    } else {
        for (uint32_t i = hi; i > lo;) {
            --i;
            data[i + shift] = data[i];
        }
    }
}

using namespace qnv::blockscan;

// The bytes moveUp moves per step: one register of the widest size, and
// two SSE2 registers where AVX is not there.
template <class Isa>
constexpr size_t kMoveBytes = 32;
#if defined(__x86_64__)
template <>
constexpr size_t kMoveBytes<Avx512> = 64;
#endif

// The conversion of a frame of size >= 4 in two passes over the start codes,
// each found from block masks (a 00 00 01 at j is a code; it has four bytes,
// from j - 1, when data[j - 1] is 00 as well; a three-byte code at size - 3
// is not a boundary and only adds one to the result).
//
// Pass one, forward: counts the codes and the three-byte ones, and writes
// the lengths of the units in front of the first three-byte code, which do
// not move. Pass two, backward, only when there are three-byte codes: from
// the last code down to the first three-byte one, moves each unit once by
// the number of three-byte codes up to it and writes its length. When the
// result passes `capacity`, the slots of pass one are put back (each leads
// to the next through its length) and the frame is as it was.
template <class Isa>
class Conversion {
    static constexpr size_t kMoveChunk = kMoveBytes<Isa>;

public:
    Conversion(uint8_t* data, uint32_t size) : data_(data), size_(size) {}

    uint32_t run(uint64_t capacity) {
        forward();
        const uint64_t newSize = uint64_t(size_) + widened_ + (tail_ ? 1 : 0);
        if (newSize > capacity) {
            restore();
            return kNone;
        }
        if (codes_ == 0) {
            putBe32(data_, size_ - 4);  // no start code: the frame is taken to begin with a slot of its own
        } else if (widened_ == 0) {
            putBe32(data_ + last_, size_ - last_ - 4);
        } else {
            backward();
        }
        return static_cast<uint32_t>(newSize);
    }

private:
    // The code whose 00 00 01 starts at j: its first byte and its length.
    uint32_t codeStart(uint64_t j) const { return j >= 1 && data_[j - 1] == 0 ? uint32_t(j - 1) : uint32_t(j); }

    // Up to the first three-byte code: the lengths of the units in front of
    // it, which keep their place; from there on widenedRest() counts.
    void forward() {
        uint64_t base = 0;
        while (base + 2 < size_) {
            for (uint64_t m = blockHits<Isa, false>(data_, base, size_); m != 0; m &= m - 1) {
                const uint64_t j = base + static_cast<uint32_t>(__builtin_ctzll(m));
                const uint32_t code = codeStart(j);
                const bool wide = code == j;
                if (wide && j == size_ - 3) {
                    tail_ = true;
                    return;
                }
                if (codes_ > 0) {
                    putBe32(data_ + last_, code - last_ - 4);
                    ++written_;
                } else {
                    first_ = code;
                }
                last_ = code;
                ++codes_;
                if (wide) {
                    firstWide_ = code;
                    widenedRest(base, j, m & (m - 1));
                    return;
                }
            }
            base = skipToPair<Isa>(data_, base + kBlock, size_);
        }
    }

    // From the first three-byte code (its 00 00 01 at `first`) on: counts the
    // codes and the three-byte ones and records their positions; `m` holds
    // the hits of the block at base after it.
    void widenedRest(uint64_t base, uint64_t first, uint64_t m) {
        const uint64_t tailCode = size_ - 3;
        uint32_t codes = 1, widened = 1;
        recorded_[0] = static_cast<uint32_t>(first);
        for (;;) {
            for (; m != 0; m &= m - 1) {
                const uint64_t j = base + static_cast<uint32_t>(__builtin_ctzll(m));
                const bool wide = data_[j - 1] != 0;  // j > first, so j >= 1
                if (wide && j == tailCode) {
                    tail_ = true;
                    break;
                }
                widened += wide ? 1 : 0;
                // Past the record, the positions go to its spare entry.
                recorded_[codes < kRecorded ? codes : kRecorded] = static_cast<uint32_t>(j);
                ++codes;
            }
            if (tail_) break;
            // Two chunks a step: faster here over long units (64 units in
            // 2 MiB: 1.9 against 2.0 times a memmove of the frame). forward()
            // keeps one chunk a step; with two, its frames of 512-byte units
            // took 2.4 instead of 1.4 times the memmove.
            base = skipToPair<Isa, true>(data_, base + kBlock, size_);
            if (base + 2 >= size_) break;
            m = blockHits<Isa, false>(data_, base, size_);
        }
        codes_ += codes - 1;
        widened_ = widened;
        recordedCount_ = codes < kRecorded ? codes : kRecorded;
        allRecorded_ = codes <= kRecorded;
    }

    // Puts 00 00 00 01 back into the slots forward() wrote.
    void restore() {
        uint32_t slot = first_;
        for (uint32_t n = 0; n < written_; ++n) {
            const uint32_t length = getBe32(data_ + slot);
            putBe32(data_ + slot, 1);
            slot += 4 + length;
        }
    }

    // Places the unit of the code whose 00 00 01 starts at j (the units
    // above it are placed) and writes its slot.
    void place(uint64_t j) {
        const uint32_t at = codeStart(j), length = static_cast<uint32_t>(j + 3 - at);
        if (shift_ != 0) moveUp<kMoveChunk>(data_, static_cast<uint32_t>(j + 3), hi_, shift_);
        if (length == 3) --shift_;
        const uint32_t slot = at + shift_;
        putBe32(data_ + slot, next_ - slot - 4);
        next_ = slot;
        hi_ = at;
    }

    void backward() {
        shift_ = widened_;
        next_ = size_ + shift_;
        hi_ = size_;
        // The codes pass one did not record, from the top down: the 00 00 01
        // at j <= top in blocks of 64 positions at aligned addresses (so that
        // no load waits for the code before). A placed code's bytes are
        // overwritten, so only positions below them count.
        const int64_t floor = recordedCount_ == 0 ? int64_t(firstWide_) : int64_t(recorded_[recordedCount_ - 1]) + 1;
        if (!allRecorded_) {
            int64_t top = tail_ ? size_ - 4 : size_ - 3;
            for (int64_t a = top - int64_t(reinterpret_cast<uintptr_t>(data_ + top) & (kBlock - 1)); top >= floor;
                 a -= kBlock) {
                // guard: the filter reads a whole chunk, so only chunks inside the frame
                if (a >= 0 && a + kBlock <= size_ && !Isa::mayPair(data_ + a)) continue;
                uint64_t m = blockHits<Isa, false>(data_, uint64_t(a), size_);
                for (m &= upTo(top - a); m != 0; m &= upTo(top - a)) {
                    const uint64_t j = uint64_t(a) + 63 - static_cast<uint32_t>(__builtin_clzll(m));
                    if (int64_t(j) < floor) break;
                    place(j);
                    top = int64_t(hi_) - 3;
                }
                top = top < a ? top : a - 1;
            }
        }
        for (uint32_t n = recordedCount_; n > 0; --n) place(recorded_[n - 1]);
    }

    // Bits 0..n of a block mask (none for n < 0).
    static uint64_t upTo(int64_t n) { return n < 0 ? 0 : n >= 63 ? ~uint64_t(0) : (uint64_t(2) << n) - 1; }

    uint8_t* const data_;
    const uint32_t size_;
    uint32_t codes_ = 0;        // start codes (the tail code not counted)
    uint32_t widened_ = 0;      // three-byte codes that become four bytes
    uint32_t first_ = 0;        // the first code
    uint32_t firstWide_ = 0;    // the first three-byte code
    uint32_t last_ = 0;         // the last code seen
    uint32_t written_ = 0;      // slots forward() wrote, from first_ on
    bool tail_ = false;         // 00 00 01 in the last three bytes
    // The positions (of the 00 00 01) of the codes from the first three-byte
    // one on, as far as they fit: pass two finds only the others again.
    static constexpr uint32_t kRecorded = 4096;  // 16 KiB of stack
    uint32_t recorded_[kRecorded + 1];           // and a spare entry
    uint32_t recordedCount_ = 0;
    bool allRecorded_ = true;
    // Pass two: the shift of the bytes behind the current code, the final
    // place of the following slot (or the end), old bytes [.., hi_) not placed.
    uint32_t shift_ = 0, next_ = 0, hi_ = 0;
};

template <class Isa>
uint32_t convert(uint8_t* data, uint32_t size, uint64_t capacity) {
    return Conversion<Isa>(data, size).run(capacity);
}

using Convert = uint32_t (*)(uint8_t*, uint32_t, uint64_t);

[[gnu::flatten]] uint32_t convertPortable(uint8_t* d, uint32_t n, uint64_t c) { return convert<Portable>(d, n, c); }
#if defined(__x86_64__)
[[gnu::flatten]] uint32_t convertSse2(uint8_t* d, uint32_t n, uint64_t c) { return convert<Sse2>(d, n, c); }
__attribute__((target("avx2"), flatten)) uint32_t convertAvx2(uint8_t* d, uint32_t n, uint64_t c) {
    return convert<Avx2>(d, n, c);
}
__attribute__((target("avx512bw"), flatten)) uint32_t convertAvx512(uint8_t* d, uint32_t n, uint64_t c) {
    return convert<Avx512>(d, n, c);
}
#endif

Convert variant(qnv::ScanVariant v) {
    if (!qnv::ScanVariantAvailable(v)) return nullptr;
    switch (v) {
#if defined(__x86_64__)
        case qnv::ScanVariant::kSse2: return convertSse2;
        case qnv::ScanVariant::kAvx2: return convertAvx2;
        case qnv::ScanVariant::kAvx512: return convertAvx512;
#endif
        default: return convertPortable;
    }
}

uint32_t convertFrame(uint8_t* data, uint32_t size, uint64_t capacity) {
    static const Convert best = [] {
        for (auto v : {qnv::ScanVariant::kAvx512, qnv::ScanVariant::kAvx2, qnv::ScanVariant::kSse2})
            if (Convert c = variant(v)) return c;
        return convertPortable;
    }();
    return best(data, size, capacity);
}

}  // namespace

namespace qnv {
uint32_t h264ConvertWith(ScanVariant v, uint8_t* data, uint32_t size, uint64_t capacity) {
    return variant(v)(data, size, capacity);
}
}  // namespace qnv

QNV_BEGIN_C

QNV_API uint32_t qnvUtilh264MarkerToSize(uint8_t* data, uint32_t size) {
    if (data == nullptr || size == 0) return 0;
    if (size < 4) {
        const uint32_t result = tinyResult(data, size);
        if (result == 4) putBe32(data, 0xFFFFFFFFu);
        return result;
    }
    // guard: a result of 2^32 - 1 or more cannot be told from the refusal;
    // such a frame (4 GiB) is left as it is.
    const uint32_t result = convertFrame(data, size, 0xFFFFFFFEu);
    return result == kNone ? size : result;
}

QNV_API uint32_t qnvUtilh264MarkerToSizeChecked(uint8_t* data, uint32_t size, uint32_t capacity) {
    if (data == nullptr) return 0xFFFFFFFFu;
    if (size < 4) {
        if (size != 0 && tinyResult(data, size) > capacity) return 0xFFFFFFFFu;
        return qnvUtilh264MarkerToSize(data, size);
    }
    return convertFrame(data, size, capacity);
}

QNV_API uint32_t qnvUtilh264SizeToMarker(uint8_t* data, uint32_t size) {
    if (data == nullptr) return 0;
    if (size >= 4 && getBe32(data) == 1) return size;
    if (size == 0) return 0;
    uint64_t pos = 0;
    uint32_t len = getBe32Clipped(data, 0, size);
    while (pos < size) {
        // guard: bytes past the end of the frame read as zero, and a prefix
        // that would not fit in the frame is not written.
        if (getBe32Clipped(data, pos, size) == 0) return static_cast<uint32_t>(pos);
        if (len >= size - pos || pos + 4 > size) return size;
        putBe32(data + pos, 1);
        pos += 4 + uint64_t(len);
        if (pos + 3 < size) len = getBe32(data + pos);
    }
    return size;
}

QNV_API int32_t qnvUtilFindSpecificNAL(const uint8_t* data, uint32_t size, int32_t startCodes, uint8_t headerByte,
                                       const uint8_t** found, uint32_t* foundSize) {
    if (data == nullptr || size < 4) return 0;
    if (found == nullptr || foundSize == nullptr) return 0;  // guard: nowhere to report
    *found = nullptr;
    *foundSize = 0;
    const uint32_t limit = size - 4;
    uint64_t pos = 0;
    bool have = false;
    uint32_t at = 0;
    while (pos < limit) {
        if (have) {
            *foundSize = static_cast<uint32_t>(pos - at);
            return 1;
        }
        if (data[pos + 4] == headerByte) {
            have = true;
            at = static_cast<uint32_t>(pos);
            *found = data + pos;
        }
        if (startCodes == 0) {
            pos += 4 + uint64_t(getBe32(data + pos));
            // guard: a length running past the frame ends the walk at its end,
            // so the reported unit never reaches beyond the buffer.
            if (pos > size) pos = size;
        } else {
            // Deliberately loose: stops at any zero among three bytes or a 01
            // in the fourth, not only at a full start code.
            uint32_t p = static_cast<uint32_t>(pos) + 4;
            while (p < limit && data[p] != 0 && data[p + 1] != 0 && data[p + 2] != 0 && data[p + 3] != 1) ++p;
            pos = p;
        }
    }
    if (!have) return 0;
    *foundSize = static_cast<uint32_t>(pos - at);
    return *foundSize != 0 ? 1 : 0;
}

QNV_END_C
