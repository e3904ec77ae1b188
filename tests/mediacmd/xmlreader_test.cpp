// MediaCmd XML reader: fields, flags, the asymmetries with the writer, hostile
// documents, and the write-then-read round trip.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <memory>
#include <random>

#include "tests/mediacmd/mediacmd_test.h"

namespace {
// Reads `inner` wrapped in a root named `root`.
MediaCmd read(const std::string& inner, uint32_t* tcType = nullptr, uint32_t* result = nullptr,
              const char* root = "MediaCmd") {
    MediaCmd c;
    std::string xml = std::string("<?xml version=\"1.0\"?><") + root + ">" + inner + "</" + root + ">";
    uint32_t r = MediaCmdFromXMLString(&c, tcType, xml.c_str());
    if (result != nullptr) *result = r;
    return c;
}
}  // namespace

TEST(MediaCmdReader, ResultCodesAndDocumentOwnership) {
    MediaCmd c;
    EXPECT_EQ(MediaCmdFromXMLString(&c, nullptr, "<a/>"), MEDIACMD_XML_NO_ROOT);
    EXPECT_EQ(MediaCmdFromXMLString(&c, nullptr, "<MediaCmd><Cmd>"), MEDIACMD_XML_NO_ROOT) << "unparsable";
    EXPECT_EQ(MediaCmdFromXMLString(&c, nullptr, nullptr), MEDIACMD_XML_NO_ROOT);
    EXPECT_EQ(MediaCmdFromXMLString(&c, nullptr, "<!--MediaCmd--><ClipInfo/>"), MEDIACMD_XML_NOT_ELEMENT);
    EXPECT_EQ(MediaCmdFromXMLString(nullptr, nullptr, "<MediaCmd/>"), MEDIACMD_XML_NO_RECORD);
    // The document is released on every path (the leak checker watches).
    auto* doc = new tinyxml2::XMLDocument;
    doc->Parse("<MediaCmd/>");
    EXPECT_EQ(MediaCmdFromXML(nullptr, nullptr, doc), MEDIACMD_XML_NO_RECORD);
    EXPECT_EQ(MediaCmdFromXML(&c, nullptr, nullptr), MEDIACMD_XML_NO_ROOT);
    // A prepared record is added to, not reset.
    initMediaCmd(&c, ctPlay);
    c.Flags = cfPreview;
    doc = new tinyxml2::XMLDocument;
    doc->Parse("<ClipInfo><Cmd Loop='1'/><Channel Value='4'/></ClipInfo>");
    EXPECT_EQ(MediaCmdFromXML(&c, nullptr, doc), MEDIACMD_XML_OK);
    EXPECT_EQ(c.Flags, cfPreview | cfLoop);
    EXPECT_EQ(c.Cmd, ctPlay);
    EXPECT_EQ(c.Channel, 4u);
}

TEST(MediaCmdReader, NumbersAsScanfReadsThem) {
    EXPECT_EQ(read("<Channel Value=' 12abc'/>").Channel, 12u);
    EXPECT_EQ(read("<Channel Value='+5'/>").Channel, 5u);
    EXPECT_EQ(read("<Channel Value='0x10'/>").Channel, 0u);
    EXPECT_EQ(read("<Channel Value='4294967297'/>").Channel, 1u);
    EXPECT_EQ(read("<Channel Value='-99999999999999999999999'/>").Channel, 0u);
    EXPECT_EQ(read("<Channel Value='-'/>").Channel, 0xFFFFFFFFu) << "not a number: left as it was";
    MediaCmd c = read("<prev Value='-1'/><list Value='7'/>");
    EXPECT_EQ(reinterpret_cast<uintptr_t>(c.prev), 0xFFFFFFFFu) << "only the low half";
    EXPECT_EQ(reinterpret_cast<uintptr_t>(c.list), 7u);
}

