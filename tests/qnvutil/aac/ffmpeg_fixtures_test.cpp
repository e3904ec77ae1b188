// Headers of streams made by ffmpeg (tests/data/aac/make_fixtures.sh) against
// ffprobe's view of the same files.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "qnvutil/aac.h"
#include "qnvutil/aac/aac_internal.h"
#include "tests/qnvutil/test_util.h"

namespace {

// ffprobe's "key=value" report: the stream values, every packet's pos and
// size, and the extradata hex dump lines ("00000000: 1210 56e5 00  ..V..").
struct Probe {
    std::map<std::string, std::string> stream;
    std::vector<std::pair<uint32_t, uint32_t>> packets;  // pos, size
    std::vector<uint8_t> extradata;
    uint32_t number(const std::string& key) { return static_cast<uint32_t>(std::stoul(stream[key])); }
};

Probe readProbe(const std::string& name) {
    std::ifstream in(std::string(QNV_TEST_DATA) + "/aac/" + name + ".ffprobe");
    EXPECT_TRUE(in) << name;
    Probe p;
    uint32_t size = 0;
    for (std::string line; std::getline(in, line);) {
        const size_t eq = line.find('=');
        if (line.find(": ") == 8) {
            std::string hex = line.substr(10, line.find("  ", 10) - 10);
            hex.erase(std::remove(hex.begin(), hex.end(), ' '), hex.end());
            for (size_t i = 0; i + 1 < hex.size(); i += 2)
                p.extradata.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
        } else if (eq != std::string::npos) {
            const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
            if (key == "size") size = static_cast<uint32_t>(std::stoul(value));
            else if (key == "pos") p.packets.emplace_back(static_cast<uint32_t>(std::stoul(value)), size);
            else p.stream[key] = value;
        }
    }
    return p;
}

}  // namespace

TEST(AacFixtures, HeadersMatchFfprobe) {
    for (std::string name : {"adts_8000_1", "adts_22050_2", "adts_44100_2", "adts_48000_6", "adts_96000_2",
                             "adts_32000_8", "mp4_16000_1", "mp4_44100_2", "mp4_48000_6"}) {
        SCOPED_TRACE(name);
        Probe probe = readProbe(name);
        const uint32_t rate = probe.number("sample_rate"), channels = probe.number("channels");
        EXPECT_EQ(probe.stream["profile"], "LC");
        if (name[0] == 'm') {
            // The MP4's AudioSpecificConfig. ffmpeg appends a sync extension
            // that marks SBR absent; the reader stops before it.
            std::vector<uint8_t> asc = probe.extradata;
            ASSERT_GE(asc.size(), 2u);
            asc.push_back(0);
            BitBuffer bb{asc.data(), 0, static_cast<uint32_t>(probe.extradata.size() * 8), 0};
            AACConfig c;
            qnvutilReadAAC(&bb, &c);
            EXPECT_EQ(bb.bitPos, 16u);
            const AACConfig expected = {2, c.samplingFrequencyIndex, rate, channels == 8 ? 7 : channels, 0, 0, 0};
            EXPECT_EQ(std::memcmp(&c, &expected, sizeof c), 0);
            uint8_t out[2];
            BitBuffer w{out, 2, 16, 0};
            qnvutilWriteAAC(&w, &c);
            EXPECT_EQ(std::vector<uint8_t>(out, out + 2), std::vector<uint8_t>(asc.begin(), asc.begin() + 2));
            continue;
        }
        std::vector<uint8_t> data = qnvtest::readData("aac/" + name + ".aac");
        size_t frames = 0;  // bounds the walk, whatever lengths it reads
        for (uint32_t pos = 0; pos + 9 <= data.size(); ++frames) {
            ASSERT_LT(frames, probe.packets.size());
            EXPECT_EQ(pos, probe.packets[frames].first);
            BitBuffer bb{data.data() + pos, 9, 72, 0};
            ADTSHeader h;
            qnvutilReadADTS(&bb, &h);
            EXPECT_EQ(h.profile, 1u);  // LC
            EXPECT_EQ(h.aac_frame_length, probe.packets[frames].second);
            EXPECT_EQ(qnv::aacFrequencyFromIndex(h.sampling_frequency_index), rate);
            EXPECT_EQ(h.channel_configuration == 7 ? 8 : h.channel_configuration, channels);  // 7 is 7.1
            // Without protection the reader still takes a CRC word: the first
            // two bytes after the 7-byte header.
            EXPECT_EQ(h.protection_absent, 1u);
            EXPECT_EQ(bb.bitPos, 72u);
            EXPECT_EQ(h.crc_check, uint32_t(data[pos + 7]) << 8 | data[pos + 8]);
            uint8_t out[9];
            BitBuffer w{out, 9, 72, 0};
            qnvutilWriteADTS(&w, &h);
            EXPECT_EQ(std::vector<uint8_t>(out, out + 9), std::vector<uint8_t>(data.begin() + pos, data.begin() + pos + 9));
            pos += h.aac_frame_length;
        }
        EXPECT_EQ(frames, probe.packets.size());
    }
}
