// NAL unit scanner: start and end reporting, and HEVC header parsing.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <tuple>
#include <vector>

#include "foundation/nalscan/nalscan.h"
#include "foundation/nalscan/blockscan.h"

using namespace qnv;

namespace {
struct Found {
    int32_t result, start, end;
};
Found scan(const std::vector<uint8_t>& b) {
    Found f{0, -1, -1};
    f.result = find_nal_unit(b.data(), static_cast<uint32_t>(b.size()), &f.start, &f.end);
    return f;
}
Found scanWith(ScanVariant v, const std::vector<uint8_t>& b) {
    const UnitBounds u = FindUnitBoundsWith(v, b.data(), static_cast<uint32_t>(b.size()));
    if (!u.found()) return Found{0, -1, -1};
    const int32_t start = static_cast<int32_t>(u.start), end = static_cast<int32_t>(u.end);
    return Found{end - start, start, end};
}
}  // namespace

TEST(NalScanner, ReportsUnitsUpToTheEndOfTheBuffer) {
    // Units run to the next start code or the buffer's end; bytes before the
    // first start code are skipped; a unit may be empty.
    const struct { std::vector<uint8_t> bytes; int32_t result, start, end; } rows[] = {
        {{0, 0, 1}, 3, 0, 3},
        {{0, 0, 1, 0x40, 0x01, 0x0C}, 3, 3, 6},
        {{0, 0, 0, 1, 0x42, 0x01, 0, 0, 1, 0x44, 0x01}, 2, 4, 6},
        {{0x40, 0x01, 0, 0, 0, 0, 1, 0x44}, 1, 7, 8},
        {{0, 0, 1, 0, 0, 1, 5}, 0, 3, 3}};
    for (const auto& r : rows) {
        const Found f = scan(r.bytes);
        EXPECT_EQ(std::tuple(f.result, f.start, f.end), std::tuple(r.result, r.start, r.end)) << r.bytes.size();
    }
    EXPECT_EQ(scan({9, 0, 0, 0, 0, 0, 0, 0}).result, 0);
}

TEST(NalScanner, EveryVariantAgreesWithNaiveSearch) {
    std::vector<ScanVariant> variants;
    for (ScanVariant v : {ScanVariant::kPortable, ScanVariant::kSse2, ScanVariant::kAvx2, ScanVariant::kAvx512})
        if (ScanVariantAvailable(v)) variants.push_back(v);
    std::mt19937 rng(5);
    for (int round = 0; round < 8000; ++round) {
        // Every fourth buffer is long with rare zeros, so that codes fall on
        // block boundaries, in the tail and after zero-free blocks.
        const bool sparse = round % 4 == 0;
        std::vector<uint8_t> b(4 + rng() % (sparse ? 400 : 40));
        for (auto& x : b)
            x = sparse ? (rng() % 24 == 0 ? 0 : static_cast<uint8_t>(rng() % 2 + 1))
                       : rng() % 2 ? 0 : static_cast<uint8_t>(rng() % 3);
        int32_t code = -1;
        for (size_t i = 0; i + 2 < b.size() && code < 0; ++i)
            if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) code = static_cast<int32_t>(i);
        Found expected{0, -1, -1};
        if (code >= 0) {
            int32_t end = static_cast<int32_t>(b.size());
            for (size_t j = code + 3; j + 2 < b.size(); ++j)
                if (b[j] == 0 && b[j + 1] == 0 && b[j + 2] <= 1) {
                    end = static_cast<int32_t>(j);
                    break;
                }
            expected = {end - code - 3, code + 3, end};
        }
        for (ScanVariant v : variants) {
            const Found f = scanWith(v, b);
            ASSERT_EQ(std::tuple(f.result, f.start, f.end), std::tuple(expected.result, expected.start, expected.end))
                << "round " << round << " variant " << static_cast<int>(v);
        }
    }
}

