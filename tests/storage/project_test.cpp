// CQxProjectToXML: save-load round trips of the embedded texts, the document
// layout, recreation of missing files, settings and name bounds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

#include "qnvutil/storage.h"

namespace fs = std::filesystem;

namespace {

class Project : public CQxProjectToXML {
public:
    // Drops a document shared with another object, which deletes it.
    void forgetDocument() { document = nullptr; }
};

std::string slurp(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void spit(const fs::path& p, const std::string& text) { std::ofstream(p, std::ios::binary) << text; }

// What xmllint reads from `xpath` of a saved project, its three top-level
// elements wrapped in one root so that it is a whole XML document; nullopt
// when xmllint finds the document malformed.
std::optional<std::string> xmllintRead(const fs::path& saved, const std::string& xpath) {
    std::string text = slurp(saved);
    size_t body = text.find("?>") + 2;
    fs::path wrapped = saved.string() + ".wrapped";
    spit(wrapped, text.substr(0, body) + "<r>" + text.substr(body) + "</r>\n");
    std::string command = "xmllint --xpath 'string(/r/" + xpath + ")' '" + wrapped.string() + "' 2>/dev/null";
    FILE* pipe = ::popen(command.c_str(), "r");
    std::string out;
    for (int c; (c = std::fgetc(pipe)) != EOF;) out.push_back(static_cast<char>(c));
    if (::pclose(pipe) != 0) return std::nullopt;
    if (!out.empty() && out.back() == '\n') out.pop_back();  // xmllint ends its output with one
    return out;
}

bool haveXmllint() { return std::system("xmllint --version >/dev/null 2>&1") == 0; }

const std::string kTitle = "A \"quoted\" <title> & more";
const std::string kText =
    "001  CLIP1  V  C  01:00:00:00 01:00:10:00\r\n"
    "\tindented\tline\n"
    "quotes \" and ' ampersand & less < greater > semicolon ;\n"
    "  leading and trailing spaces  \r\n"
    "caf\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x8E\xAC\r\r\n\n";

// What a name getter writes.
std::string nameOf(const CQxProjectToXML& p, uint32_t (CQxProjectToXML::*get)(char*) const) {
    char name[QX_PROJECT_NAME_SIZE] = "untouched";
    (p.*get)(name);
    return name;
}

class ProjectFile : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("qnvproject-" + std::to_string(::getpid()) + "-" +
                                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
        fs::create_directories(dir / "a");
        fs::create_directories(dir / "b");
    }
    void TearDown() override { fs::remove_all(dir); }

    // Saves a project of clip and EDL files with these texts in folder a.
    fs::path save(const std::string& clipText, const std::string& edlText) {
        spit(dir / "a/clips.lst", clipText);
        spit(dir / "a/cut.edl", edlText);
        CQxProjectToXML p;
        p.SetClipFile((dir / "a/clips.lst").c_str());
        p.SetEDLName((dir / "a/cut.edl").c_str());
        p.SetConfigDWORD("Track", 7);
        p.SetConfigString("Title", kTitle.c_str());
        fs::path xml = dir / "a/project.xml";
        p.SetXMLName(xml.c_str());
        EXPECT_EQ(p.SaveXMLFile(), 1u);
        return xml;
    }
    // Copies the XML file alone to folder b and loads it there.
    uint32_t loadMoved(const fs::path& xml, CQxProjectToXML& p) {
        fs::copy_file(xml, dir / "b/project.xml", fs::copy_options::overwrite_existing);
        fs::remove(dir / "a/clips.lst");
        fs::remove(dir / "a/cut.edl");
        return p.LoadXMLFile((dir / "b/project.xml").c_str());
    }

    fs::path dir;
};

}  // namespace

TEST_F(ProjectFile, EmbeddedTextsComeBackByteForByte) {
    fs::path xml = save(kText, "TITLE: cut\r\nFCM: NON-DROP FRAME\r\n");
    std::string saved = slurp(xml);
    EXPECT_EQ(saved.rfind("<?xml version=\"1.0\"?>\n<ClipList FileName=\"", 0), 0u) << saved;
    EXPECT_LT(saved.find("<ClipList"), saved.find("<EdlList"));
    EXPECT_LT(saved.find("<EdlList"), saved.find("<Settings Track=\"7\""));
    EXPECT_EQ(saved.find_first_of("\t\r"), std::string::npos) << "raw tabs or CRs in attribute text";

    CQxProjectToXML p;
    ASSERT_EQ(loadMoved(xml, p), 1u);
    EXPECT_EQ(slurp(dir / "b/clips.lst"), kText);
    EXPECT_EQ(slurp(dir / "b/cut.edl"), "TITLE: cut\r\nFCM: NON-DROP FRAME\r\n");
    EXPECT_EQ(nameOf(p, &CQxProjectToXML::GetClipFile), (dir / "a/clips.lst").string()) << "as stored, not rebuilt";
    char text[QX_PROJECT_NAME_SIZE];
    p.GetConfigString("Title", text);
    EXPECT_EQ(text, kTitle);
    EXPECT_EQ(p.GetConfigDWORD("Track"), 7u);

    if (!haveXmllint()) GTEST_SKIP() << "xmllint not installed";
    EXPECT_EQ(xmllintRead(xml, "ClipList/@Data"), kText);
    EXPECT_EQ(xmllintRead(xml, "Settings/@Title"), kTitle);
}

