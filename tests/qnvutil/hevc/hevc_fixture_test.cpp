// HEVC parameter sets of x265 streams against ffmpeg's trace_headers values
// (tests/data/hevc/make_fixtures.sh), the writers' round trip, the decode
// check of spliced streams (when ffmpeg is installed) and the 'hvcC' box of
// an ffmpeg-muxed MP4.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>

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
    std::vector<uint8_t> text = readFixture(stream + ".trace");
    std::istringstream in(std::string(text.begin(), text.end()));
    std::vector<TraceSection> sections;
    std::string line;
    while (std::getline(in, line)) {
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

std::string baseName(const std::string& name) { return name.substr(0, name.find('[')); }

// The standard's names where ffmpeg spells them otherwise.
std::string traceAlias(const std::string& name) {
    if (name == "matrix_coefficients") return "matrix_coeffs";
    if (name == "scaling_list_delta_coeff") return "scaling_list_delta_coef";
    return name;
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
        if (traceAlias(baseName(e.name)) == f.name) {
            EXPECT_EQ(e.value, f.value) << where << ": " << f.name << " at bit " << f.pos;
        } else {
            ASSERT_GT(f.width, 0) << where << ": " << f.name << " at bit " << f.pos << " meets " << e.name;
            ASSERT_LE(f.pos + f.width, bits.size()) << where << ": " << f.name;
            std::string ours;
            for (int32_t k = f.width - 1; k >= 0; --k) ours += ((uint64_t(f.value) >> k) & 1) ? '1' : '0';
            EXPECT_EQ(bits.substr(f.pos, f.width), ours) << where << ": " << f.name << " at bit " << f.pos;
        }
        ++compared;
    }
    EXPECT_GT(compared, 10u) << where;
}

std::vector<Field> readListing(const std::vector<uint8_t>& unit) {
    Collect sink;
    qnv::hevc::listParameterSet(unit.data(), static_cast<uint32_t>(unit.size()), sink);
    return sink.fields;
}

struct Parsed {
    HevcVpsRecord vps{};
    HevcSpsRecord sps{};
    HevcPpsRecord pps{};
};

// Reads one parameter-set unit into a cleared record of its kind and writes
// it back; returns the written unit.
std::vector<uint8_t> readAndWrite(const Unit& u, Parsed& p, uint32_t* consumed, std::vector<Field>* written) {
    std::vector<uint8_t> bytes(u.bytes);
    bytes.push_back(0);
    BitBuffer bb{bytes.data(), static_cast<uint32_t>(bytes.size()), static_cast<uint32_t>(u.bytes.size() * 8), 0};
    const uint32_t bits = static_cast<uint32_t>(u.bytes.size() * 8);
    std::vector<uint8_t> out(QNV_HEVC_PS_MAX_BYTES);
    Collect sink;
    uint32_t n = 0;
    if (u.type() == 32) {
        p.vps = HevcVpsRecord{};
        *consumed = qnvutilRead_HEVC_VPS(&bb, &p.vps, nullptr, bits);
        n = qnv::hevc::writeVps(p.vps, out.data(), QNV_HEVC_PS_MAX_BYTES, &sink);
    } else if (u.type() == 33) {
        p.sps = HevcSpsRecord{};
        *consumed = qnvutilRead_HEVC_SPS(&bb, &p.sps, nullptr, bits);
        n = qnv::hevc::writeSps(p.sps, out.data(), QNV_HEVC_PS_MAX_BYTES, &sink);
    } else {
        p.pps = HevcPpsRecord{};
        *consumed = qnvutilRead_HEVC_PPS(&bb, &p.pps, nullptr, bits);
        n = qnv::hevc::writePps(p.pps, out.data(), QNV_HEVC_PS_MAX_BYTES, &sink);
    }
    EXPECT_EQ(bb.bitPos, bits);
    out.resize(n);
    if (written) *written = sink.fields;
    return out;
}