TEST(MediaCmdReader, CommandNamesAndFlags) {
    EXPECT_EQ(read("<Cmd>Record</Cmd>").Cmd, ctRecord);
    EXPECT_EQ(read("<Cmd>recstopper</Cmd>").Cmd, ctRecStop);
    EXPECT_EQ(read("<Cmd>PLAYback</Cmd>").Cmd, ctPlay);
    EXPECT_EQ(read("<Cmd>Switch</Cmd>").Cmd, ctStop);
    EXPECT_EQ(read("<Cmd>ValueSupported</Cmd>").Cmd, ctValueSupported);
    EXPECT_EQ(read("<Cmd Value='x'>edit</Cmd>").Cmd, ctEdit);
    EXPECT_EQ(read("<Cmd Value='21'>Play</Cmd>").Cmd, ctSwitch);
    EXPECT_EQ(read("<Cmd Deferred='2' Loop='0' Trigger='1' Ripple='1' Invert='1' Test='1' NoReturn='1' "
                   "UseAllIDs='1' UseClipID='1' NoClipFiles='1' NoTCSpaces='1'/>")
                  .Flags,
              cfDeferred | cfTrigger | cfRipple | cfInvert | cfTest | cfNoReturn | cfUseAllIDs | cfUseClipID |
                  cfNoClipFiles | cfNoTCSpaces);
    // The one-r spelling decides when it is a number; the writer's spelling
    // is not read back.
    EXPECT_EQ(read("<Cmd cfOverideDeferred='0' cfOverrideDeferred='1'/>").Flags, 0u);
    EXPECT_EQ(read("<Cmd cfOverideDeferred='no' cfOverrideDeferred='1'/>").Flags, cfOverrideDeferred);
    EXPECT_EQ(read("<Cmd cfOverideDeferred='1'/>").Flags, cfOverrideDeferred);
    EXPECT_EQ(read("<Cmd OverrideDeferred='1'/>").Flags, 0u);
}

TEST(MediaCmdReader, SpeedChannelsAndCmdAlt) {
    MediaCmd c = read("<Speed IsShuttle='1'>50</Speed><AudioChannels Value='3'/><CmdAlt Value='9' TimeTarget='1'/>");
    EXPECT_EQ(c.Speed, 0x7FFFFFFF) << "the percent text is not read";
    EXPECT_EQ(c.Flags, cfUseSpeed | cfIsShuttle | cfUsePresets | cfUseCmdAlt | cfTimeTarget);
    EXPECT_EQ(c.AudioChannels, 3u);
    EXPECT_EQ(c.VideoChannels, 0xFFFFFFFFu);
    EXPECT_EQ(c.CmdAlt, 9);
    EXPECT_EQ(read("<ctltimecode Value='1'/><CmdAlt TimeMs='1' TimeHouseClock='1'/>").Flags,
              cfUseCmdAlt | cfTimeMs | cfTimeHouseClock);
}

TEST(MediaCmdReader, PositionsFromTimecodeText) {
    uint32_t pal = 8;
    // The writer's type names are not numbers: the caller's type is used.
    EXPECT_EQ(read("<Position TcType='drop-frame'>00:00:01:00</Position>", &pal).Position, 25);
    EXPECT_EQ(pal, 8u) << "read, never written";
    EXPECT_EQ(read("<Position TcType='drop-frame'>00:00:01;00</Position>").Position, 30) << "null means drop-frame";
    // "59.94" reads as type 59, which counts as 30 non-drop.
    EXPECT_EQ(read("<Position TcType='59.94'>00:00:01.00</Position>").Position, 30);
    // Position and Start pass their type on; End keeps its own.
    MediaCmd c = read("<Position TcType='1'>00:00:01:00</Position><Start>00:00:02:00</Start>"
                      "<End TcType='8' IsOffset='1' UsingCurrent='1' UsingFrameCount='1' IsFieldCount='1'>"
                      "00:00:02:00</End>");
    EXPECT_EQ(c.Position, 24);
    EXPECT_EQ(c.Start, 48);
    EXPECT_EQ(c.End, 50);
    EXPECT_EQ(c.Flags, cfUsePosition | cfUseStart | cfUseEnd | cfUseEndOffset | cfUsingCurrent | cfUseFrameCount |
                           cfFields);
    // A Value wins; malformed text leaves the field; binary types stay inside the text.
    EXPECT_EQ(read("<Position Value='7'>00:00:01;00</Position>").Position, 7);
    EXPECT_EQ(read("<Start TcType='1'>1:2</Start>").Start, -1);
    EXPECT_EQ(read("<Start TcType='1024'>x</Start>").Start, 120 * 3600 * 30) << "binary 'x' 0 0 0";
    EXPECT_EQ(read("<Position TcType='0'>-12</Position><Start IsOffset='1'/>").Flags,
              cfUsePosition | cfUseStart | cfUseStartOffset);
}

