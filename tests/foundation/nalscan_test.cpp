// NAL unit scanner: start and end reporting, and HEVC header parsing.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "foundation/nalscan/nalscan.h"

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
}  // namespace

TEST(NalScanner, ReportsUnitsUpToTheEndOfTheBuffer) {
    Found f = scan({0, 0, 1});
    EXPECT_EQ(f.result, 3);
    EXPECT_EQ(f.start, 0);
    EXPECT_EQ(f.end, 3);

    f = scan({0, 0, 1, 0x40, 0x01, 0x0C});
    EXPECT_EQ(f.result, 3);
    EXPECT_EQ(f.start, 3);
    EXPECT_EQ(f.end, 6);

    f = scan({0, 0, 0, 1, 0x42, 0x01, 0, 0, 1, 0x44, 0x01});
    EXPECT_EQ(f.start, 4);
    EXPECT_EQ(f.end, 6);
    EXPECT_EQ(f.result, 2);

    f = scan({0x40, 0x01, 0, 0, 0, 0, 1, 0x44});  // leading bytes before the first start code
    EXPECT_EQ(f.start, 7);
    EXPECT_EQ(f.end, 8);
    EXPECT_EQ(f.result, 1);
    f = scan({9, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(f.result, 0);
    f = scan({0, 0, 1, 0, 0, 1, 5});  // an empty unit
    EXPECT_EQ(f.start, 3);
    EXPECT_EQ(f.end, 3);
    EXPECT_EQ(f.result, 0);
}

TEST(NalScanner, AgreesWithNaiveSearch) {
    std::mt19937 rng(5);
    for (int round = 0; round < 5000; ++round) {
        std::vector<uint8_t> b(4 + rng() % 40);
        for (auto& x : b) x = rng() % 2 ? 0 : static_cast<uint8_t>(rng() % 3);
        int32_t code = -1;
        for (size_t i = 0; i + 2 < b.size() && code < 0; ++i)
            if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1) code = static_cast<int32_t>(i);
        Found f = scan(b);
        if (code < 0) {
            ASSERT_EQ(f.result, 0);
            continue;
        }
        int32_t end = static_cast<int32_t>(b.size());
        for (size_t j = code + 3; j + 2 < b.size(); ++j)
            if (b[j] == 0 && b[j + 1] == 0 && b[j + 2] <= 1) {
                end = static_cast<int32_t>(j);
                break;
            }
        ASSERT_EQ(f.start, code + 3);
        ASSERT_EQ(f.end, end);
        ASSERT_EQ(f.result, end - code - 3);
    }
}

TEST(NalScanner, ReadsHevcHeaders) {
    h264_stream_t* h = h264_new();
    ASSERT_NE(h, nullptr);
    const uint8_t vps[] = {0x40, 0x01}, sei[] = {0x4E, 0x01}, odd[] = {0xFF, 0xFF}, one[] = {0x26};
    read_nal_unit(h, vps, 2);
    EXPECT_EQ(h->nal.nal_unit_type, 32);
    EXPECT_EQ(h->nal.nuh_layer_id, 0);
    EXPECT_EQ(h->nal.nuh_temporal_id, 0);
    read_nal_unit(h, sei, 2);
    EXPECT_EQ(h->nal.nal_unit_type, 39);
    read_nal_unit(h, odd, 2);
    EXPECT_EQ(h->nal.forbidden_zero_bit, 1);
    EXPECT_EQ(h->nal.nuh_layer_id, 63);
    EXPECT_EQ(h->nal.nuh_temporal_id, 6);
    EXPECT_EQ(read_nal_unit(h, one, 1), 1);  // a one-byte unit reads its missing byte as 0
    EXPECT_EQ(h->nal.nal_unit_type, 19);
    EXPECT_EQ(h->nal.nuh_temporal_id, -1);
    h264_free(h);
}