TEST_F(ProjectFile, BytesOutsideUtf8AndControlCharactersRoundTrip) {
    std::string odd = "latin-1 caf\xE9, a lone \x80 and \xFF, bell \x07, escape \x1B[0m\x7F";
    CQxProjectToXML p;
    ASSERT_EQ(loadMoved(save(odd, odd + odd), p), 1u);
    EXPECT_EQ(slurp(dir / "b/clips.lst"), odd);
    EXPECT_EQ(slurp(dir / "b/cut.edl"), odd + odd);
}

TEST_F(ProjectFile, BytesAbove127StayWellFormedXml) {
    // UTF-8 text stands as it is; other bytes are written as ISO 8859-1
    // character references, which a conforming parser reads as those characters.
    const std::string text = "caf\xC3\xA9 & caf\xE9 \xE2\x82\xAC \xF0\x9F\x8E\xAC \xC3( \xED\xA0\x80";
    fs::path xml = save(text, "plain");
    EXPECT_NE(slurp(xml).find("caf\xC3\xA9 &amp; caf&#233; \xE2\x82\xAC \xF0\x9F\x8E\xAC &#195;( &#237;&#160;&#128;"),
              std::string::npos);
    CQxProjectToXML p;
    ASSERT_EQ(loadMoved(xml, p), 1u);
    EXPECT_EQ(slurp(dir / "b/clips.lst"), text);
    if (!haveXmllint()) GTEST_SKIP() << "xmllint not installed";
    EXPECT_EQ(xmllintRead(xml, "ClipList/@Data"),
              "caf\xC3\xA9 & caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xAC \xC3\x83( \xC3\xAD\xC2\xA0\xC2\x80");
}

TEST_F(ProjectFile, RecreatesOnlyWhatIsMissing) {
    fs::path xml = save("clip text", "edl text");
    // The files still exist under their stored names: nothing is written.
    CQxProjectToXML p;
    fs::copy_file(xml, dir / "b/project.xml");
    ASSERT_EQ(p.LoadXMLFile((dir / "b/project.xml").c_str()), 1u);
    EXPECT_FALSE(fs::exists(dir / "b/clips.lst") || fs::exists(dir / "b/cut.edl"));
    // Missing under the stored name, present next to the XML: kept as is.
    spit(dir / "b/clips.lst", "newer clip text");
    ASSERT_EQ(loadMoved(xml, p), 1u);
    EXPECT_EQ(slurp(dir / "b/clips.lst"), "newer clip text");
    EXPECT_EQ(slurp(dir / "b/cut.edl"), "edl text");
}

TEST_F(ProjectFile, EmptyDataRecreatesTheEdlButNotTheClipFile) {
    const fs::path xml = dir / "b/project.xml";
    spit(xml, "<?xml version=\"1.0\"?>\n<ClipList FileName=\"/nowhere/clips.lst\" Data=\"\"/>\n"
              "<EdlList EdlName=\"C:\\Projects\\cut.edl\"/>\n<Settings/>\n");
    CQxProjectToXML p;
    ASSERT_EQ(p.LoadXMLFile(xml.c_str()), 1u);
    EXPECT_FALSE(fs::exists(dir / "b/clips.lst"));
    ASSERT_TRUE(fs::exists(dir / "b/cut.edl")) << "named after the part behind the last backslash";
    EXPECT_EQ(fs::file_size(dir / "b/cut.edl"), 0u);

    // Without a ClipList the EDL is not looked at.
    fs::remove(dir / "b/cut.edl");
    spit(xml, "<EdlList EdlName=\"cut.edl\" Data=\"x\"/>");
    ASSERT_EQ(p.LoadXMLFile(xml.c_str()), 1u);
    EXPECT_FALSE(fs::exists(dir / "b/cut.edl"));
    EXPECT_EQ(nameOf(p, &CQxProjectToXML::GetEDLName), "");

    // A file that does not parse gives 0 and no names.
    spit(xml, "<ClipList FileName=\"clips.lst\" Data=\"x\"");
    EXPECT_EQ(p.LoadXMLFile(xml.c_str()), 0u);
    EXPECT_EQ(nameOf(p, &CQxProjectToXML::GetClipFile), "");
    EXPECT_FALSE(fs::exists(dir / "b/clips.lst"));
}