TEST(MediaCmdReader, ClipIdFileNameAndArbitraryData) {
    MediaCmd c = read("<ClipID>ABCDEFGHIJ</ClipID><FileName>dir/clip.mov</FileName>");
    EXPECT_EQ(std::string(c.ClipID, 9), std::string("ABCDEFGH\0", 9));
    EXPECT_STREQ(c.FileName, "dir/clip.mov");
    EXPECT_EQ(c.Flags, cfUseClipID);
    // A smaller record as the text claims it: the copies follow its size.
    c = read("<StructSize Value='90'/><ClipID>AB</ClipID><FileName>abcdefgh</FileName>");
    EXPECT_EQ(c.StructSize, 90u);
    EXPECT_EQ(std::string(c.FileName, 5), std::string("abcd\0", 5));
    c = read("<StructSize Value='80'/><ClipID>ABCDEFGH</ClipID><FileName>x</FileName>");
    EXPECT_EQ(std::string(c.ClipID, 4), std::string("ABC\0", 4));
    EXPECT_EQ(c.FileName[0], 0);
    c = read("<ClipID/>");
    EXPECT_EQ(c.Flags, 0u);

    c = read("<arbID Type='base64' length='2'>0aFF77</arbID>");
    EXPECT_EQ(c.StructSize, 78u);
    EXPECT_EQ(uint8_t(c.ClipID[0]), 0x0A);
    EXPECT_EQ(uint8_t(c.ClipID[1]), 0xFF);
    EXPECT_EQ(c.ClipID[2], 0);
    EXPECT_EQ(c.Flags, cfUseClipID);
    c = read("<arbID length='3'>ABC</arbID>");
    EXPECT_EQ(std::string(c.ClipID, 3), std::string("\xAB\xC0\x00", 3));
}

TEST(MediaCmdReader, AddressesSitOneBytePastTheTerminator) {
    MediaCmd c = read("<ClipID>AB</ClipID><destinationipaddress>10.0.0.2</destinationipaddress>"
                      "<sourceipaddress>10.0.0.1</sourceipaddress><interfaceipaddress>eth0</interfaceipaddress>");
    // The destination overwrites the source at 78 + 2; the interface goes to
    // 78 + the length of that string, into the middle of it.
    EXPECT_STREQ(mctest::area(c) + 4, "10.0.0eth0");
    EXPECT_EQ(c.Flags, cfUseClipID);
    c = read("<clockipaddress>clock</clockipaddress>");
    EXPECT_STREQ(mctest::area(c) + 2, "clock");
}

TEST(MediaCmdReader, HostileSizesStayInsideTheRecord) {
    // A heap record of exactly 4188 bytes, so that any stray byte is caught.
    auto c = std::make_unique<MediaCmd>();
    std::string big(20000, '7');
    std::string xml = "<MediaCmd><StructSize Value='100000'/><arbID length='99999'>" + big + "</arbID><FileName>" +
                      big + "</FileName><sourceipaddress>" + big + "</sourceipaddress></MediaCmd>";
    EXPECT_EQ(MediaCmdFromXMLString(c.get(), nullptr, xml.c_str()), 0u);
    EXPECT_EQ(c->StructSize, 4188u);
    EXPECT_EQ(c->FileName[4102], 'w') << "arbID bytes 0x77 up to the record's end";
    xml = "<MediaCmd><StructSize Value='3'/><ClipID>" + big + "</ClipID><FileName>" + big + "</FileName></MediaCmd>";
    EXPECT_EQ(MediaCmdFromXMLString(c.get(), nullptr, xml.c_str()), 0u);
    EXPECT_EQ(c->StructSize, 3u);
    EXPECT_EQ(c->CmdID, MEDIACMD_ID) << "the header is not overwritten";
    EXPECT_EQ(c->FileName[4102], 0);
    // A record handed in smaller than the text's data: nothing past its end.
    auto* small = static_cast<MediaCmd*>(::operator new(90));
    std::memset(small, 0, 90);
    small->StructSize = 90;
    auto* doc = new tinyxml2::XMLDocument;
    doc->Parse(xml.c_str());
    EXPECT_EQ(MediaCmdFromXML(small, nullptr, doc), 0u);
    ::operator delete(small);
}

