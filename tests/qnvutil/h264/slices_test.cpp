// The H.264 writers and slice header functions on x264 streams
// (tests/data/h264/make_slice_fixtures.sh): parameter sets written back
// byte for byte, slice headers read as ffmpeg's trace_headers reads them,
// fixed slices that keep their data bit for bit, and a renumbered stream
// that decodes to the same pictures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "qnvutil/h264.h"
#include "qnvutil/h264/slices.h"
#include "tests/qnvutil/test_util.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char* const kParameterSetFixtures[] = {
    "baseline",     "main_1080_slices", "high_vui",      "high_sar_hrd_cbr",     "high_hrd_vbr_cqm",
    "high_cqm_jvt", "high10_mbaff",     "high422_paff",  "high444_lossless_odd", "slices/pyramid",
    "slices/strict", "slices/mbaff",    "slices/baseline_small"};
const char* const kSliceFixtures[] = {"pyramid", "strict", "mbaff", "baseline_small"};

uint32_t typeOf(const qnvtest::Unit& u) { return u.bytes.empty() ? 0 : u.bytes[0] & 31u; }

BitBuffer bitsOf(const Bytes& b) {
    return BitBuffer{const_cast<uint8_t*>(b.data()), static_cast<uint32_t>(b.size()),
                     static_cast<uint32_t>(b.size() * 8), 0};
}

// The stream's parameter sets (by id) and its slice units, in order.
struct Stream {
    std::map<int32_t, H264SpsRecord> sps;
    std::map<int32_t, H264PpsRecord> pps;
    std::vector<qnvtest::Unit> units;
};

Stream load(const std::string& path) {
    Stream s;
    s.units = qnvtest::annexBUnits(qnvtest::readData(path));
    for (const auto& u : s.units) {
        BitBuffer bb = bitsOf(u.bytes);
        if (typeOf(u) == 7) {
            H264SpsRecord r{};
            qnvutilRead_SPS(&bb, &r);
            s.sps[r.seq_parameter_set_id] = r;
        } else if (typeOf(u) == 8) {
            H264PpsRecord r{};
            qnvutilRead_PPS(&bb, &r);
            s.pps[r.pic_parameter_set_id] = r;
        }
    }
    return s;
}

TEST(H264Writers, WriteOfReadGivesTheUnitBackOnEveryFixture) {
    for (const char* name : kParameterSetFixtures) {
        SCOPED_TRACE(name);
        int units = 0;
        for (const auto& u : qnvtest::annexBUnits(qnvtest::readData(std::string("h264/") + name + ".264"))) {
            const uint32_t type = typeOf(u);
            if (type != 7 && type != 8) continue;
            ++units;
            Bytes out(QNV_H264_PS_MAX_BYTES);
            BitBuffer bb = bitsOf(u.bytes);
            uint32_t length = 0;
            if (type == 7) {
                H264SpsRecord r{}, again{};
                qnvutilRead_SPS(&bb, &r);
                length = qnvutilWrite_SPS(&r, out.data());
                BitBuffer back{out.data(), length, length * 8, 0};
                qnvutilRead_SPS(&back, &again);
                EXPECT_EQ(std::memcmp(&r, &again, sizeof r), 0);
            } else {
                H264PpsRecord r{}, again{};
                qnvutilRead_PPS(&bb, &r);
                length = qnvutilWrite_PPS(&r, out.data());
                BitBuffer back{out.data(), length, length * 8, 0};
                qnvutilRead_PPS(&back, &again);
                EXPECT_EQ(std::memcmp(&r, &again, sizeof r), 0);
            }
            out.resize(length);
            EXPECT_EQ(out, u.bytes) << "unit type " << type;
        }
        EXPECT_GE(units, 2);
    }
}

TEST(H264Writers, PocType1CycleIsWrittenWholeWithItsKeptOffset) {
    H264SpsRecord sps{};
    sps.nal_ref_idc = 3;
    sps.nal_unit_type = 7;
    sps.profile_idc = 77;
    sps.pic_order_cnt_type = 1;
    sps.offset_for_non_ref_pic = 2;  // the code number of -1
    sps.num_ref_frames_in_pic_order_cnt_cycle = 3;
    sps.offset_for_ref_frame = 6;
    uint8_t out[QNV_H264_PS_MAX_BYTES];
    const uint32_t n = qnvutilWrite_SPS(&sps, out);
    ASSERT_GT(n, 0u);
    H264SpsRecord back{};
    BitBuffer bb{out, n, n * 8, 0};
    qnvutilRead_SPS(&bb, &back);
    for (auto* r : {&sps, &back}) {  // the defaults a main-profile SPS reads with
        r->chroma_format_idc = 1;
        r->bit_depth_luma_minus8 = r->bit_depth_chroma_minus8 = 8;
        r->rbsp_stop_one_bit = 1;
    }
    EXPECT_EQ(std::memcmp(&sps, &back, sizeof sps), 0);
    EXPECT_EQ(n, 9u);  // 72 bits with three 5-bit offsets; one would give 62
}

