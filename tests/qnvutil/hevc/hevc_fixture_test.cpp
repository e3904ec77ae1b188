// HEVC parameter sets of x265 streams against ffmpeg's trace_headers values
// (tests/data/hevc/make_fixtures.sh), and the writers' byte-exact round trip
// (a stream with its sets written back is the same stream, so it decodes as
// the original does).
#include <gtest/gtest.h>

#include <bitset>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "qnvutil/hevc/hevc_internal.h"
#include "tests/qnvutil/hevc/hevc_test_util.h"

using namespace hevctest;
using qnv::hevc::FieldSink;
using qnv::hevc::Name;

namespace {

const char* const kStreams[] = {"main",      "main10",  "main422_10",     "main444",  "hrd",
                                "wpp",       "nowpp",   "temporal",       "interlace", "scaling",
                                "scaling_custom", "lossless", "repeat",   "vui",      "rps"};

// Units that hold structures the records do not keep: custom scaling lists,
// VPS HRD parameters.
bool lossy(const std::string& stream, uint32_t type) {
    return (stream == "scaling_custom" && type == 33) || (stream == "rps" && type == 32);
}

struct TraceEntry {
    uint32_t pos;
    std::string name, bits;
    int64_t value;
};
struct TraceSection {
    std::string kind;
    std::vector<TraceEntry> entries;
};

std::vector<TraceSection> loadTrace(const std::string& stream) {
    std::ifstream in(std::string(QNV_TEST_DATA) + "/hevc/" + stream + ".trace");
    std::vector<TraceSection> sections;
    for (std::string line; std::getline(in, line);) {
        if (line == "VPS" || line == "SPS" || line == "PPS") {
            sections.push_back({line, {}});
            continue;
        }
        std::istringstream f(line);
        TraceEntry e;
        f >> e.pos >> e.name >> e.bits >> e.value;
        if (!sections.empty()) sections.back().entries.push_back(e);
    }
    return sections;
}

// A trace element's name without its index, in the records' spelling.
std::string fieldName(const std::string& element) {
    const std::string name = element.substr(0, element.find('['));
    if (name == "matrix_coefficients") return "matrix_coeffs";
    return name == "scaling_list_delta_coeff" ? "scaling_list_delta_coef" : name;
}

struct Field {
    uint32_t pos;
    std::string name;
    int64_t value;
    int32_t width;
    bool kept;
};
class Collect : public FieldSink {
public:
    std::vector<Field> fields;
    void field(uint32_t pos, const Name& name, int64_t value, int32_t width, bool kept) override {
        fields.push_back({pos, name.text, value, width, kept});
    }
};

// Every field must stand at the same bit position as a trace element of the
// same name and value; fields that ffmpeg splits into several elements (the
// compatibility and constraint flags) must equal the trace's bits there.
void compareWithTrace(const std::vector<Field>& fields, const TraceSection& trace, bool keptOnly,
                      const std::string& where) {
    std::map<uint32_t, const TraceEntry*> at;
    std::string bits;  // all bits of the unit, by position
    for (const TraceEntry& e : trace.entries) {
        at.emplace(e.pos, &e);
        if (bits.size() < e.pos + e.bits.size()) bits.resize(e.pos + e.bits.size(), '?');
        bits.replace(e.pos, e.bits.size(), e.bits);
    }
    size_t compared = 0;
    for (const Field& f : fields) {
        if (keptOnly && !f.kept) continue;
        auto it = at.find(f.pos);
        ASSERT_NE(it, at.end()) << where << ": no element at bit " << f.pos << " for " << f.name;
        const TraceEntry& e = *it->second;
        if (fieldName(e.name) == f.name) {
            EXPECT_EQ(e.value, f.value) << where << ": " << f.name << " at bit " << f.pos;
        } else {
            ASSERT_GT(f.width, 0) << where << ": " << f.name << " at bit " << f.pos << " meets " << e.name;
            ASSERT_LE(f.pos + f.width, bits.size()) << where << ": " << f.name;
            EXPECT_EQ(bits.substr(f.pos, f.width), std::bitset<64>(f.value).to_string().substr(64 - f.width))
                << where << ": " << f.name << " at bit " << f.pos;
        }
        ++compared;
    }
    EXPECT_GT(compared, 10u) << where;
}

struct Parsed {
    HevcVpsRecord vps{};
    HevcSpsRecord sps{};
    HevcPpsRecord pps{};
};

// Reads one parameter-set unit into a cleared record of its kind and writes
// it back, listing the fields written to `sink`; returns the written unit.
std::vector<uint8_t> readAndWrite(const std::vector<uint8_t>& unit, Parsed& p, uint32_t* consumed,
                                  FieldSink* sink = nullptr) {
    std::vector<uint8_t> out(QNV_HEVC_PS_MAX_BYTES);
    BitBuffer used{};
    uint32_t n = 0;
    const uint32_t type = (unit[0] >> 1) & 63;
    if (type == 32) {
        *consumed = readUnit(qnvutilRead_HEVC_VPS, unit, &(p.vps = HevcVpsRecord{}), nullptr, &used);
        n = qnv::hevc::writeVps(p.vps, out.data(), QNV_HEVC_PS_MAX_BYTES, sink);
    } else if (type == 33) {
        *consumed = readUnit(qnvutilRead_HEVC_SPS, unit, &(p.sps = HevcSpsRecord{}), nullptr, &used);
        n = qnv::hevc::writeSps(p.sps, out.data(), QNV_HEVC_PS_MAX_BYTES, sink);
    } else {
        *consumed = readUnit(qnvutilRead_HEVC_PPS, unit, &(p.pps = HevcPpsRecord{}), nullptr, &used);
        n = qnv::hevc::writePps(p.pps, out.data(), QNV_HEVC_PS_MAX_BYTES, sink);
    }
    EXPECT_EQ(used.bitPos, unit.size() * 8);
    out.resize(n);
    return out;
}

bool isParameterSet(const Unit& u) { return u.hevcType() >= 32 && u.hevcType() <= 34; }

}  // namespace