TEST(NalScanner, WalkerAndStartCodeSearchAnswerAsFindNalUnitAtEachOffset) {
    std::mt19937 rng(6);
    for (int round = 0; round < 3000; ++round) {
        // Any alignment of the buffer: the walker's blocks follow addresses.
        std::vector<uint8_t> whole(64 + 1 + rng() % 700);
        const unsigned rare = 1 + rng() % 40;
        for (auto& x : whole) x = rng() % rare == 0 ? static_cast<uint8_t>(rng() % 2) : static_cast<uint8_t>(rng() % 4);
        const uint32_t shift = rng() % 64, size = static_cast<uint32_t>(whole.size()) - shift;
        const uint8_t* b = whole.data() + shift;
        for (ScanVariant v : {ScanVariant::kPortable, ScanVariant::kSse2, ScanVariant::kAvx2, ScanVariant::kAvx512}) {
            if (!ScanVariantAvailable(v)) continue;
            NalUnitWalker walker(v, b, size);
            // Offsets as walks take them: to a unit's end, or a few bytes on.
            for (uint32_t offset = 0; offset <= size;) {
                int32_t start = -1, end = -1;
                const int32_t n = find_nal_unit(b + offset, size - offset, &start, &end);
                const UnitBounds u = walker.find(offset);
                uint32_t code = offset;  // the first 00 00 01 from offset on, as FindStartCode gives it
                while (code + 2 < size && !(b[code] == 0 && b[code + 1] == 0 && b[code + 2] == 1)) ++code;
                ASSERT_EQ(FindStartCode(b, offset, size), code + 2 < size ? code : size) << round;
                ASSERT_EQ(u.found(), n != 0 || end >= 0) << round;
                if (u.found()) {
                    ASSERT_EQ(std::tuple(u.start, u.end), std::tuple(offset + start, offset + end)) << round;
                }
                offset += rng() % 3 == 0 || !u.found() || u.end == offset ? 1 + rng() % 5 : uint32_t(u.end - offset);
            }
        }
    }
}

namespace {
// The chunk filters of each instruction set, compiled for it: one chunk, and
// the second chunk through the two-chunk filter with a first chunk of FF.
template <class Isa>
bool both(const uint8_t* p) {
    uint8_t two[128];
    std::memset(two, 0xFF, 64);
    std::memcpy(two + 64, p, 64);
    return Isa::mayPair(p) && Isa::mayPair2(two);
}
bool mayPairPortable(const uint8_t* p) { return both<blockscan::Portable>(p); }
#if defined(__x86_64__)
bool mayPairSse2(const uint8_t* p) { return both<blockscan::Sse2>(p); }
__attribute__((target("avx2"), flatten)) bool mayPairAvx2(const uint8_t* p) { return both<blockscan::Avx2>(p); }
__attribute__((target("avx512bw"), flatten)) bool mayPairAvx512(const uint8_t* p) { return both<blockscan::Avx512>(p); }
#endif
}  // namespace

TEST(NalScanner, ChunkFilterMissesNoZeroPair) {
    // A chunk whose 64 bytes start a zero pair (the last byte counts when it
    // is 00) must never be passed over.
    std::vector<std::pair<ScanVariant, bool (*)(const uint8_t*)>> filters = {{ScanVariant::kPortable, mayPairPortable}};
#if defined(__x86_64__)
    filters.insert(filters.end(), {{ScanVariant::kSse2, mayPairSse2}, {ScanVariant::kAvx2, mayPairAvx2},
                                   {ScanVariant::kAvx512, mayPairAvx512}});
#endif
    std::mt19937 rng(9);
    for (int round = 0; round < 20000; ++round) {
        uint8_t chunk[64];
        const unsigned rare = 2 + rng() % 40;
        for (auto& x : chunk) x = rng() % rare == 0 ? 0 : static_cast<uint8_t>(1 + rng() % 255);
        bool pair = chunk[63] == 0;
        for (int j = 0; j < 63; ++j) pair = pair || (chunk[j] == 0 && chunk[j + 1] == 0);
        if (!pair) continue;
        for (const auto& [v, mayPair] : filters) {
            if (!ScanVariantAvailable(v)) continue;
            ASSERT_TRUE(mayPair(chunk)) << round << " variant " << int(v);
        }
    }
}

TEST(NalScanner, ReadsHevcHeaders) {
    h264_stream_t* h = h264_new();
    ASSERT_NE(h, nullptr);
    const uint8_t vps[] = {0x40, 0x01}, sei[] = {0x4E, 0x01}, odd[] = {0xFF, 0xFF}, one[] = {0x26};
    // forbidden bit, type, layer, temporal id
    auto header = [&] { return std::tuple(h->nal.forbidden_zero_bit, h->nal.nal_unit_type, h->nal.nuh_layer_id,
                                          h->nal.nuh_temporal_id); };
    read_nal_unit(h, vps, 2);
    EXPECT_EQ(header(), std::tuple(0, 32, 0, 0));
    read_nal_unit(h, sei, 2);
    EXPECT_EQ(header(), std::tuple(0, 39, 0, 0));
    read_nal_unit(h, odd, 2);
    EXPECT_EQ(header(), std::tuple(1, 63, 63, 6));
    EXPECT_EQ(read_nal_unit(h, one, 1), 1);  // a one-byte unit reads its missing byte as 0
    EXPECT_EQ(header(), std::tuple(0, 19, 0, -1));
    h264_free(h);
}