bool isParameterSet(const Unit& u) { return u.type() >= 32 && u.type() <= 34; }

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
            ASSERT_EQ(t.kind, std::string(u.type() == 32 ? "VPS" : u.type() == 33 ? "SPS" : "PPS")) << where;

            compareWithTrace(readListing(u.bytes), t, false, where + " (read)");

            LogCapture log;
            Parsed p;
            uint32_t consumed = 0;
            std::vector<Field> written;
            std::vector<uint8_t> out = readAndWrite(u, p, &consumed, &written);
            EXPECT_TRUE(log.lines.empty()) << where << ": " << (log.lines.empty() ? "" : log.lines[0]);
            EXPECT_NE(consumed, 0xFFFFFFFFu) << where;
            if (lossy(stream, u.type())) {
                // The unit must still read back to the same record.
                Parsed again;
                readAndWrite(Unit{0, out}, again, &consumed, nullptr);
                EXPECT_LT(out.size(), u.bytes.size()) << where;
                if (u.type() == 32) {
                    EXPECT_EQ(std::memcmp(&p.vps, &again.vps, sizeof p.vps), 0) << where;
                    EXPECT_EQ(p.vps.vps_num_ticks_poc_diff_one, 2u);  // the count, not the coded minus-one
                    EXPECT_EQ(p.vps.cprms_present_flag, 1u);         // entry 0 stores 1
                    EXPECT_EQ(p.vps.vps_max_dec_pic_buffering_minus1, 4u);
                }
                if (u.type() == 33) {
                    p.sps.scaling_list_pred_matrix_id_delta = again.sps.scaling_list_pred_matrix_id_delta;
                    p.sps.scaling_list_dc_coef_minus8 = again.sps.scaling_list_dc_coef_minus8;
                    p.sps.scaling_list_delta_coef = again.sps.scaling_list_delta_coef;
                    EXPECT_EQ(std::memcmp(&p.sps, &again.sps, sizeof p.sps), 0) << where;
                }
                continue;
            }
            EXPECT_EQ(out, u.bytes) << where << ": write(read(unit)) differs";
            compareWithTrace(written, t, true, where + " (record)");
        }
        EXPECT_EQ(section, trace.size()) << stream;
    }
}

namespace {

// Replaces every parameter set of the stream by write(read(unit)).
std::vector<uint8_t> splice(const std::vector<uint8_t>& data) {
    std::vector<uint8_t> out;
    size_t copied = 0;
    for (const Unit& u : annexBUnits(data)) {
        if (!isParameterSet(u)) continue;
        Parsed p;
        uint32_t consumed = 0;
        std::vector<uint8_t> unit = readAndWrite(u, p, &consumed, nullptr);
        out.insert(out.end(), data.begin() + copied, data.begin() + u.offset);
        out.insert(out.end(), unit.begin(), unit.end());
        copied = u.offset + u.bytes.size();
    }
    out.insert(out.end(), data.begin() + copied, data.end());
    return out;
}

}  // namespace

TEST(HevcFixtures, SplicedParameterSetsDecodeToTheSameFrames) {
    if (runCommand("command -v ffmpeg").empty()) GTEST_SKIP() << "ffmpeg is not installed";
    const std::string dir = std::string(QNV_BINARY_DIR) + "/hevc_splice";
    std::system(("mkdir -p " + dir).c_str());
    for (const char* name : kStreams) {
        const std::string stream = name;
        // Custom scaling lists are not kept by the record; the writer selects
        // the default lists, which decode differently. The hand-built SPS of
        // "rps" does not fit its slices, so that stream does not decode.
        if (stream == "scaling_custom" || stream == "rps") continue;
        std::vector<uint8_t> spliced = splice(readFixture(stream + ".265"));
        const std::string path = dir + "/" + stream + ".265";
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fwrite(spliced.data(), 1, spliced.size(), f);
        std::fclose(f);
        const std::string decode = "ffmpeg -v error -f hevc -i ";
        const std::string original = runCommand(decode + QNV_TEST_DATA "/hevc/" + stream + ".265 -f framemd5 - 2>&1");
        const std::string rewritten = runCommand(decode + path + " -f framemd5 - 2>&1");
        EXPECT_NE(original.find("0,"), std::string::npos) << stream << ": " << original;
        EXPECT_EQ(original, rewritten) << stream;
    }
}
