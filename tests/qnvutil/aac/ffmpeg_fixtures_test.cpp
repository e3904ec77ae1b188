// Headers of streams made by ffmpeg (tests/data/aac/make_fixtures.sh) against
// ffprobe's view of the same files.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "qnvutil/aac.h"

namespace {

const std::string kDir = std::string(QNV_TEST_DATA) + "/aac/";

std::vector<uint8_t> fileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// ffprobe's "key=value" report: the stream values, every packet's pos and
// size, and the extradata hex dump lines.
struct Probe {
    std::map<std::string, std::string> stream;
    std::vector<std::pair<uint32_t, uint32_t>> packets;  // pos, size
    std::vector<uint8_t> extradata;
};

Probe readProbe(const std::string& path) {
    Probe p;
    std::ifstream in(path);
    EXPECT_TRUE(in) << path;
    std::string line;
    uint32_t size = 0;
    while (std::getline(in, line)) {
        size_t colon = line.find(": "), eq = line.find('=');
        if (colon == 8) {  // "00000000: 1210 56e5 00    ..V.."
            std::istringstream hex(line.substr(10, line.find("  ", 10) - 10));
            for (std::string group; hex >> group;)
                for (size_t i = 0; i + 1 < group.size(); i += 2)
                    p.extradata.push_back(static_cast<uint8_t>(std::stoul(group.substr(i, 2), nullptr, 16)));
        } else if (eq != std::string::npos) {
            std::string key = line.substr(0, eq), value = line.substr(eq + 1);
            if (key == "size") size = static_cast<uint32_t>(std::stoul(value));
            else if (key == "pos") p.packets.emplace_back(static_cast<uint32_t>(std::stoul(value)), size);
            else p.stream[key] = value;
        }
    }
    return p;
}

// Channels of a channel configuration (1..6 name their count, 7 is 7.1).
uint32_t channelsOf(uint32_t configuration) { return configuration == 7 ? 8 : configuration; }

// The AudioSpecificConfig of an ADTS header (object type = profile + 1),
// read back to learn its sampling frequency.
AACConfig configOf(const ADTSHeader& h) {
    AACConfig c = {h.profile + 1, h.sampling_frequency_index, 0, h.channel_configuration, 0, 0, 0};
    uint8_t bytes[8] = {};
    BitBuffer w{bytes, 8, 64, 0};
    qnvutilWriteAAC(&w, &c);
    BitBuffer r{bytes, 8, w.bitPos, 0};
    qnvutilReadAAC(&r, &c);
    return c;
}

}  // namespace

TEST(AacFixtures, AdtsHeadersMatchFfprobe) {
    const char* names[] = {"adts_8000_1", "adts_22050_2", "adts_44100_2", "adts_48000_6", "adts_96000_2", "adts_32000_8"};
    for (const char* name : names) {
        SCOPED_TRACE(name);
        std::vector<uint8_t> data = fileBytes(kDir + name + ".aac");
        Probe probe = readProbe(kDir + name + ".ffprobe");
        ASSERT_FALSE(probe.packets.empty());
        const uint32_t rate = static_cast<uint32_t>(std::stoul(probe.stream["sample_rate"]));
        const uint32_t channels = static_cast<uint32_t>(std::stoul(probe.stream["channels"]));
        EXPECT_EQ(probe.stream["profile"], "LC");

        size_t frames = 0;
        for (uint32_t pos = 0; pos + 9 <= data.size(); ++frames) {
            ASSERT_LT(frames, probe.packets.size());
            EXPECT_EQ(pos, probe.packets[frames].first);
            BitBuffer bb{data.data() + pos, 9, 72, 0};
            ADTSHeader h;
            qnvutilReadADTS(&bb, &h);
            EXPECT_EQ(h.syncword, 0xFFFu);
            EXPECT_EQ(h.layer, 0u);
            EXPECT_EQ(h.protection_absent, 1u);
            EXPECT_EQ(h.profile, 1u);  // LC
            EXPECT_EQ(h.aac_frame_length, probe.packets[frames].second);
            EXPECT_EQ(configOf(h).samplingFrequency, rate);
            EXPECT_EQ(channelsOf(h.channel_configuration), channels);
            // Without protection the reader still takes a CRC word: the first
            // two bytes after the standard 7-byte header.
            EXPECT_EQ(bb.bitPos, 72u);
            EXPECT_EQ(h.crc_check, uint32_t(data[pos + 7]) << 8 | data[pos + 8]);

            uint8_t out[9];
            BitBuffer w{out, 9, 72, 0};
            qnvutilWriteADTS(&w, &h);
            EXPECT_EQ(std::vector<uint8_t>(out, out + 9), std::vector<uint8_t>(data.begin() + pos, data.begin() + pos + 9));
            ASSERT_GT(h.aac_frame_length, 0u);
            pos += h.aac_frame_length;
        }
        EXPECT_EQ(frames, probe.packets.size());
    }
}

// The AudioSpecificConfig of an ffmpeg MP4 file, as ffprobe dumps it.
TEST(AacFixtures, Mp4AudioSpecificConfigMatchesFfprobe) {
    for (const char* name : {"mp4_16000_1", "mp4_44100_2", "mp4_48000_6"}) {
        SCOPED_TRACE(name);
        Probe probe = readProbe(kDir + name + ".ffprobe");
        const std::vector<uint8_t>& asc = probe.extradata;
        ASSERT_GE(asc.size(), 2u);

        std::vector<uint8_t> padded = asc;
        padded.push_back(0);
        BitBuffer bb{padded.data(), 0, static_cast<uint32_t>(asc.size() * 8), 0};
        AACConfig c;
        qnvutilReadAAC(&bb, &c);
        EXPECT_EQ(c.audioObjectType, 2u);  // LC
        EXPECT_EQ(c.samplingFrequency, std::stoul(probe.stream["sample_rate"]));
        EXPECT_EQ(channelsOf(c.channelConfiguration), std::stoul(probe.stream["channels"]));
        EXPECT_EQ(c.frameLengthFlag | c.dependsOnCoreCoder | c.extensionFlag, 0u);
        // ffmpeg appends a sync extension that marks SBR absent; the reader
        // stops before it.
        EXPECT_EQ(bb.bitPos, 16u);

        uint8_t out[2];
        BitBuffer w{out, 2, 16, 0};
        qnvutilWriteAAC(&w, &c);
        EXPECT_EQ(std::vector<uint8_t>(out, out + 2), std::vector<uint8_t>(asc.begin(), asc.begin() + 2));
    }
}
