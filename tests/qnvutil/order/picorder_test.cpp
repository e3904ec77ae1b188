// Picture order counts against the decoder's presentation order: frames
// sorted by (coded video sequence, POC) must come in the order ffprobe
// shows them, for x264 with B-pyramids and an open GOP (POC type 0), x264
// baseline (type 2), the same B-pyramid stream rewritten to POC type 1
// through the writers and the slice fix, and x265 with an open GOP and CRA
// pictures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "qnvutil/picorder.h"
#include "tests/qnvutil/hevc/hevc_test_util.h"
#include "tests/qnvutil/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct AccessUnit {
    uint32_t offset;  // first byte of its first start code
    Bytes bytes;      // Annex B, as in the stream
};

// Access units of an Annex B stream: a new one begins at the first unit
// before a picture's first slice that is not itself a slice (or at that
// slice). A picture's first slice: first_mb_in_slice 0 (H.264, whose first
// slice byte is then at least 0x80), first_slice_segment_in_pic_flag (HEVC).
std::vector<AccessUnit> accessUnits(const Bytes& s, bool hevc) {
    std::vector<AccessUnit> aus;
    uint32_t pending = UINT32_MAX;  // start of non-VCL units waiting for their picture
    bool inPicture = false;
    for (const auto& u : qnvtest::annexBUnits(s)) {
        uint32_t start = u.offset - 3;
        if (start > 0 && s[start - 1] == 0) --start;
        const uint32_t type = hevc ? u.hevcType() : u.bytes[0] & 31u;
        const bool vcl = hevc ? type <= 31 : type >= 1 && type <= 5;
        const bool first = vcl && (hevc ? (u.bytes[2] & 0x80) != 0 : (u.bytes[1] & 0x80) != 0);
        if (!vcl) {
            if (inPicture || pending == UINT32_MAX) pending = start;
            inPicture = false;
            continue;
        }
        if (first) {
            aus.push_back({pending != UINT32_MAX ? pending : start, {}});
            pending = UINT32_MAX;
        }
        inPicture = true;
    }
    for (size_t i = 0; i < aus.size(); ++i) {
        const uint32_t end = i + 1 < aus.size() ? aus[i + 1].offset : static_cast<uint32_t>(s.size());
        aus[i].bytes.assign(s.begin() + aus[i].offset, s.begin() + end);
    }
    return aus;
}

// ffprobe's presentation order as access unit indexes (by packet position).
std::vector<size_t> presentationOrder(const std::string& path, bool hevc, const std::vector<AccessUnit>& aus) {
    std::istringstream lines(qnvtest::runCommand(std::string("ffprobe -v error -f ") + (hevc ? "hevc" : "h264") +
                                                 " -show_frames -show_entries frame=pkt_pos -of csv=p=0 " + path));
    std::vector<size_t> order;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] < '0' || line[0] > '9') continue;  // side data lines
        const long pos = std::strtol(line.c_str(), nullptr, 10);
        size_t k = 0;
        while (k + 1 < aus.size() && aus[k + 1].offset <= static_cast<uint32_t>(pos)) ++k;
        order.push_back(k);
    }
    return order;
}

struct Ordered {
    std::vector<size_t> display;  // access unit indexes in our display order
    std::vector<int32_t> pocs;
    std::vector<uint32_t> flags;
};

// Sorts by (sequence, POC) the units the call does not mark unseen.
template <class Call>
Ordered order(const std::vector<AccessUnit>& aus, Call call) {
    Ordered o;
    PicOrderState state{};
    std::vector<std::pair<std::pair<int, int32_t>, size_t>> keyed;
    int sequence = 0;
    for (size_t i = 0; i < aus.size(); ++i) {
        int32_t poc = 0;
        const uint32_t flags = call(state, aus[i].bytes, &poc);
        EXPECT_NE(flags, QNV_PICORDER_FAILED) << "unit " << i;
        if (flags & QNV_PICORDER_NEW_SEQUENCE) ++sequence;
        o.pocs.push_back(poc);
        o.flags.push_back(flags);
        if (!(flags & (QNV_PICORDER_NOT_OUTPUT | QNV_PICORDER_SECOND_FIELD))) keyed.push_back({{sequence, poc}, i});
    }
    std::stable_sort(keyed.begin(), keyed.end());
    for (const auto& k : keyed) o.display.push_back(k.second);
    return o;
}

// The first SPS and PPS of an H.264 stream.
void readH264Sets(const Bytes& s, H264SpsRecord& sps, H264PpsRecord& pps) {
    bool haveSps = false, havePps = false;
    for (const auto& u : qnvtest::annexBUnits(s)) {
        BitBuffer bb{const_cast<uint8_t*>(u.bytes.data()), uint32_t(u.bytes.size()), uint32_t(u.bytes.size() * 8), 0};
        const uint32_t type = u.bytes[0] & 31u;
        if (type == 7 && !std::exchange(haveSps, true)) qnvutilRead_SPS(&bb, &sps);
        if (type == 8 && !std::exchange(havePps, true)) qnvutilRead_PPS(&bb, &pps);
    }
}

