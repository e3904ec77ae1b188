// Field-coded H.264 through the tool's access units and ranks: every frame
// of the B-pyramid stream recoded as a top and a bottom field picture (the
// headers rewritten by the library's writers, the slice data kept). Each
// field is an access unit of its own; the first field takes the frame's
// display place and the second none, so one packet or time code goes to
// each frame.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qnvutil/h264.h"
#include "tests/qnvutil/test_util.h"
#include "tools/qnvtool/picture_order.h"
#include "tools/qnvtool/unit_reader.h"

namespace {

using Bytes = std::vector<uint8_t>;
using qnvtool::PictureStructure;

struct Ranked {
    int64_t rank;
    PictureStructure structure;
};

std::vector<Ranked> rank(const Bytes& stream) {
    const qnvtest::TempFile file(stream);
    qnvtool::InputStream in(file.path());
    qnvtool::UnitReader reader(in);
    qnvtool::AccessUnitReader aus(reader, qnvtool::VideoCodec::kH264);
    qnvtool::RankedUnits units(aus, qnvtool::VideoCodec::kH264, 0);
    std::vector<Ranked> out;
    const Bytes* bytes;
    int64_t r;
    uint64_t offset;
    while (units.next(bytes, r, offset)) out.push_back({r, units.structure()});
    return out;
}

// Each access unit of the frame-coded stream twice, as a top and then a
// bottom field with the next POC LSB; parameter sets only in front of the
// top field.
Bytes asFieldPairs(const Bytes& frames) {
    H264SpsRecord frameSps{}, sps{};
    H264PpsRecord pps{};
    std::vector<std::vector<qnvtest::Unit>> aus;
    for (const auto& u : qnvtest::annexBUnits(frames)) {
        BitBuffer bb{const_cast<uint8_t*>(u.bytes.data()), uint32_t(u.bytes.size()), uint32_t(u.bytes.size() * 8), 0};
        const uint32_t type = u.bytes[0] & 31u;
        if (type == 7) qnvutilRead_SPS(&bb, &frameSps);
        if (type == 8) qnvutilRead_PPS(&bb, &pps);
        if (type == 9 || type == 7 || aus.empty()) aus.emplace_back();
        if ((type == 1 || type == 5) && !aus.back().empty() && (aus.back().back().bytes[0] & 31u) < 6) {
            // A slice after the picture's slices: first_mb_in_slice 0 opens the next picture.
            BitBuffer s{const_cast<uint8_t*>(u.bytes.data()), uint32_t(u.bytes.size()), uint32_t(u.bytes.size() * 8), 8};
            if (ReadExponentialGolombCode(&s) == 0) aus.emplace_back();
        }
        aus.back().push_back(u);
    }
    sps = frameSps;
    sps.frame_mbs_only_flag = 0;
    sps.mb_adaptive_frame_field_flag = 0;
    const uint32_t lsbMask = (1u << (frameSps.log2_max_pic_order_cnt_lsb_minus4 + 4)) - 1;
    Bytes out;
    Bytes unit(QNV_H264_PS_MAX_BYTES + (1 << 16));
    for (const auto& au : aus) {
        for (int bottom = 0; bottom < 2; ++bottom) {
            for (const auto& u : au) {
                const uint32_t type = u.bytes[0] & 31u;
                uint32_t n = 0;
                if (type == 7) {
                    if (bottom) continue;
                    n = qnvutilWrite_SPS(&sps, unit.data());
                } else if (type == 1 || type == 5) {
                    H264SliceHeader h;
                    BitBuffer bb{const_cast<uint8_t*>(u.bytes.data()), uint32_t(u.bytes.size()),
                                 uint32_t(u.bytes.size() * 8), 0};
                    EXPECT_NE(qnvutilRead_SliceHeader(&bb, &frameSps, &pps, &h), 0xFFFFFFFFu);
                    h.field_pic_flag = 1;
                    h.bottom_field_flag = bottom;
                    h.pic_order_cnt_lsb = (h.pic_order_cnt_lsb + bottom) & lsbMask;
                    n = qnvutilFix_SliceHeader(u.bytes.data(), u.bytes.size(), &h, &sps, &pps, &frameSps, &pps,
                                               unit.data(), unit.size());
                } else {
                    if (bottom) continue;
                    std::copy(u.bytes.begin(), u.bytes.end(), unit.begin());
                    n = u.bytes.size();
                }
                EXPECT_LE(n, unit.size());
                out.insert(out.end(), {0, 0, 0, 1});
                out.insert(out.end(), unit.begin(), unit.begin() + n);
            }
        }
    }
    return out;
}

TEST(RankedUnits, FieldPairsTakeOneDisplayPlaceInTheirFirstField) {
    const Bytes frames = qnvtest::readData("h264/slices/pyramid.264");
    const std::vector<Ranked> frameRanks = rank(frames);
    ASSERT_EQ(frameRanks.size(), 12u);
    const std::vector<Ranked> fieldRanks = rank(asFieldPairs(frames));
    ASSERT_EQ(fieldRanks.size(), 2 * frameRanks.size());
    for (size_t i = 0; i < frameRanks.size(); ++i) {
        EXPECT_EQ(frameRanks[i].structure, PictureStructure::kFrame);
        EXPECT_EQ(fieldRanks[2 * i].rank, frameRanks[i].rank) << "frame " << i;
        EXPECT_EQ(fieldRanks[2 * i].structure, PictureStructure::kTopField) << "frame " << i;
        EXPECT_EQ(fieldRanks[2 * i + 1].rank, -1) << "frame " << i;
        EXPECT_EQ(fieldRanks[2 * i + 1].structure, PictureStructure::kBottomField) << "frame " << i;
    }
}

}  // namespace
