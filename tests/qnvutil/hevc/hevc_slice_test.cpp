// The HEVC slice segment header reader against ffmpeg's trace_headers on
// x265 streams (fixtures made by tests/data/hevc/make_slice_fixtures.sh):
// default B-frames, an open GOP with CRA and RASL pictures, weighted
// prediction, and wavefront entry points with two slices.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "qnvutil/hevc.h"
#include "qnvutil/hevc/hevc_slice.h"
#include "tests/qnvutil/hevc/hevc_test_util.h"
#include "tests/qnvutil/test_util.h"

namespace {

using qnv::hevc::HevcSliceHeader;

// Kept elements as "pos name[i][j] value", in trace_headers' names.
class Collect : public qnv::syntax::FieldSink {
public:
    std::vector<std::string> lines;
    void field(uint32_t pos, const qnv::syntax::Name& name, int64_t value, int32_t width, bool kept) override {
        if (!kept || width == 0) return;
        std::string n = name.text;
        if (n.rfind("delta_chroma_offset_", 0) == 0) n = n.substr(6);  // ffmpeg's chroma_offset_lX
        if (name.i >= 0) n += "[" + std::to_string(name.i) + "]";
        if (name.j >= 0) n += "[" + std::to_string(name.j) + "]";
        lines.push_back(std::to_string(pos) + " " + n + " " + std::to_string(value));
    }
};

// The header ends after byte_alignment(); entry point offsets are not kept.
std::vector<qnvtest::TracedHeader> loadTrace(const std::string& name) {
    return qnvtest::loadHeaderTrace(
        "hevc/slices/" + name + ".ref",
        [](const std::string& e) {
            return e.rfind("alignment_bit", 0) == 0 || e.rfind("entry_point_offset_minus1", 0) == 0;
        },
        true);
}

TEST(HevcSliceHeader, ReadsEveryElementAsTraceHeadersDoes) {
    for (const std::string name : {"default", "opengop", "weighted", "wpp_slices"}) {
        SCOPED_TRACE(name);
        const auto traced = loadTrace(name);
        const std::string path = "hevc/slices/" + name + ".265";
        std::map<uint32_t, HevcSpsRecord> sps;
        std::map<uint32_t, HevcPpsRecord> pps;
        HevcSliceHeader h{};
        size_t k = 0;
        for (const auto& u : qnvtest::annexBUnits(qnvtest::readData(path))) {
            const uint32_t type = u.hevcType();
            if (type == 33) {
                HevcSpsRecord r{};
                hevctest::readUnit(qnvutilRead_HEVC_SPS, u.bytes, &r);
                sps[r.sps_seq_parameter_set_id] = r;
            } else if (type == 34) {
                HevcPpsRecord r{};
                hevctest::readUnit(qnvutilRead_HEVC_PPS, u.bytes, &r);
                pps[r.pps_pic_parameter_set_id] = r;
            } else if (type <= 21) {
                ASSERT_LT(k, traced.size());
                const HevcPpsRecord& p = pps.begin()->second;
                Collect seen;
                ASSERT_EQ(qnv::hevc::readSliceSegmentHeader(u.bytes.data(), u.bytes.size(), sps.at(p.pps_seq_parameter_set_id),
                                                            p, h, &seen),
                          qnv::hevc::SliceRead::kOk)
                    << "segment " << k;
                EXPECT_EQ(seen.lines, traced[k].lines) << "segment " << k;
                EXPECT_EQ(h.header_bits, traced[k].end) << "segment " << k;
                ++k;
            }
        }
        EXPECT_EQ(k, traced.size());
    }
}

TEST(HevcSliceHeader, RefusesWhatItCannotRead) {
    std::map<uint32_t, HevcSpsRecord> sps;
    HevcPpsRecord pps{};
    std::vector<uint8_t> slice;
    for (const auto& u : qnvtest::annexBUnits(qnvtest::readData("hevc/slices/default.265"))) {
        if (u.hevcType() == 33) hevctest::readUnit(qnvutilRead_HEVC_SPS, u.bytes, &sps[0]);
        if (u.hevcType() == 34) hevctest::readUnit(qnvutilRead_HEVC_PPS, u.bytes, &pps);
        if (u.hevcType() == 1 && slice.empty()) slice = u.bytes;
    }
    HevcSliceHeader h{};
    ASSERT_EQ(qnv::hevc::readSliceSegmentHeader(slice.data(), slice.size(), sps[0], pps, h), qnv::hevc::SliceRead::kOk);
    HevcSpsRecord hugeCtb = sps[0];
    hugeCtb.log2_diff_max_min_luma_coding_block_size = 9;
    const std::vector<uint8_t> cut(slice.begin(), slice.begin() + 4), vps = {0x40, 0x01, 0x0C};
    struct Case {
        const char* what;
        const std::vector<uint8_t>* unit;
        const HevcSpsRecord* sps;
    } cases[] = {{"header cut short", &cut, &sps[0]}, {"not a VCL unit", &vps, &sps[0]}, {"CTB size no stream has", &slice, &hugeCtb}};
    for (const auto& c : cases)
        EXPECT_EQ(qnv::hevc::readSliceSegmentHeader(c.unit->data(), c.unit->size(), *c.sps, pps, h),
                  qnv::hevc::SliceRead::kFailed)
            << c.what;
}

}  // namespace
