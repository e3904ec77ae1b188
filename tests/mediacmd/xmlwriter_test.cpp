// MediaCmd XML writer: whole documents, number formats, timecode texts and
// the data-area layouts.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <iterator>
#include <random>
#include <tuple>

#include "tests/mediacmd/mediacmd_test.h"

using mctest::body;
using mctest::record;
using mctest::toXml;

TEST(MediaCmdWriter, FreshStopRecord) {
    MediaCmd c = record(ctStop);
    EXPECT_EQ(toXml(c, 0),
              "<?xml version=\"1.0\" encoding=\"iso-8859-1\"?><MediaCmd>"
              "<!-- Velmora MEDIACMD xml structure version 1,0 -->"
              "<CmdID Value=\"-98237952\"/><StructSize Value=\"4188\"/><Channel Value=\"-1\"/>"
              "<Cmd Value=\"0\">Stop</Cmd><Position Value=\"-1\" TcType=\"frames\">-1</Position></MediaCmd>");
    // Into a caller's document: the declaration first, then the root.
    tinyxml2::XMLDocument doc;
    EXPECT_EQ(MediaCmdToXML(&doc, &c, 255), 0u);
    ASSERT_NE(doc.FirstChild()->ToDeclaration(), nullptr);
    EXPECT_STREQ(doc.FirstChild()->NextSibling()->Value(), "MediaCmd");
    EXPECT_STREQ(doc.RootElement()->FirstChildElement("Position")->Attribute("TcType"), "frames");
}

TEST(MediaCmdWriter, HeaderLinksAndCommandFlags) {
    MediaCmd c = record(25);
    c.prev = reinterpret_cast<MediaCmd*>(uintptr_t(0x123456789));
    c.list = reinterpret_cast<void*>(uintptr_t(0xFFFFFFFF80000000));
    c.Channel = 7;
    c.Flags = 0xFFFFFFFFu & ~(cfUseSpeed | cfUsePresets | cfUseClipID | cfTimeMs | cfTimeTarget | cfTimeHouseClock |
                              cfUseCmdAlt | cfUseStart | cfUseStartOffset | cfUseEnd | cfUseEndOffset | cfIsShuttle);
    std::string s = toXml(c);
    EXPECT_NE(s.find("--><prev Value=\"591751049\"/><list Value=\"-2147483648\"/><CmdID"), std::string::npos) << s;
    EXPECT_EQ(body(c),
              "<Cmd Value=\"25\" Deferred=\"1\" OverrideDeferred=\"1\" Loop=\"1\" Trigger=\"1\" Ripple=\"1\" Invert=\"1\" "
              "Test=\"1\" NoReturn=\"1\" UseAllIDs=\"1\" NoClipFiles=\"1\" NoTCSpaces=\"1\">Unknown</Cmd>"
              "<Position Value=\"-1\" TcType=\"frames\" IsOffset=\"1\" UsingCurrent=\"1\" UsingFrameCount=\"1\" "
              "IsFieldCount=\"1\">-1</Position>");
}

TEST(MediaCmdWriter, SpeedElement) {
    MediaCmd c = record(ctPlay);
    c.Speed = 32760;
    EXPECT_EQ(body(c), "<Cmd Value=\"2\">Play</Cmd><Speed Value=\"65520\">50</Speed>"
                       "<Position Value=\"-1\" TcType=\"frames\">-1</Position>");
    c.Speed = 0x7FFFFFFF;  // Speed * 100 wraps to -100
    EXPECT_NE(body(c).find("<Speed Value=\"65520\">0</Speed>"), std::string::npos);
    c = record(ctEject);
    c.Flags = cfIsShuttle;
    c.Speed = -98280;
    EXPECT_NE(body(c).find("<Speed Value=\"65520\" IsShuttle=\"1\">-150</Speed>"), std::string::npos);
    c.Flags = cfUseSpeed;
    EXPECT_NE(body(c).find("<Speed Value=\"-98280\">-150</Speed>"), std::string::npos);
    c.Flags = 0;
    EXPECT_EQ(body(c).find("<Speed"), std::string::npos);
}