void readHevcSets(const Bytes& s, HevcSpsRecord& sps, HevcPpsRecord& pps) {
    for (const auto& u : qnvtest::annexBUnits(s)) {
        if (u.hevcType() == 33) hevctest::readUnit(qnvutilRead_HEVC_SPS, u.bytes, &sps);
        if (u.hevcType() == 34) hevctest::readUnit(qnvutilRead_HEVC_PPS, u.bytes, &pps);
    }
}

Ordered orderH264(const Bytes& stream, const H264SpsRecord& sps, const H264PpsRecord& pps) {
    return order(accessUnits(stream, false), [&](PicOrderState& st, const Bytes& au, int32_t* poc) {
        return qnvutilPicOrderCount(&st, au.data(), au.size(), 0, &sps, &pps, poc);
    });
}

bool haveFfprobe() { return !qnvtest::runCommand("command -v ffprobe").empty(); }

TEST(PicOrder, H264FollowsTheDecodersPresentationOrder) {
    if (!haveFfprobe()) GTEST_SKIP() << "ffprobe not installed";
    for (const char* name : {"strict", "pyramid", "baseline_small"}) {
        SCOPED_TRACE(name);
        const std::string path = std::string(QNV_TEST_DATA) + "/h264/slices/" + name + ".264";
        const Bytes stream = qnvtest::readData(std::string("h264/slices/") + name + ".264");
        H264SpsRecord sps{};
        H264PpsRecord pps{};
        readH264Sets(stream, sps, pps);
        const auto aus = accessUnits(stream, false);
        const Ordered o = orderH264(stream, sps, pps);
        EXPECT_EQ(o.display, presentationOrder(path, false, aus));
        EXPECT_EQ(sps.pic_order_cnt_type, std::string(name) == "baseline_small" ? 2 : 0);
        EXPECT_TRUE(o.flags[0] & QNV_PICORDER_NEW_SEQUENCE);
    }
}

// The B-pyramid stream as POC type 1: offset_for_ref_frame 4 over a cycle
// of 1, offset_for_non_ref_pic -3, and each picture's delta_pic_order_cnt[0]
// chosen so that its POC is the type-0 one.
TEST(PicOrder, H264PocType1FromTheWritersDecodesInTheSameOrder) {
    if (!haveFfprobe()) GTEST_SKIP() << "ffprobe not installed";
    const Bytes source = qnvtest::readData("h264/slices/pyramid.264");
    H264SpsRecord oldSps{}, sps{};
    H264PpsRecord pps{};
    readH264Sets(source, oldSps, pps);
    const Ordered original = orderH264(source, oldSps, pps);
    sps = oldSps;
    sps.pic_order_cnt_type = 1;
    sps.delta_pic_order_always_zero_flag = 0;
    sps.offset_for_non_ref_pic = 6;  // the code number of -3
    sps.offset_for_top_to_bottom_field = 0;
    sps.num_ref_frames_in_pic_order_cnt_cycle = 1;
    sps.offset_for_ref_frame = 7;  // the code number of 4

    Bytes out;
    PicOrderState state{};
    const auto aus = accessUnits(source, false);
    for (size_t i = 0; i < aus.size(); ++i) {
        // The POC the new SPS gives with a delta of 0, then the delta that
        // brings it to the original.
        auto rewrite = [&](int32_t delta) {
            Bytes au;
            for (const auto& u : qnvtest::annexBUnits(aus[i].bytes)) {
                Bytes unit(u.bytes.size() + QNV_H264_PS_MAX_BYTES);
                uint32_t n = 0;
                H264SliceHeader h;
                BitBuffer bb{const_cast<uint8_t*>(u.bytes.data()), uint32_t(u.bytes.size()), uint32_t(u.bytes.size() * 8), 0};
                const uint32_t type = u.bytes[0] & 31u;
                if (type == 7) {
                    n = qnvutilWrite_SPS(&sps, unit.data());
                } else if (type == 1 || type == 5) {
                    EXPECT_NE(qnvutilRead_SliceHeader(&bb, &oldSps, &pps, &h), 0xFFFFFFFFu);
                    h.delta_pic_order_cnt[0] = delta;
                    n = qnvutilFix_SliceHeader(u.bytes.data(), u.bytes.size(), &h, &sps, &pps, &oldSps, &pps,
                                               unit.data(), unit.size());
                } else {
                    unit = u.bytes;
                    n = u.bytes.size();
                }
                EXPECT_LE(n, unit.size());
                au.insert(au.end(), {0, 0, 0, 1});
                au.insert(au.end(), unit.begin(), unit.begin() + n);
            }
            return au;
        };
        PicOrderState probe = state;
        int32_t expected = 0;
        Bytes au = rewrite(0);
        qnvutilPicOrderCount(&probe, au.data(), au.size(), 0, &sps, &pps, &expected);
        au = rewrite(original.pocs[i] - expected);
        int32_t poc = 0;
        qnvutilPicOrderCount(&state, au.data(), au.size(), 0, &sps, &pps, &poc);
        EXPECT_EQ(poc, original.pocs[i]) << "unit " << i;
        out.insert(out.end(), au.begin(), au.end());
    }
    const qnvtest::TempFile file(out);
    EXPECT_EQ(presentationOrder(file.path(), false, accessUnits(out, false)), original.display);
    EXPECT_EQ(orderH264(out, sps, pps).display, original.display);
}