namespace {
// Random printable text that is neither empty nor only spaces.
std::string randomText(std::mt19937& rng, size_t maxLength) {
    std::string s(1 + rng() % maxLength, ' ');
    for (char& ch : s) ch = static_cast<char>(' ' + rng() % 95);
    s[0] = static_cast<char>('!' + rng() % 94);
    return s;
}
}  // namespace

TEST(MediaCmdRoundTrip, RandomRecordsSurviveInEveryCarriedField) {
    std::mt19937 rng(20240611);
    const uint32_t kTypes[] = {0, 1, 2, 4, 8, 16, 32, 64, 128, 132, 255, 77};
    // Bits the reader does not take back: the writer's OverrideDeferred and
    // the flags it never writes.
    const uint32_t kNotCarried = cfOverrideDeferred | cfPreview | cfRemoteCommand | cfOver24Hours | cfSecondField;
    for (int i = 0; i < 500; ++i) {
        MediaCmd c = mctest::record(rng() % 22);
        c.Channel = rng();
        c.Flags = rng() | cfUseClipID;
        c.Speed = int32_t(rng());
        c.VideoChannels = rng(), c.AudioChannels = rng(), c.InfoChannels = rng();
        c.CmdAlt = int32_t(rng() % 2000000);  // guaranteed clear of every data-area code
        if (c.CmdAlt == 25 || c.CmdAlt == 150 || c.CmdAlt == 162 || c.CmdAlt == 166 ||
            (c.CmdAlt >= 801 && c.CmdAlt <= 802) || c.CmdAlt == 1054 || c.CmdAlt == 60002 || c.CmdAlt == 1000007)
            c.CmdAlt = 7;
        c.Position = int32_t(rng()), c.Start = int32_t(rng()), c.End = int32_t(rng());
        std::string clip = randomText(rng, 8), file = rng() % 4 ? randomText(rng, 300) : "";
        std::memcpy(c.ClipID, clip.data(), clip.size());
        std::memcpy(c.FileName, file.data(), file.size());

        MediaCmd back;
        std::string xml = mctest::toXml(c, kTypes[i % 12]);
        ASSERT_EQ(MediaCmdFromXMLString(&back, nullptr, xml.c_str()), 0u) << xml;
        const uint32_t f = c.Flags;
        const bool speedWritten = (f & (cfUseSpeed | cfIsShuttle)) || c.Cmd == ctPlay || c.Cmd == ctRecord;
        const bool cmdAltWritten = f & (cfUseCmdAlt | cfTimeMs | cfTimeTarget | cfTimeHouseClock);
        uint32_t expected = (f & ~kNotCarried & ~(cfUseSpeed | cfUseCmdAlt | cfUseStart | cfUseEnd)) | cfUsePosition;
        if (speedWritten) expected |= cfUseSpeed;
        if (cmdAltWritten) expected |= cfUseCmdAlt;
        if (f & (cfUseStart | cfUseStartOffset)) expected |= cfUseStart;
        if (f & (cfUseEnd | cfUseEndOffset)) expected |= cfUseEnd;
        SCOPED_TRACE(xml);
        EXPECT_EQ(back.Flags, expected);
        EXPECT_EQ(back.Cmd, c.Cmd);
        EXPECT_EQ(back.Channel, c.Channel);
        EXPECT_EQ(back.Speed, (f & cfUseSpeed) ? c.Speed : speedWritten ? 65520 : 0x7FFFFFFF);
        EXPECT_EQ(back.VideoChannels, (f & cfUsePresets) ? c.VideoChannels : 0xFFFFFFFFu);
        EXPECT_EQ(back.InfoChannels, (f & cfUsePresets) ? c.InfoChannels : 0xFFFFFFFFu);
        EXPECT_EQ(back.CmdAlt, cmdAltWritten ? c.CmdAlt : -1);
        EXPECT_EQ(back.Position, c.Position);
        EXPECT_EQ(back.Start, (f & (cfUseStart | cfUseStartOffset)) ? c.Start : -1);
        EXPECT_EQ(back.End, (f & (cfUseEnd | cfUseEndOffset)) ? c.End : -1);
        EXPECT_EQ(std::memcmp(mctest::area(back), mctest::area(c), MEDIACMD_SIZE - 76), 0);
    }
}