TEST(MediaCmdWriter, ChannelsCmdAltAndTimecodes) {
    MediaCmd c = record(ctPlay);
    c.Flags = cfUseSpeed | cfUsePresets | cfUseFrameCount | cfTimeMs | cfUseEnd;
    c.Speed = 0;
    c.VideoChannels = 107892, c.AudioChannels = 3;
    c.CmdAlt = 40;
    c.Position = 120;
    c.End = 1798;
    EXPECT_EQ(body(c, 4),
              "<Cmd Value=\"2\">Play</Cmd><Speed Value=\"0\">0</Speed>"
              "<ctltimecode Value=\"107892\" TcType=\"drop-frame\">01:00:00;00</ctltimecode>"
              "<ltctimecode Value=\"3\" TcType=\"drop-frame\">00:00:00;03</ltctimecode>"
              "<vitctimecode Value=\"-1\" TcType=\"drop-frame\">39808:01:25;11</vitctimecode>"
              "<VideoChannels Value=\"107892\"/><AudioChannels Value=\"3\"/><InfoChannels Value=\"-1\"/>"
              "<CmdAlt Value=\"40\" TimeMs=\"1\"/>"
              "<Position Value=\"120\" TcType=\"drop-frame\" UsingFrameCount=\"1\">00:00:04;00</Position>"
              "<End Value=\"1798\" TcType=\"drop-frame\" UsingFrameCount=\"1\">00:00:59;28</End>");
    // Frames: positions in decimal, channel timecodes as unsigned counts.
    std::string s = body(c, 0);
    EXPECT_NE(s.find("TcType=\"frames\">4294967295</vitctimecode>"), std::string::npos);
    EXPECT_NE(s.find("UsingFrameCount=\"1\">1798</End>"), std::string::npos);
    // A type outside the table gets no TcType and counts as 30 non-drop.
    s = body(c, 3);
    EXPECT_NE(s.find("<ctltimecode Value=\"107892\">00:59:56:12<"), std::string::npos);
    // Only the low byte of the type counts in the string form.
    EXPECT_EQ(body(c, 0x104), body(c, 4));
}

TEST(MediaCmdWriter, StartAndEndOfQueueValuesAtSixtyFrames) {
    MediaCmd c = record(ctSetValue);
    c.Flags = cfUseStart | cfUseEndOffset;
    c.Start = c.End = 120;
    auto texts = [&](int32_t cmdAlt) {
        c.CmdAlt = cmdAlt;
        tinyxml2::XMLDocument doc;
        MediaCmdToXML(&doc, &c, 4);
        const tinyxml2::XMLElement* root = doc.RootElement();
        return std::string(root->FirstChildElement("Start")->GetText()) + " " +
               root->FirstChildElement("End")->GetText();
    };
    EXPECT_EQ(texts(-1), "00:00:02:00 00:00:04;00");  // unset CmdAlt is above 1100000 unsigned
    EXPECT_EQ(texts(1100000), "00:00:04;00 00:00:04;00");
    EXPECT_EQ(texts(gsInsertqueue), "00:00:02:00 00:00:02:00");
    EXPECT_EQ(texts(gsXlatqueue), "00:00:02:00 00:00:02:00");
    c.Cmd = ctPlay;
    EXPECT_EQ(texts(gsInsertqueue), "00:00:02:00 00:00:04;00");
    EXPECT_NE(body(c, 0).find("<Start Value=\"120\" TcType=\"frames\">120</Start>"), std::string::npos);
    EXPECT_NE(body(c, 0).find("<End Value=\"120\" TcType=\"frames\" IsOffset=\"1\">120</End>"), std::string::npos);
}

namespace {
// The data-area part of the text: everything after Position.
std::string dataPart(MediaCmd& c) {
    std::string s = body(c);
    size_t p = s.find("</Position>");
    return p == std::string::npos ? s : s.substr(p + 11);
}
MediaCmd clip(int32_t command, int32_t cmdAlt, const char* clipId, const char* fileName) {
    MediaCmd c = record(uint32_t(command));
    c.Flags = cfUseClipID;
    c.CmdAlt = cmdAlt;
    std::strncpy(c.ClipID, clipId, 8);
    std::strcpy(c.FileName, fileName);
    return c;
}
}  // namespace