TEST(PicOrder, HevcFollowsTheDecodersPresentationOrderAcrossCras) {
    if (!haveFfprobe()) GTEST_SKIP() << "ffprobe not installed";
    for (const char* name : {"opengop", "default"}) {
        SCOPED_TRACE(name);
        const std::string path = std::string(QNV_TEST_DATA) + "/hevc/slices/" + name + ".265";
        const Bytes stream = qnvtest::readData(std::string("hevc/slices/") + name + ".265");
        auto sps = std::make_unique<HevcSpsRecord>();
        HevcPpsRecord pps{};
        readHevcSets(stream, *sps, pps);
        const auto aus = accessUnits(stream, true);
        const Ordered o = order(aus, [&](PicOrderState& st, const Bytes& au, int32_t* poc) {
            return qnvutilPicOrderCountHevc(&st, au.data(), au.size(), 0, sps.get(), &pps, poc);
        });
        EXPECT_EQ(o.display, presentationOrder(path, true, aus));
    }
}

// Cut at its first CRA, the open-GOP stream starts with RASL pictures that
// reference pictures before the cut: decoders drop them.
TEST(PicOrder, HevcRaslPicturesOfAStartingCraAreNotOutput) {
    if (!haveFfprobe()) GTEST_SKIP() << "ffprobe not installed";
    const Bytes stream = qnvtest::readData("hevc/slices/opengop.265");
    auto sps = std::make_unique<HevcSpsRecord>();
    HevcPpsRecord pps{};
    Bytes cut;
    readHevcSets(stream, *sps, pps);
    for (const auto& u : qnvtest::annexBUnits(stream)) {
        if (u.hevcType() < 32 || u.hevcType() > 34) continue;
        cut.insert(cut.end(), {0, 0, 0, 1});
        cut.insert(cut.end(), u.bytes.begin(), u.bytes.end());
    }
    const auto aus = accessUnits(stream, true);
    size_t cra = 1;
    while (cra < aus.size() && !std::any_of(aus[cra].bytes.begin(), aus[cra].bytes.end() - 4, [&](const uint8_t& b) {
               const uint8_t* p = &b;
               return p[0] == 0 && p[1] == 0 && p[2] == 1 && ((p[3] >> 1) & 63) == 21;
           }))
        ++cra;
    ASSERT_LT(cra, aus.size());
    for (size_t i = cra; i < aus.size(); ++i) cut.insert(cut.end(), aus[i].bytes.begin(), aus[i].bytes.end());
    const qnvtest::TempFile file(cut);
    const auto cutUnits = accessUnits(cut, true);
    const auto shown = presentationOrder(file.path(), true, cutUnits);
    const Ordered o = order(cutUnits, [&](PicOrderState& st, const Bytes& au, int32_t* poc) {
        return qnvutilPicOrderCountHevc(&st, au.data(), au.size(), 0, sps.get(), &pps, poc);
    });
    EXPECT_EQ(o.display, shown);
    EXPECT_TRUE(o.flags[0] & QNV_PICORDER_NEW_SEQUENCE);
    EXPECT_LT(o.display.size(), cutUnits.size());  // some RASL pictures were left out
}

TEST(PicOrder, RefusesWhatItCannotReadAndKeepsTheState) {
    const Bytes stream = qnvtest::readData("h264/slices/strict.264");
    H264SpsRecord sps{};
    H264PpsRecord pps{};
    readH264Sets(stream, sps, pps);
    PicOrderState state{};
    state.prevPicOrderCntLsb = 7;
    int32_t poc = 0;
    const Bytes noSlice = {0, 0, 0, 1, 0x09, 0xF0};
    EXPECT_EQ(qnvutilPicOrderCount(&state, noSlice.data(), noSlice.size(), 0, &sps, &pps, &poc), QNV_PICORDER_FAILED);
    H264PpsRecord otherPps = pps;
    otherPps.pic_parameter_set_id = 3;
    const auto aus = accessUnits(stream, false);
    EXPECT_EQ(qnvutilPicOrderCount(&state, aus[1].bytes.data(), aus[1].bytes.size(), 0, &sps, &otherPps, &poc),
              QNV_PICORDER_FAILED);
    EXPECT_EQ(state.prevPicOrderCntLsb, 7);
    EXPECT_EQ(qnvutilPicOrderCount(nullptr, noSlice.data(), noSlice.size(), 0, &sps, &pps, &poc), QNV_PICORDER_FAILED);
}

}  // namespace