TEST_F(ProjectFile, SettingsAndSettersAfterALoad) {
    CQxProjectToXML p;
    EXPECT_EQ(p.GetConfigDWORD("Missing"), 0u);
    char text[QX_PROJECT_NAME_SIZE] = "untouched";
    p.GetConfigString("Missing", text);
    EXPECT_STREQ(text, "untouched");
    p.SetConfigString("Minus", "-1");
    p.SetConfigDWORD("Max", 0xFFFFFFFFu);
    EXPECT_EQ(std::pair(p.GetConfigDWORD("Minus"), p.GetConfigDWORD("Max")), std::pair(0xFFFFFFFFu, 0xFFFFFFFFu));
    p.SetConfigString("Long", std::string(300, 'x').c_str());
    p.GetConfigString("Long", text);
    EXPECT_EQ(std::string(text), std::string(259, 'x'));

    // A loaded document without a Settings element gains one on the first
    // setter; clip and EDL setters address the loaded elements.
    spit(dir / "b/project.xml", "<?xml version=\"1.0\"?>\n<ClipList FileName=\"x\"/>\n");
    ASSERT_EQ(p.LoadXMLFile((dir / "b/project.xml").c_str()), 1u);
    p.SetConfigDWORD("Rate", 25);
    spit(dir / "b/cut.edl", "edl");
    p.SetEDLName((dir / "b/cut.edl").c_str());
    p.SetClipFile("missing.lst");
    ASSERT_EQ(p.SaveXMLFile(), 1u);
    std::string saved = slurp(dir / "b/project.xml");
    EXPECT_NE(saved.find("<ClipList FileName=\"missing.lst\"/>"), std::string::npos) << saved;
    EXPECT_NE(saved.find("<Settings Rate=\"25\"/>"), std::string::npos) << saved;

    // A file that cannot be read leaves the embedded text as it was.
    p.SetEDLName("missing.edl");
    p.SaveXMLFile();
    saved = slurp(dir / "b/project.xml");
    EXPECT_NE(saved.find("<EdlList EdlName=\"missing.edl\" Data=\"edl\"/>"), std::string::npos) << saved;
}

TEST_F(ProjectFile, NamesKeepAtMost259Characters) {
    using P = CQxProjectToXML;
    const std::string longName = (dir / "b" / std::string(300, 'n')).string();
    P p;
    p.SetXMLName(longName.c_str());
    p.SetClipFile(longName.c_str());
    EXPECT_EQ(nameOf(p, &P::GetXMLName), longName.substr(0, 259));
    EXPECT_EQ(nameOf(p, &P::GetClipFile), longName.substr(0, 259));
    spit(dir / "b/project.xml", "<ClipList FileName=\"" + std::string(400, 'c') + "\"/><EdlList EdlName=\"" +
                                   std::string(400, 'e') + "\" Data=\"\"/>");
    ASSERT_EQ(p.LoadXMLFile((dir / "b/project.xml").c_str()), 1u);
    EXPECT_EQ(nameOf(p, &P::GetClipFile), std::string(259, 'c'));
    EXPECT_EQ(nameOf(p, &P::GetEDLName), std::string(259, 'e'));
}

TEST_F(ProjectFile, AssignmentSharesTheDocument) {
    CQxProjectToXML source;
    source.SetXMLName("source.xml");
    Project copy;
    static_cast<CQxProjectToXML&>(copy) = source;
    source.SetConfigDWORD("Shared", 3);
    EXPECT_EQ(copy.GetConfigDWORD("Shared"), 3u);
    EXPECT_EQ(nameOf(copy, &CQxProjectToXML::GetXMLName), "source.xml");
    copy.forgetDocument();
}

TEST_F(ProjectFile, ReferencesToCharactersAbove255ReadAsUtf8) {
    // From another writer: references of two, three and four UTF-8 bytes.
    spit(dir / "b/project.xml", "<ClipList FileName=\"c&#x100;&#9786;&#x1F3AC;.lst\" Data=\"&#x20AC;\"/>\n");
    CQxProjectToXML p;
    ASSERT_EQ(p.LoadXMLFile((dir / "b/project.xml").c_str()), 1u);
    EXPECT_EQ(nameOf(p, &CQxProjectToXML::GetClipFile), "c\xC4\x80\xE2\x98\xBA\xF0\x9F\x8E\xAC.lst");
    EXPECT_EQ(slurp(dir / "b/c\xC4\x80\xE2\x98\xBA\xF0\x9F\x8E\xAC.lst"), "\xE2\x82\xAC");
    // An empty clip file leaves the embedded text as it was.
    spit(dir / "b/empty.lst", "");
    p.SetClipFile((dir / "b/empty.lst").c_str());
    p.SetXMLName((dir / "b/saved.xml").c_str());
    ASSERT_EQ(p.SaveXMLFile(), 1u);
    EXPECT_NE(slurp(dir / "b/saved.xml").find("Data=\"\xE2\x82\xAC\""), std::string::npos);
}