TEST(MediaCmdWriter, ClipIdAndFileName) {
    MediaCmd c = clip(ctPlay, 162, "AB12", "name$12$34");
    EXPECT_EQ(dataPart(c), "<ClipID>AB12</ClipID><UniqueID>12$34</UniqueID><FileName>name</FileName>");
    EXPECT_STREQ(c.FileName, "name") << "the record is cut at the $";
    c.ClipID[8] = 'x';  // one long name: nothing for 162
    EXPECT_EQ(dataPart(c), "");

    c = clip(ctSetValue, gsMetadata, "A&<", "");
    EXPECT_EQ(dataPart(c), "<ClipID>A&amp;&lt;</ClipID><FileName>A&amp;&lt;</FileName>");
    c.CmdAlt = 151;
    EXPECT_EQ(dataPart(c), "<ClipID>A&amp;&lt;</ClipID>");

    // A file name is written only when it ends before the last byte.
    c = clip(ctRecord, -1, "", "");
    std::memset(c.FileName, 'f', 4101);
    EXPECT_EQ(dataPart(c).size(), std::string("<ClipID></ClipID><FileName></FileName>").size() + 4101);
    c.FileName[4101] = 'f';
    EXPECT_EQ(dataPart(c), "<ClipID></ClipID>");

    // One long name from offset 76 while byte 84 is not zero.
    c = clip(ctPlay, -1, "", "");
    std::strcpy(mctest::area(c), "0123456789-long-name");
    EXPECT_EQ(dataPart(c), "<FileName>0123456789-long-name</FileName>");
    c.StructSize = 77 + 20;  // the name is StructSize - 77 long: left out
    EXPECT_EQ(dataPart(c), "");
    c.StructSize = 77 + 21;
    EXPECT_EQ(dataPart(c), "<FileName>0123456789-long-name</FileName>");
}

TEST(MediaCmdWriter, MetaTags) {
    MediaCmd c = clip(ctGetValue, gsMetabasegettag, "TITLE", "");
    c.Start = -5;
    EXPECT_EQ(dataPart(c), "<MetaTag>TITLE</MetaTag><MetaData>-5</MetaData>");
    std::strcpy(mctest::area(c), "REPLAY_COUNT");
    std::strcpy(mctest::area(c) + 13, "data");
    c.Speed = 1;
    c.End = 12;
    c.InfoChannels = 9;
    EXPECT_EQ(dataPart(c), "<MetaTag>REPLAY_COUNT</MetaTag><MetaData>data</MetaData><PageRequest>9</PageRequest>");
    c.End = 5000;  // guard: past the record reads as empty
    EXPECT_NE(dataPart(c).find("<MetaData></MetaData>"), std::string::npos);
}

TEST(MediaCmdWriter, ChannelAliasWalk) {
    MediaCmd c = clip(ctSetValue, gsChannelname, "", "");
    const char aliases[] = "Cam A\0Bx\0C\0D\0E\0F\0G\0H";
    std::memcpy(mctest::area(c) + 9, aliases, sizeof aliases);
    EXPECT_EQ(dataPart(c),
              "<channelalias>Cam A</channelalias><channel1alias>Cam A</channel1alias><channel2alias>x</channel2alias>"
              "<channel3alias>C</channel3alias><channel4alias>D</channel4alias><channel5alias>E</channel5alias>"
              "<channel6alias>F</channel6alias><channel7alias>G</channel7alias>"
              "<ClipID></ClipID><FileName>Cam A</FileName>");
    // A one-character second alias is not passed: the walk reads it again.
    const char shortSecond[] = "Cam A\0B\0C";
    std::memcpy(mctest::area(c) + 9, shortSecond, sizeof shortSecond);
    EXPECT_EQ(dataPart(c),
              "<channelalias>Cam A</channelalias><channel1alias>Cam A</channel1alias>"
              "<channel3alias>B</channel3alias><channel4alias>C</channel4alias><ClipID></ClipID><FileName>Cam A</FileName>");
    std::memset(c.FileName, 0, 10);
    EXPECT_EQ(dataPart(c), "<channelalias></channelalias><ClipID></ClipID>");
}