TEST(HevcFixtures, ParameterSetsMatchTraceAndWriteBack) {
    for (const char* name : kStreams) {
        const std::string stream = name;
        std::vector<uint8_t> data = readFixture(stream + ".265");
        ASSERT_FALSE(data.empty()) << stream;
        std::vector<TraceSection> trace = loadTrace(stream);
        size_t section = 0;
        for (const Unit& u : annexBUnits(data)) {
            if (!isParameterSet(u)) continue;
            const std::string where = stream + " unit at " + std::to_string(u.offset);
            ASSERT_LT(section, trace.size()) << where;
            const TraceSection& t = trace[section++];
            ASSERT_EQ(t.kind, std::string(u.hevcType() == 32 ? "VPS" : u.hevcType() == 33 ? "SPS" : "PPS")) << where;

            Collect listing, written;
            qnv::hevc::listParameterSet(u.bytes.data(), static_cast<uint32_t>(u.bytes.size()), listing);
            compareWithTrace(listing.fields, t, false, where + " (read)");
            LogCapture log;
            Parsed p, again;
            uint32_t consumed = 0;
            const std::vector<uint8_t> out = readAndWrite(u.bytes, p, &consumed, &written);
            EXPECT_TRUE(log.lines.empty()) << where << ": " << (log.lines.empty() ? "" : log.lines[0]);
            EXPECT_NE(consumed, 0xFFFFFFFFu) << where;
            if (!lossy(stream, u.hevcType())) {
                EXPECT_EQ(out, u.bytes) << where << ": write(read(unit)) differs";
                compareWithTrace(written.fields, t, true, where + " (record)");
                continue;
            }
            // The shorter unit must still read back to the same record.
            readAndWrite(out, again, &consumed);
            EXPECT_LT(out.size(), u.bytes.size()) << where;
            if (u.hevcType() == 32) {
                EXPECT_EQ(std::memcmp(&p.vps, &again.vps, sizeof p.vps), 0) << where;
                // The count, not the coded minus-one; entry 0 stores 1.
                EXPECT_EQ(std::vector<uint32_t>({p.vps.vps_num_ticks_poc_diff_one, p.vps.cprms_present_flag,
                                                 p.vps.vps_max_dec_pic_buffering_minus1}),
                          std::vector<uint32_t>({2, 1, 4}));
            } else {
                p.sps.scaling_list_pred_matrix_id_delta = again.sps.scaling_list_pred_matrix_id_delta;
                p.sps.scaling_list_dc_coef_minus8 = again.sps.scaling_list_dc_coef_minus8;
                p.sps.scaling_list_delta_coef = again.sps.scaling_list_delta_coef;
                EXPECT_EQ(std::memcmp(&p.sps, &again.sps, sizeof p.sps), 0) << where;
            }
        }
        EXPECT_EQ(section, trace.size()) << stream;
    }
}
