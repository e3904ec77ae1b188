// MediaCmd XML reader: fields, flags, the asymmetries with the writer, hostile
// documents, and the write-then-read round trip.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <memory>
#include <random>
#include <tuple>

#include "tests/mediacmd/mediacmd_test.h"

namespace {
// Reads `inner` wrapped in the MediaCmd root.
MediaCmd read(const std::string& inner, uint32_t* tcType = nullptr) {
    MediaCmd c;
    MediaCmdFromXMLString(&c, tcType, ("<?xml version=\"1.0\"?><MediaCmd>" + inner + "</MediaCmd>").c_str());
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
    // Leading spaces and signs taken, hex not, wrapping to 32 bits; text that
    // is not a number leaves the field as it was.
    const std::pair<const char*, uint32_t> rows[] = {
        {" 12abc", 12}, {"+5", 5}, {"0x10", 0}, {"4294967297", 1}, {"-99999999999999999999999", 0}, {"-", 0xFFFFFFFF}};
    for (auto [text, want] : rows) EXPECT_EQ(read(std::string("<Channel Value='") + text + "'/>").Channel, want) << text;
    MediaCmd c = read("<prev Value='-1'/><list Value='7'/>");
    EXPECT_EQ(reinterpret_cast<uintptr_t>(c.prev), 0xFFFFFFFFu) << "only the low half";
    EXPECT_EQ(reinterpret_cast<uintptr_t>(c.list), 7u);
}

TEST(MediaCmdReader, CommandNamesAndFlags) {
    // Names by prefix in any case ("Switch" reads as Stop); a numeric Value wins.
    const std::pair<const char*, uint32_t> commands[] = {
        {"<Cmd>Record</Cmd>", ctRecord}, {"<Cmd>recstopper</Cmd>", ctRecStop}, {"<Cmd>PLAYback</Cmd>", ctPlay},
        {"<Cmd>Switch</Cmd>", ctStop}, {"<Cmd>ValueSupported</Cmd>", ctValueSupported},
        {"<Cmd Value='x'>edit</Cmd>", ctEdit}, {"<Cmd Value='21'>Play</Cmd>", ctSwitch}};
    for (auto [xml, cmd] : commands) EXPECT_EQ(read(xml).Cmd, cmd) << xml;
    EXPECT_EQ(read("<Cmd Deferred='2' Loop='0' Trigger='1' Ripple='1' Invert='1' Test='1' NoReturn='1' "
                   "UseAllIDs='1' UseClipID='1' NoClipFiles='1' NoTCSpaces='1'/>")
                  .Flags,
              cfDeferred | cfTrigger | cfRipple | cfInvert | cfTest | cfNoReturn | cfUseAllIDs | cfUseClipID |
                  cfNoClipFiles | cfNoTCSpaces);
    // The one-r spelling decides when it is a number; the writer's spelling
    // is not read back.
    const std::pair<const char*, uint32_t> overrides[] = {
        {"<Cmd cfOverideDeferred='0' cfOverrideDeferred='1'/>", 0},
        {"<Cmd cfOverideDeferred='no' cfOverrideDeferred='1'/>", cfOverrideDeferred},
        {"<Cmd cfOverideDeferred='1'/>", cfOverrideDeferred}, {"<Cmd OverrideDeferred='1'/>", 0}};
    for (auto [xml, flags] : overrides) EXPECT_EQ(read(xml).Flags, flags) << xml;
}

TEST(MediaCmdReader, SpeedChannelsAndCmdAlt) {
    MediaCmd c = read("<Speed IsShuttle='1'>50</Speed><AudioChannels Value='3'/><CmdAlt Value='9' TimeTarget='1'/>");
    EXPECT_EQ(c.Speed, 0x7FFFFFFF) << "the percent text is not read";
    EXPECT_EQ(c.Flags, cfUseSpeed | cfIsShuttle | cfUsePresets | cfUseCmdAlt | cfTimeTarget);
    EXPECT_EQ(std::tuple(c.AudioChannels, c.VideoChannels, c.CmdAlt), std::tuple(3u, 0xFFFFFFFFu, 9));
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
    EXPECT_EQ(std::tuple(c.Position, c.Start, c.End), std::tuple(24, 48, 50));
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
    EXPECT_EQ(std::pair(c.StructSize, std::string(c.FileName, 5)), std::pair(90u, std::string("abcd\0", 5)));
    c = read("<StructSize Value='80'/><ClipID>ABCDEFGH</ClipID><FileName>x</FileName>");
    EXPECT_EQ(std::string(c.ClipID, 4), std::string("ABC\0", 4));
    EXPECT_EQ(c.FileName[0], 0);
    c = read("<ClipID/>");
    EXPECT_EQ(c.Flags, 0u);

    c = read("<arbID Type='base64' length='2'>0aFF77</arbID>");
    EXPECT_EQ(std::tuple(c.StructSize, std::string(c.ClipID, 3), c.Flags),
              std::tuple(78u, std::string("\x0A\xFF\0", 3), uint32_t(cfUseClipID)));
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
    // A StructSize read or derived from the text stays between the data
    // area's offset and the size the record came in with.
    const std::pair<const char*, uint32_t> sizes[] = {
        {"<StructSize Value='100000'/>", 4188}, {"<StructSize Value='-1'/>", 4188},
        {"<StructSize Value='0'/>", 76},        {"<arbID length='-1'>AA</arbID>", 76},
        {"<arbID length='0'/>", 76},            {"<arbID length='2147483647'/>", 4188}};
    for (auto [xml, want] : sizes) EXPECT_EQ(read(xml).StructSize, want) << xml;
    // A heap record of exactly 4188 bytes, so that any stray byte is caught.
    auto c = std::make_unique<MediaCmd>();
    std::string big(20000, '7');
    std::string xml = "<MediaCmd><StructSize Value='100000'/><arbID length='99999'>" + big + "</arbID><FileName>" +
                      big + "</FileName><sourceipaddress>" + big + "</sourceipaddress></MediaCmd>";
    EXPECT_EQ(MediaCmdFromXMLString(c.get(), nullptr, xml.c_str()), 0u);
    EXPECT_EQ(c->StructSize, 4188u);
    EXPECT_EQ(c->FileName[4102], 'w') << "arbID bytes 0x77 up to the record's end";
    xml = "<MediaCmd><prev Value='-1'/><StructSize Value='3'/><ClipID>" + big + "</ClipID><FileName>" + big +
          "</FileName></MediaCmd>";
    EXPECT_EQ(MediaCmdFromXMLString(c.get(), nullptr, xml.c_str()), 0u);
    EXPECT_EQ(c->StructSize, 76u);
    EXPECT_EQ(std::pair(reinterpret_cast<uintptr_t>(c->prev), c->CmdID), std::pair(uintptr_t(0xFFFFFFFF), MEDIACMD_ID))
        << "the header is not overwritten";
    EXPECT_EQ(std::pair(c->ClipID[0], c->FileName[4102]), std::pair('\0', '\0')) << "no data area, nothing copied";
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
        EXPECT_EQ(std::tuple(back.Cmd, back.Channel, back.Position), std::tuple(c.Cmd, c.Channel, c.Position));
        EXPECT_EQ(back.Speed, (f & cfUseSpeed) ? c.Speed : speedWritten ? 65520 : 0x7FFFFFFF);
        EXPECT_EQ(back.VideoChannels, (f & cfUsePresets) ? c.VideoChannels : 0xFFFFFFFFu);
        EXPECT_EQ(back.InfoChannels, (f & cfUsePresets) ? c.InfoChannels : 0xFFFFFFFFu);
        EXPECT_EQ(back.CmdAlt, cmdAltWritten ? c.CmdAlt : -1);
        EXPECT_EQ(back.Start, (f & (cfUseStart | cfUseStartOffset)) ? c.Start : -1);
        EXPECT_EQ(back.End, (f & (cfUseEnd | cfUseEndOffset)) ? c.End : -1);
        EXPECT_EQ(std::memcmp(mctest::area(back), mctest::area(c), MEDIACMD_SIZE - 76), 0);
    }
}