TEST(H264Writers, RefuseRecordsOutsideTheStandardsRanges) {
    H264SpsRecord sps{};
    sps.nal_ref_idc = 3;
    sps.nal_unit_type = 7;
    sps.profile_idc = 100;
    sps.chroma_format_idc = 1;
    uint8_t out[QNV_H264_PS_MAX_BYTES];
    EXPECT_GT(qnvutilWrite_SPS(&sps, out), 0u);
    for (auto edit : {+[](H264SpsRecord& s) { s.seq_parameter_set_id = 32; },
                      +[](H264SpsRecord& s) { s.chroma_format_idc = 4; },
                      +[](H264SpsRecord& s) { s.pic_order_cnt_type = 3; },
                      +[](H264SpsRecord& s) { s.log2_max_frame_num_minus4 = 13; }}) {
        H264SpsRecord bad = sps;
        edit(bad);
        EXPECT_EQ(qnvutilWrite_SPS(&bad, out), 0u);
    }
    H264PpsRecord pps{};
    pps.nal_unit_type = 8;
    EXPECT_GT(qnvutilWrite_PPS(&pps, out), 0u);
    pps.num_slice_groups_minus1 = 8;  // run_length_minus1 holds eight groups
    EXPECT_EQ(qnvutilWrite_PPS(&pps, out), 0u);
    EXPECT_EQ(qnvutilWrite_PPS(nullptr, out), 0u);
    EXPECT_EQ(qnvutilWrite_SPS(&sps, nullptr), 0u);
}

// Elements the reader's sink sees, printed as trace_headers names them.
class Collect : public qnv::syntax::FieldSink {
public:
    std::vector<std::string> lines;
    void field(uint32_t pos, const qnv::syntax::Name& name, int64_t value, int32_t, bool kept) override {
        if (!kept) return;
        static const std::set<std::string> kUnindexed = {
            "modification_of_pic_nums_idc", "abs_diff_pic_num_minus1",       "long_term_pic_num",
            "memory_management_control_operation", "difference_of_pic_nums_minus1", "long_term_frame_idx",
            "max_long_term_frame_idx_plus1"};
        std::string n = name.text;
        if (name.i >= 0 && !kUnindexed.count(n)) n += "[" + std::to_string(name.i) + "]";
        if (name.j >= 0) n += "[" + std::to_string(name.j) + "]";
        lines.push_back(std::to_string(pos) + " " + n + " " + std::to_string(value));
    }
};

// The header ends before the CABAC alignment bits, which belong to the data.
std::vector<qnvtest::TracedHeader> loadSliceTrace(const std::string& name) {
    return qnvtest::loadHeaderTrace(
        "h264/slices/" + name + ".ref", [](const std::string& e) { return e == "cabac_alignment_one_bit"; }, false);
}

TEST(H264SliceHeader, ReadsEveryElementAsTraceHeadersDoes) {
    for (const char* name : kSliceFixtures) {
        SCOPED_TRACE(name);
        const Stream s = load(std::string("h264/slices/") + name + ".264");
        const auto traced = loadSliceTrace(name);
        size_t k = 0;
        for (const auto& u : s.units) {
            if (typeOf(u) != 1 && typeOf(u) != 5) continue;
            ASSERT_LT(k, traced.size());
            Collect seen;
            H264SliceHeader h;
            BitBuffer bb = bitsOf(u.bytes);
            const H264PpsRecord& pps = s.pps.begin()->second;
            const uint32_t bits = qnv::readSliceHeader(&bb, &s.sps.at(pps.seq_parameter_set_id), &pps, &h, &seen);
            EXPECT_EQ(seen.lines, traced[k].lines) << "slice " << k;
            EXPECT_EQ(bits, traced[k].end) << "slice " << k;
            EXPECT_EQ(h.header_bits, static_cast<int32_t>(bits));
            ++k;
        }
        EXPECT_EQ(k, traced.size());
    }
}

