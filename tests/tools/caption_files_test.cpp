// Caption files and CDPs: time code labels across drop-frame minutes, SCC
// and MCC lines read and written (run-length letters, drop-frame labels,
// malformed lines), and CDPs that the library's packet check accepts.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "qnvutil/sei/caption_packet.h"
#include "tools/qnvtool/caption_files.h"
#include "tools/qnvtool/cdp.h"
#include "tools/qnvtool/stream_io.h"
#include "tools/qnvtool/tool.h"
#include "tests/qnvutil/test_util.h"

namespace {

using namespace qnvtool::captions;
using Bytes = std::vector<uint8_t>;

const Counting k30df{30, 2}, k30{30, 0}, k60df{60, 4}, k25{25, 0};

TEST(CaptionLabels, CountsAcrossDropFrameMinutes) {
    struct Case {
        Counting c;
        uint32_t h, m, s, f;
        bool exists;
        uint32_t count;
    };
    const Case cases[] = {
        {k30df, 0, 0, 59, 29, true, 1799},   {k30df, 0, 1, 0, 2, true, 1800},   {k30df, 0, 1, 0, 0, false, 0},
        {k30df, 0, 1, 0, 1, false, 0},       {k30df, 0, 10, 0, 0, true, 17982}, {k30df, 0, 11, 0, 2, true, 19782},
        {k30df, 1, 0, 0, 0, true, 107892},   {k30, 0, 1, 0, 0, true, 1800},     {k60df, 0, 1, 0, 4, true, 3600},
        {k60df, 0, 1, 0, 3, false, 0},       {k25, 1, 0, 0, 0, true, 90000},    {k25, 0, 0, 0, 25, false, 0},
        {k30, 0, 60, 0, 0, false, 0},
    };
    for (const Case& c : cases) {
        uint32_t count = 0;
        ASSERT_EQ(labelToCount(c.c, c.h, c.m, c.s, c.f, count), c.exists) << c.h << ":" << c.m << ":" << c.s << ":" << c.f;
        if (!c.exists) continue;
        EXPECT_EQ(count, c.count);
        uint32_t h, m, s, f;
        countToLabel(c.c, count, h, m, s, f);
        EXPECT_EQ(h * 1000000 + m * 10000 + s * 100 + f, c.h * 1000000 + c.m * 10000 + c.s * 100 + c.f) << count;
    }
    // Every count of two drop-frame hours comes back from its label.
    for (const Counting& c : {k30df, k60df}) {
        for (uint32_t n = 0; n < 2 * 108000; n += 7) {
            uint32_t h, m, s, f, back = 0;
            countToLabel(c, n, h, m, s, f);
            ASSERT_TRUE(labelToCount(c, h, m, s, f, back)) << n;
            ASSERT_EQ(back, n);
        }
    }
}

// ---- SCC ----------------------------------------------------------------------

TEST(SccRead, PairsGoOnePerFrameFromTheirLabelAndQueueUp) {
    struct Pair {
        uint32_t frame;
        uint8_t b1, b2;
    };
    struct Case {
        const char* what;
        const char* text;
        bool drop;
        std::vector<Pair> pairs;
        uint32_t queued;
    };
    const Case cases[] = {
        {"one line", "Scenarist_SCC V1.0\n\n00:00:01:00\t9420 9420 c1c2\n", false,
         {{30, 0x94, 0x20}, {31, 0x94, 0x20}, {32, 0xC1, 0xC2}}, 0},
        {"CR LF, blanks, upper-case hex", "Scenarist_SCC V1.0\r\n\r\n00:00:00:05  94AE \t 942F \r\n\r\n", false,
         {{5, 0x94, 0xAE}, {6, 0x94, 0x2F}}, 0},
        {"drop-frame labels over a minute", "Scenarist_SCC V1.0\n\n00:00:59;29\t9420 9420\n\n00:01:00;03\t942f\n",
         true, {{1799, 0x94, 0x20}, {1800, 0x94, 0x20}, {1801, 0x94, 0x2F}}, 0},
        {"a line sent before the previous one ends waits",
         "Scenarist_SCC V1.0\n\n00:00:00:00\t9420 9420 9420\n\n00:00:00:01\t942c\n\n00:00:00:09\t942f\n", false,
         {{0, 0x94, 0x20}, {1, 0x94, 0x20}, {2, 0x94, 0x20}, {3, 0x94, 0x2C}, {9, 0x94, 0x2F}}, 1},
        {"byte order mark, hours beyond 24", "\xEF\xBB\xBFScenarist_SCC V1.0\n\n100:00:00:00\t8080\n", false,
         {{10800000, 0x80, 0x80}}, 0},
    };
    for (const Case& c : cases) {
        const SccFile f = readScc(c.text, "in.scc");
        EXPECT_EQ(f.counting.dropped != 0, c.drop) << c.what;
        ASSERT_EQ(f.pairs.size(), c.pairs.size()) << c.what;
        for (size_t i = 0; i < c.pairs.size(); ++i) {
            EXPECT_EQ(f.pairs[i].frame, c.pairs[i].frame) << c.what << " pair " << i;
            EXPECT_EQ(f.pairs[i].b1 << 8 | f.pairs[i].b2, c.pairs[i].b1 << 8 | c.pairs[i].b2) << c.what << " pair " << i;
        }
        EXPECT_EQ(f.queued, c.queued) << c.what;
    }
}

void expectError(const std::function<void()>& read, const std::string& message, const char* what) {
    try {
        read();
        ADD_FAILURE() << what << ": no error";
    } catch (const qnvtool::Error& e) {
        EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << what << ": " << e.what();
    }
}

TEST(SccRead, MalformedLinesNameTheirLine) {
    const std::pair<const char*, const char*> cases[] = {
        {"Scenarist_SCC V2.0\n", "in.scc:1: not an SCC file"},
        {"", "in.scc:1: not an SCC file"},
        {"Scenarist_SCC V1.0\n\n00:00:01\t9420\n", "in.scc:3: expected a time code"},
        {"Scenarist_SCC V1.0\n\n00:00:01:00 942\n", "in.scc:3: '942' is not a byte pair"},
        {"Scenarist_SCC V1.0\n\n00:00:01:00\t94g0\n", "in.scc:3: '94g0'"},
        {"Scenarist_SCC V1.0\n\n00:00:01:00\t9420\n\n00:00:02;00\t9420\n", "in.scc:5: drop-frame (';') and non-drop"},
        {"Scenarist_SCC V1.0\n\n00:01:00;00\t9420\n", "in.scc:3: time code 00:01:00;00 does not exist"},
        {"Scenarist_SCC V1.0\n\n00:00:02:00\t9420\n00:00:01:00\t9420\n", "in.scc:4: time code earlier"},
        {"Scenarist_SCC V1.0\n\n00:00:02:00\t\n", "in.scc:3: expected a time code"},
        {"Scenarist_SCC V1.0\n\n", "no captions"},
        {"Scenarist_SCC V1.0\n\n00:00:02:30\t9420\n", "in.scc:3: time code"},
    };
    for (const auto& [text, message] : cases) expectError([&] { readScc(text, "in.scc"); }, message, text);
}

TEST(SccMapping, PicturesAcrossADropFrameMinute) {
    // The stream's first picture is 00:00:59;28; pictures come in decoding
    // order (ranks 0 4 2 1 3 ...), each looked up at start + rank.
    const SccFile f = readScc(
        "Scenarist_SCC V1.0\n\n00:00:59;29\t9420 9452 9454\n\n00:01:00;03\t942f\n\n00:01:00;06\t942c 942c\n", "in.scc");
    uint32_t start = 0;
    ASSERT_TRUE(parseLabel("00:00:59;28", f.counting, start));
    const SccCursor cursor(f, start);
    const std::pair<int64_t, int> ranks[] = {{0, -1}, {4, 0x942F}, {2, 0x9452}, {1, 0x9420}, {3, 0x9454},
                                             {5, -1}, {6, 0x942C}, {7, 0x942C}, {8, -1}};
    for (const auto& [rank, word] : ranks) {
        const SccPair* p = cursor.at(start + uint32_t(rank));
        EXPECT_EQ(p ? p->b1 << 8 | p->b2 : -1, word) << "rank " << rank;
    }
    // 00:01:00;03 queued behind the first line's last pair, to ;04.
    EXPECT_EQ(f.queued, 1u);
    // A stream of six pictures ends at 00:01:00;06: the last line is
    // outside it; one of seven cuts the queue of a line inside it.
    SccCursor::Leftover l = cursor.leftover(start + 6);
    EXPECT_EQ(l.after, 2u);
    EXPECT_EQ(l.queuePastEnd, 0u);
    EXPECT_TRUE(l.labelInside);
    l = cursor.leftover(start + 7);
    EXPECT_EQ(l.after, 1u);
    EXPECT_EQ(l.queuePastEnd, 1u);
    // --start after every label.
    uint32_t late = 0;
    ASSERT_TRUE(parseLabel("00:02:00;02", f.counting, late));
    l = SccCursor(f, late).leftover(late + 30);
    EXPECT_FALSE(l.labelInside);
    EXPECT_EQ(l.before, 6u);
}

TEST(SccWrite, ConsecutiveFramesShareALineAndPaddingIsLeftOut) {
    const qnvtest::TempFile file;
    {
        qnvtool::OutputStream out(file.path());
        SccWriter w(out, true);
        w.add(1798, 0x94, 0x20);
        w.add(1799, 0x94, 0x20);
        w.add(1800, 0xC1, 0x80);  // 00:01:00;02 follows 00:00:59;29
        w.add(1801, 0x80, 0x80);
        w.add(1802, 0x94, 0x2F);
        w.finish();
        out.commit();
        EXPECT_EQ(w.pairs(), 4u);
    }
    EXPECT_EQ(file.text(),
              "Scenarist_SCC V1.0\n\n00:00:59;28\t9420 9420 c180\n\n00:01:00;04\t942f\n\n");
    const SccFile back = readScc(file.text(), "back");
    ASSERT_EQ(back.pairs.size(), 4u);
    EXPECT_EQ(back.pairs[2].frame, 1800u);
    EXPECT_EQ(back.pairs[3].frame, 1802u);
}

// ---- MCC ----------------------------------------------------------------------

TEST(MccLetters, EncodeAndDecode) {
    struct Case {
        Bytes bytes;
        const char* text;
    };
    std::vector<Case> cases = {
        {{0x61, 0x01, 0x96, 0x69}, "TS"},
        {{0xFA, 0, 0}, "G"},
        {{0xFA, 0, 0, 0xFA, 0, 0}, "H"},
        {{0xFC, 0x80, 0x80, 0xFD, 0x80, 0x80, 0xFB, 0x80, 0x80}, "QRP"},
        {{0xE1, 0, 0, 0, 0x00, 0x00, 0x12}, "UZZ12"},
        {{0xFA, 0x00, 0x01}, "FAZ01"},
        {{0xAB}, "AB"},
    };
    Bytes ten;
    for (int i = 0; i < 10; ++i) ten.insert(ten.end(), {0xFA, 0, 0});
    cases.push_back({ten, "OG"});  // nine, then one
    for (const Case& c : cases) {
        std::string text = "x";
        mccEncode(c.bytes.data(), c.bytes.size(), text);
        EXPECT_EQ(text, std::string("x") + c.text);
        Bytes back;
        size_t column = 0;
        ASSERT_TRUE(mccDecode(c.text, back, column)) << c.text;
        EXPECT_EQ(back, c.bytes) << c.text;
    }
    // Lower-case hex digits read too; a lone digit or another letter does not.
    Bytes back;
    size_t column = 0;
    EXPECT_TRUE(mccDecode("fa", back, column));
    EXPECT_EQ(back, Bytes{0xFA});
    EXPECT_FALSE(mccDecode("T4", back, column));
    EXPECT_EQ(column, 1u);
    EXPECT_FALSE(mccDecode("TV", back, column));
    EXPECT_EQ(column, 1u);
}

const char kMccHead[] =
    "File Format=MacCaption_MCC V1.0\n\n"
    "// a comment\n\n"
    "UUID=0087C4F6-A6B4-5469-8C8E-BBF44950401D\nCreation Program=test\nTime Code Rate=30DF\n\n";
// A CDP of 20 triplets at 29.97 with counter 0: 61 01 49, the CDP, the sum.
const char kMccLine[] = "T49S494F43ZZ72F4QROO74ZZ";

std::string mccLine(const char* label) {
    // The CDP checksum and the ancillary checksum of kMccLine.
    Bytes anc;
    size_t column = 0;
    mccDecode(kMccLine, anc, column);
    uint8_t sum = 0;
    for (uint8_t b : Bytes(anc.begin() + 3, anc.end())) sum = uint8_t(sum + b);
    anc.push_back(uint8_t(0x100 - sum));
    sum = 0;
    for (uint8_t b : anc) sum = uint8_t(sum + b);
    anc.push_back(sum);
    std::string line = std::string(label) + "\t";
    mccEncode(anc.data(), anc.size(), line);
    return line + "\n";
}

TEST(MccRead, PacketsAtTheirLabels) {
    const std::string text = kMccHead + mccLine("00:00:59:29") + mccLine("00:01:00:02") + mccLine("00:01:00;02.1");
    const MccFile f = readMcc(text, "in.mcc");
    ASSERT_NE(f.rate, nullptr);
    EXPECT_STREQ(f.rate->text, "30DF");
    ASSERT_EQ(f.packets.size(), 3u);
    EXPECT_EQ(f.packets[0].frame, 1799u);
    EXPECT_EQ(f.packets[1].frame, 1800u);
    EXPECT_EQ(f.packets[2].frame, 1800u);
    EXPECT_EQ(f.packets[2].line, 11u);
    ASSERT_EQ(f.packets[0].cdp.size(), 0x49u);
    qnvtool::cdp::Packet p;
    ASSERT_EQ(qnvtool::cdp::read(f.packets[0].cdp.data(), f.packets[0].cdp.size(), p), qnvtool::cdp::ReadResult::kOk);
    EXPECT_EQ(p.count, 20u);
    EXPECT_EQ(p.rate, qnvtool::cdp::FrameRate::k2997);
}

TEST(MccRead, MalformedLinesNameTheirLine) {
    const std::string good = mccLine("00:00:01:00");
    std::string badSum = good;
    badSum[badSum.size() - 2] = badSum[badSum.size() - 2] == '0' ? '1' : '0';
    const std::pair<std::string, std::string> cases[] = {
        {"File Format=Other\n", "in.mcc:1: not an MCC file"},
        {"File Format=MacCaption_MCC V3.0\n", "in.mcc:1: unknown MCC version"},
        {std::string("File Format=MacCaption_MCC V1.0\n") + good, "in.mcc:2: a caption line before the Time Code Rate"},
        {std::string("File Format=MacCaption_MCC V1.0\nTime Code Rate=29\n"), "in.mcc:2: unknown Time Code Rate"},
        {kMccHead + std::string("junk\n"), "in.mcc:9: expected a time code line"},
        {kMccHead + std::string("00:00:01:00\tT49SXY\n"), "in.mcc:9: 'X' at column 17"},
        {kMccHead + std::string("00:00:01:00\tT04S\n"), "in.mcc:9: the data count says 4 bytes, the line holds 1"},
        {kMccHead + std::string("00:00:01:00\t6201ZZ\n"), "in.mcc:9: not a caption packet"},
        {kMccHead + badSum, "in.mcc:9: bad ancillary packet checksum"},
        {kMccHead + std::string("00:00:01:00\tT03S0367\n"), "in.mcc:9: CDP: too short"},
        {kMccHead + std::string("00:01:00:00\t") + good.substr(12), "in.mcc:9: time code 00:01:00:00 does not exist"},
        {kMccHead + good + mccLine("00:00:00:10"), "in.mcc:10: time code earlier"},
        {kMccHead + std::string("00:00:01:00\n"), "in.mcc:9: expected a tab"},
        {std::string("File Format=MacCaption_MCC V2.0\n"), "no Time Code Rate"},
    };
    for (const auto& [text, message] : cases) expectError([&] { readMcc(text, "in.mcc"); }, message, text.c_str());
}

TEST(MccWrite, LinesReadBackAsTheyWent) {
    const qnvtest::TempFile file;
    uint8_t cdpBytes[qnvtool::cdp::kMaxBytes];
    qnvtool::cdp::Packet p;
    p.rate = qnvtool::cdp::FrameRate::k2997;
    p.count = 20;
    p.triplets[0] = {0xFC, 0x94, 0x20};
    p.triplets[1] = {0xFD, 0x80, 0x80};
    for (int i = 2; i < 20; ++i) p.triplets[i] = {0xFA, 0, 0};
    p.hasTimeCode = true;
    p.timeCode = {0, 1, 0, 2, true, false};
    p.sequence = 0x0102;
    const size_t n = qnvtool::cdp::build(p, cdpBytes);
    {
        qnvtool::OutputStream out(file.path());
        MccWriter w(out, kMccRates[3], {"0087C4F6-A6B4-5469-8C8E-BBF44950401D", "Monday, March 2, 2026", "10:00:00"});
        w.add(1800, cdpBytes, n);
        out.commit();
    }
    const std::string text = file.text();
    EXPECT_EQ(text.rfind("File Format=MacCaption_MCC V1.0\n", 0), 0u);
    EXPECT_NE(text.find("\nTime Code Rate=30DF\n"), std::string::npos);
    EXPECT_NE(text.find("\n00:01:00:02\tT4ES4E4FC3"), std::string::npos) << text;
    const MccFile back = readMcc(text, "back");
    ASSERT_EQ(back.packets.size(), 1u);
    EXPECT_EQ(back.packets[0].frame, 1800u);
    EXPECT_EQ(back.packets[0].cdp, Bytes(cdpBytes, cdpBytes + n));
}

// ---- CDPs ---------------------------------------------------------------------

TEST(Cdp, PerRateCountsAndTheLibraryAcceptsWhatIsBuilt) {
    using namespace qnvtool::cdp;
    const std::pair<uint32_t, uint32_t> counts[] = {{23, 25}, {24, 25}, {25, 24}, {29, 20}, {30, 20},
                                                    {50, 12}, {59, 10}, {60, 10}, {48, 0}};
    for (const auto& [rate, count] : counts) {
        EXPECT_EQ(ccCountOf(frameRateOf(rate)), count) << rate;
        if (count == 0) continue;
        Packet p;
        p.rate = frameRateOf(rate);
        p.count = count;
        for (uint32_t i = 0; i < count; ++i) p.triplets[i] = {0xFA, 0, 0};
        for (uint16_t sequence : {uint16_t(0), uint16_t(0xFFFF)}) {
            p.sequence = sequence;
            std::vector<uint8_t> packet;
            ASSERT_TRUE(buildCaptionPacket(p, packet));
            EXPECT_EQ(packet.size(), 7 + 7 + 2 + 3 * count + 4);
            EXPECT_EQ(qnv::validateCaptionPacket(packet.data(), uint32_t(packet.size())), 0) << rate;
            Packet back;
            ASSERT_EQ(read(packet.data() + kWrapBytes, packet.size() - kWrapBytes, back), ReadResult::kOk);
            EXPECT_EQ(back.count, count);
            EXPECT_EQ(back.sequence, sequence);
        }
    }
}

TEST(Cdp, BytesMatchTheFixtureAndTheTimeCodeSection) {
    using namespace qnvtool::cdp;
    // tests/data/sei/cdps.bin, made by its own script: ten triplets, 29.97.
    const Bytes fixture = qnvtest::readData("sei/cdps.bin");
    ASSERT_GE(fixture.size(), 43u);
    Packet p;
    p.rate = FrameRate::k2997;
    p.sequence = 1;
    p.count = 10;
    p.triplets[0] = {0xFC, 0x80, 0x80};
    p.triplets[1] = {0xFD, 0x80, 0x80};
    for (int i = 2; i < 10; ++i) p.triplets[i] = {0xFA, 0, 0};
    uint8_t out[kMaxBytes];
    ASSERT_EQ(build(p, out), 43u);
    EXPECT_EQ(Bytes(out, out + 43), Bytes(fixture.begin(), fixture.begin() + 43));

    p.hasTimeCode = true;
    p.timeCode = {1, 23, 45, 29, true, false};
    const size_t n = build(p, out);
    ASSERT_EQ(n, 48u);
    EXPECT_EQ(out[4] & kTimeCodePresent, kTimeCodePresent);
    EXPECT_EQ(Bytes(out + 7, out + 12), (Bytes{0x71, 0xC1, 0xA3, 0x45, 0xA9}));
    Packet back;
    ASSERT_EQ(read(out, n, back), ReadResult::kOk);
    EXPECT_TRUE(back.hasTimeCode);
    EXPECT_EQ(back.timeCode.hours * 10000 + back.timeCode.minutes * 100 + back.timeCode.seconds, 12345);
    EXPECT_EQ(back.timeCode.frames, 29);
    EXPECT_TRUE(back.timeCode.dropFrame);
    // The library's packets leave the time code section out.
    std::vector<uint8_t> packet;
    ASSERT_TRUE(buildCaptionPacket(p, packet));
    EXPECT_EQ(packet[kWrapBytes + 7], kCcDataId);
}

TEST(Cdp, DamagedPacketsAreNamed) {
    using namespace qnvtool::cdp;
    Packet p;
    p.rate = FrameRate::k25;
    p.count = 2;
    p.triplets[0] = p.triplets[1] = {0xFC, 0x80, 0x80};
    uint8_t good[kMaxBytes];
    const size_t n = build(p, good);
    struct Case {
        size_t at;
        uint8_t value;
        size_t size;
        ReadResult result;
    };
    const Case cases[] = {
        {0, 0x97, n, ReadResult::kNotCdp},  {2, 0x30, n, ReadResult::kLength}, {n - 4, 0x75, n, ReadResult::kFooter},
        {n - 2, 0x09, n, ReadResult::kCounters}, {10, 0x81, n, ReadResult::kChecksum},
        {8, 0xE9, n, ReadResult::kSection}, {0, 0x96, 10, ReadResult::kTooShort},
    };
    for (const Case& c : cases) {
        uint8_t bytes[kMaxBytes];
        std::copy(good, good + n, bytes);
        bytes[c.at] = c.value;
        if (c.result == ReadResult::kSection) {  // a cc_count past the footer, with the sum kept
            bytes[n - 1] = uint8_t(bytes[n - 1] - (0xE9 - 0xE2));
        }
        Packet back;
        EXPECT_EQ(read(bytes, c.size, back), c.result) << readResultText(c.result);
    }
}

}  // namespace