TEST(MediaCmdWriter, AddressesAndChannelName) {
    MediaCmd c = clip(ctSetValue, gsIpvideosettings, "", "");
    const char ips[] = "10.0.0.1\0" "10.0.0.2\0" "eth0";
    std::memcpy(mctest::area(c), ips, sizeof ips);
    c.Start = 1, c.End = 2, c.AudioChannels = 3;
    EXPECT_EQ(dataPart(c),
              "<destinationipaddress>10.0.0.1</destinationipaddress><sourceipaddress>10.0.0.2</sourceipaddress>"
              "<interfaceipaddress>eth0</interfaceipaddress><Start Value=\"1\"/><End Value=\"2\"/>"
              "<AudioChannels Value=\"3\"/><ClipID>10.0.0.1</ClipID><FileName>10.0.0.2</FileName>");
    c.CmdAlt = gsIpvideoclock;
    EXPECT_EQ(dataPart(c), "<clockipaddress>10.0.0.1</clockipaddress><ClipID>10.0.0.1</ClipID><FileName>10.0.0.2</FileName>");
    c.CmdAlt = gsQnvtype;
    EXPECT_EQ(dataPart(c), "<chanName>10.0.0.1</chanName>");
}

TEST(MediaCmdWriter, ArbitraryDataAsHexOrBase64) {
    MediaCmd c = clip(ctSetValue, gsFramedata, "", "");
    c.ClipID[0] = '\x0A';
    c.FileName[4102] = '\xFF';
    tinyxml2::XMLDocument doc;
    MediaCmdToXML(&doc, &c, 0);
    const tinyxml2::XMLElement* arb = doc.RootElement()->FirstChildElement("arbID");
    ASSERT_NE(arb, nullptr);
    EXPECT_EQ(arb->NextSiblingElement(), nullptr);
    EXPECT_STREQ(arb->FirstAttribute()->Name(), "Type");
    EXPECT_STREQ(arb->Attribute("Type"), "hex");
    EXPECT_EQ(arb->IntAttribute("length"), 4112);
    const std::string hex = arb->GetText();
    EXPECT_EQ(std::tuple(hex.size(), hex.substr(0, 4), hex.substr(8220)), std::tuple(8224u, "0A00", "00FF"));

    c.CmdAlt = gsPreviewframe;
    c.StructSize = 76 + 3;
    c.Flags |= cfNoTCSpaces;
    std::memcpy(c.ClipID, "foo", 3);
    EXPECT_EQ(dataPart(c), "<arbID Type=\"base64\" length=\"3\">Zm9v</arbID>");
    c.StructSize = 50;  // guard: no data area, no bytes
    EXPECT_EQ(dataPart(c), "<arbID Type=\"base64\" length=\"0\"></arbID>");
    c.Flags |= cfUsingCurrent;
    EXPECT_EQ(dataPart(c), "");
}

TEST(MediaCmdWriter, FreeString) {
    EXPECT_EQ(MediaCmdFreeXMLString(nullptr), 0u);
    char* text = nullptr;
    EXPECT_EQ(MediaCmdFreeXMLString(&text), 0u);
    EXPECT_EQ(MediaCmdToXMLString(&text, nullptr, 0), 0u);
    EXPECT_EQ(text, nullptr) << "nothing written, nothing stored";
}

TEST(MediaCmdWriter, TextIsThePrintedDocument) {
    // The string form streams the text; it must match printing the document
    // for every layout of the data area, and change the record alike.
    std::mt19937 rng(7);
    const int32_t kAlts[] = {-1, gsFramedata, gsMetadata, gsMetabasefilename, gsMetabasegettag, gsIpvideosettings,
                             gsIpvideoclock, gsChannelname, gsQnvtype, gsPreviewframe, gsInsertqueue};
    for (int i = 0; i < 300; ++i) {
        MediaCmd c = record(rng() % 23);
        c.Flags = rng();
        c.CmdAlt = kAlts[i % std::size(kAlts)];
        c.StructSize = 60 + rng() % 200;
        c.Speed = int32_t(rng() % 3);
        c.End = int32_t(rng() % 40);
        for (size_t k = 0; k < 120; ++k) mctest::area(c)[k] = "ab$&<\0"[rng() % 6];
        const auto tcType = uint8_t(rng());
        MediaCmd viaDocument = c, viaText = c;
        tinyxml2::XMLDocument doc;
        MediaCmdToXML(&doc, &viaDocument, tcType);
        tinyxml2::XMLPrinter printer(nullptr, true);
        doc.Print(&printer);
        ASSERT_EQ(toXml(viaText, tcType), printer.CStr());
        ASSERT_EQ(std::memcmp(&viaDocument, &viaText, sizeof c), 0);
    }
}