TEST(H264SliceHeader, RefusesUnitsItCannotRead) {
    const Stream s = load("h264/slices/pyramid.264");
    const H264SpsRecord& sps = s.sps.begin()->second;
    const H264PpsRecord& pps = s.pps.begin()->second;
    const qnvtest::Unit* slice = nullptr;
    for (const auto& u : s.units)
        if (typeOf(u) == 5) slice = &u;
    ASSERT_NE(slice, nullptr);
    H264SliceHeader h;
    BitBuffer bb = bitsOf(slice->bytes);
    ASSERT_NE(qnvutilRead_SliceHeader(&bb, &sps, &pps, &h), qnv::kSliceFailed);

    H264PpsRecord otherId = pps;
    otherId.pic_parameter_set_id = 1;
    H264SpsRecord badFrameNum = sps;
    badFrameNum.log2_max_frame_num_minus4 = 40;
    Bytes cut(slice->bytes.begin(), slice->bytes.begin() + 3);
    Bytes sps0 = s.units[0].bytes;  // not a slice
    struct Case {
        const char* what;
        const Bytes* unit;
        const H264SpsRecord* sps;
        const H264PpsRecord* pps;
    } cases[] = {{"PPS id differs", &slice->bytes, &sps, &otherId},
                 {"frame_num length no stream has", &slice->bytes, &badFrameNum, &pps},
                 {"header cut short", &cut, &sps, &pps},
                 {"not a slice", &sps0, &sps, &pps},
                 {"no SPS", &slice->bytes, nullptr, &pps}};
    for (const auto& c : cases) {
        BitBuffer b = bitsOf(*c.unit);
        EXPECT_EQ(qnvutilRead_SliceHeader(&b, c.sps, c.pps, &h), qnv::kSliceFailed) << c.what;
    }
}

// The bits of an unescaped unit from `from` on, as '0'/'1' text, up to the
// last set bit (the stop bit) or to the end.
std::string bitsFrom(const Bytes& unit, uint32_t from, bool toStopBit) {
    Bytes rbsp;
    int zeros = 0;
    for (uint8_t b : unit) {
        if (zeros >= 2 && b == 3) {
            zeros = 0;
            continue;
        }
        zeros = b == 0 ? zeros + 1 : 0;
        rbsp.push_back(b);
    }
    std::string bits;
    for (uint8_t b : rbsp)
        for (int i = 7; i >= 0; --i) bits += (b >> i & 1) ? '1' : '0';
    if (toStopBit) bits.resize(bits.rfind('1'));
    return bits.substr(from);
}

TEST(H264SliceHeader, FixKeepsSliceDataBitExact) {
    for (const char* name : kSliceFixtures) {
        SCOPED_TRACE(name);
        const Stream s = load(std::string("h264/slices/") + name + ".264");
        const H264PpsRecord& pps = s.pps.begin()->second;
        const H264SpsRecord& sps = s.sps.at(pps.seq_parameter_set_id);
        const bool cabac = pps.entropy_coding_mode_flag == 1;
        for (const auto& u : s.units) {
            if (typeOf(u) != 1 && typeOf(u) != 5) continue;
            H264SliceHeader h;
            BitBuffer bb = bitsOf(u.bytes);
            const uint32_t oldBits = qnvutilRead_SliceHeader(&bb, &sps, &pps, &h);
            ASSERT_NE(oldBits, qnv::kSliceFailed);
            Bytes out(u.bytes.size() + 64);
            // The same header gives the same unit.
            uint32_t n = qnvutilFix_SliceHeader(u.bytes.data(), u.bytes.size(), &h, &sps, &pps, nullptr, nullptr, out.data(),
                                                out.size());
            ASSERT_EQ(n, u.bytes.size());
            EXPECT_TRUE(std::equal(u.bytes.begin(), u.bytes.end(), out.begin()));

            // A longer header moves CAVLC data by whole bits; CABAC data
            // keeps its bytes behind new alignment bits.
            H264SliceHeader changed = h;
            if (sps.pic_order_cnt_type == 0)
                changed.pic_order_cnt_lsb = (h.pic_order_cnt_lsb + 5) % (1 << (sps.log2_max_pic_order_cnt_lsb_minus4 + 4));
            changed.slice_qp_delta = h.slice_qp_delta + 7;
            if (h.nal_unit_type == 5) changed.idr_pic_id = 1000;
            n = qnvutilFix_SliceHeader(u.bytes.data(), u.bytes.size(), &changed, &sps, &pps, nullptr, nullptr, out.data(),
                                       out.size());
            ASSERT_LT(n, out.size());
            Bytes fixed(out.begin(), out.begin() + n);
            H264SliceHeader again;
            BitBuffer fb = bitsOf(fixed);
            const uint32_t newBits = qnvutilRead_SliceHeader(&fb, &sps, &pps, &again);
            ASSERT_NE(newBits, qnv::kSliceFailed);
            changed.header_bits = again.header_bits;
            EXPECT_EQ(std::memcmp(&again, &changed, sizeof again), 0);
            const uint32_t oldData = cabac ? (oldBits + 7) / 8 * 8 : oldBits;
            const uint32_t newData = cabac ? (newBits + 7) / 8 * 8 : newBits;
            EXPECT_EQ(bitsFrom(u.bytes, oldData, !cabac), bitsFrom(fixed, newData, !cabac));

            // Without room: -102 and nothing past the capacity.
            Bytes small(n - 1 + 8, 0xEE);
            EXPECT_EQ(qnvutilFix_SliceHeader(u.bytes.data(), u.bytes.size(), &changed, &sps, &pps, nullptr, nullptr,
                                             small.data(), n - 1),
                      qnv::kSliceNoRoom);
            EXPECT_EQ(small[n - 1], 0xEE);
        }
    }
}

// Renumbers the stream's SPS to id 3 and PPS to id 5 through the writers and
// the slice fix.
Bytes renumbered(const std::string& path) {
    const Stream s = load(path);
    const H264PpsRecord oldPps = s.pps.begin()->second;
    H264SpsRecord sps = s.sps.at(oldPps.seq_parameter_set_id);
    H264PpsRecord pps = oldPps;
    sps.seq_parameter_set_id = 3;
    pps.seq_parameter_set_id = 3;
    pps.pic_parameter_set_id = 5;
    Bytes stream;
    for (const auto& u : s.units) {
        Bytes unit(u.bytes.size() + QNV_H264_PS_MAX_BYTES);
        uint32_t n = 0;
        BitBuffer bb = bitsOf(u.bytes);
        H264SliceHeader h;
        switch (typeOf(u)) {
            case 7: n = qnvutilWrite_SPS(&sps, unit.data()); break;
            case 8: n = qnvutilWrite_PPS(&pps, unit.data()); break;
            case 1: case 5:
                if (qnvutilRead_SliceHeader(&bb, &s.sps.at(oldPps.seq_parameter_set_id), &oldPps, &h) ==
                    qnv::kSliceFailed)
                    return {};
                h.pic_parameter_set_id = 5;
                n = qnvutilFix_SliceHeader(u.bytes.data(), u.bytes.size(), &h, &sps, &pps, nullptr, &oldPps, unit.data(),
                                           unit.size());
                break;
            default: unit = u.bytes; n = u.bytes.size();
        }
        if (n == 0 || n > unit.size()) return {};
        stream.insert(stream.end(), {0, 0, 0, 1});
        stream.insert(stream.end(), unit.begin(), unit.begin() + n);
    }
    return stream;
}

TEST(H264SliceHeader, RenumberedStreamDecodesToTheSamePictures) {
    if (qnvtest::runCommand("command -v ffmpeg").empty()) GTEST_SKIP() << "ffmpeg not installed";
    for (const char* name : {"pyramid", "baseline_small", "mbaff"}) {
        SCOPED_TRACE(name);
        const std::string source = std::string(QNV_TEST_DATA) + "/h264/slices/" + name + ".264";
        const Bytes out = renumbered(std::string("h264/slices/") + name + ".264");
        ASSERT_FALSE(out.empty());
        const qnvtest::TempFile file(out);
        auto md5 = [](const std::string& path) {
            return qnvtest::runCommand("ffmpeg -v error -f h264 -i " + path + " -f framemd5 - 2>&1 | grep -v '^#'");
        };
        const std::string expected = md5(source), got = md5(file.path());
        EXPECT_FALSE(expected.empty());
        EXPECT_EQ(got, expected);
        EXPECT_NE(out, qnvtest::readData(std::string("h264/slices/") + name + ".264"));  // ids did change
    }
}

}  // namespace
