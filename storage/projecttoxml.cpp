// Project document: a clip file and an EDL file with their texts embedded,
// and named settings, in one XML file.
#include <tinyxml2.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qnvutil/storage.h"
#include "storage/project_internal.h"

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace qnv {

void projectFileBeside(const char* xmlPath, const char* name, char* out) {
    char drive[QX_MAX_DRIVE], dir[QX_MAX_DIR], fname[QX_MAX_FNAME], ext[QX_MAX_EXT];
    qxOSSplitPath(xmlPath, drive, dir, nullptr, nullptr);
    const char* base = name;
    for (const char* p = name; *p != '\0'; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;
    qxOSSplitPath(base, nullptr, nullptr, fname, ext);
    qxOSMakePath(out, drive, dir, fname, ext);
}

}  // namespace qnv

namespace {

constexpr size_t kMaxName = QX_PROJECT_NAME_SIZE - 1;

const char kClipList[] = "ClipList";
const char kEdlList[] = "EdlList";
const char kSettings[] = "Settings";
const char kData[] = "Data";

// guard: names keep at most 259 characters and their terminator
void copyName(char* destination, const char* source) {
    size_t n = source != nullptr ? strnlen(source, kMaxName) : 0;
    if (n != 0) std::memcpy(destination, source, n);
    destination[n] = '\0';
}

// Copies a name out to a caller's buffer of QX_PROJECT_NAME_SIZE; 0.
uint32_t copyOut(char* destination, const char* name) {
    if (destination != nullptr) copyName(destination, name);
    return 0;
}

// The top-level element `name`, created at the end when the document has
// none; `handle` is kept pointing at it.
XMLElement* topElement(XMLDocument* document, XMLElement*& handle, const char* name) {
    handle = document->FirstChildElement(name);
    if (handle == nullptr) handle = document->InsertEndChild(document->NewElement(name))->ToElement();
    return handle;
}

// Length of the UTF-8 sequence starting at p (a byte >= 0x80), 0 when the
// bytes there are not well-formed UTF-8.
size_t utf8Length(const unsigned char* p) {
    const unsigned char c = p[0];
    size_t n = c >= 0xC2 && c <= 0xDF ? 2 : c >= 0xE0 && c <= 0xEF ? 3 : c >= 0xF0 && c <= 0xF4 ? 4 : 0;
    for (size_t i = 1; i < n; ++i)
        if ((p[i] & 0xC0) != 0x80) return 0;
    if (n == 3 && ((c == 0xE0 && p[1] < 0xA0) || (c == 0xED && p[1] >= 0xA0))) return 0;  // overlong, surrogate
    if (n == 4 && ((c == 0xF0 && p[1] < 0x90) || (c == 0xF4 && p[1] >= 0x90))) return 0;  // overlong, too large
    return n;
}

// Writes attribute values so that any XML parser reads back the same
// characters: the markup characters as entities; tabs, line breaks and other
// control characters as character references (a parser would turn them into
// spaces or drop carriage returns if they stood as they are); UTF-8
// characters as they are; and every other byte above 127 as the reference
// of the ISO 8859-1 character of that value, so the file stays well-formed.
class EscapingPrinter : public tinyxml2::XMLPrinter {
public:
    bool VisitEnter(const XMLElement& element, const tinyxml2::XMLAttribute* attribute) override {
        const XMLElement* parent = element.Parent() != nullptr ? element.Parent()->ToElement() : nullptr;
        OpenElement(element.Name(), parent != nullptr && CompactMode(*parent));
        for (; attribute != nullptr; attribute = attribute->Next()) {
            Putc(' ');
            Write(attribute->Name());
            Write("=\"");
            writeValue(attribute->Value());
            Putc('"');
        }
        return true;
    }

private:
    void writeValue(const char* value) {
        const char* run = value;  // characters written as they are
        for (const char* p = value; *p != '\0'; ++p) {
            const unsigned char c = static_cast<unsigned char>(*p);
            const char* entity = c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : c == '"' ? "&quot;" : nullptr;
            if (entity == nullptr && c >= 0x20 && c < 0x80) continue;
            if (c >= 0x80) {
                if (size_t n = utf8Length(reinterpret_cast<const unsigned char*>(p)); n != 0) {
                    p += n - 1;
                    continue;
                }
            }
            Write(run, static_cast<size_t>(p - run));
            if (entity != nullptr) {
                Write(entity);
            } else {
                char reference[8];
                std::snprintf(reference, sizeof reference, "&#%u;", c);
                Write(reference);
            }
            run = p + 1;
        }
        Write(run);
    }
};

// Resolves the entities and character references of an attribute value the
// way the printer above writes them: references up to 255 stand for that
// byte, larger ones for the character's UTF-8 bytes. Anything else stays as
// it is.
std::string resolveReferences(const char* value) {
    static const struct {
        const char* name;
        char c;
    } kEntities[] = {{"amp;", '&'}, {"lt;", '<'}, {"gt;", '>'}, {"quot;", '"'}, {"apos;", '\''}};
    std::string out;
    for (const char* p = value; *p != '\0'; ++p) {
        if (*p != '&') {
            out.push_back(*p);
            continue;
        }
        bool done = false;
        for (const auto& e : kEntities) {
            size_t n = std::strlen(e.name);
            if (std::strncmp(p + 1, e.name, n) == 0) {
                out.push_back(e.c);
                p += n;
                done = true;
                break;
            }
        }
        if (!done && p[1] == '#') {
            const bool hex = p[2] == 'x';
            char* end = nullptr;
            unsigned long code = std::strtoul(p + (hex ? 3 : 2), &end, hex ? 16 : 10);
            if (end != p + (hex ? 3 : 2) && *end == ';' && code != 0 && code <= 0x10FFFF) {
                if (code <= 0xFF) {
                    out.push_back(static_cast<char>(code));
                } else {
                    static const unsigned long kLead[] = {0, 0xC0, 0xE0, 0xF0};
                    const int extra = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
                    out.push_back(static_cast<char>(kLead[extra] | (code >> (6 * extra))));
                    for (int i = extra - 1; i >= 0; --i) out.push_back(static_cast<char>(0x80 | ((code >> (6 * i)) & 0x3F)));
                }
                p = end;
                done = true;
            }
        }
        if (!done) out.push_back('&');
    }
    return out;
}

// After a load, every attribute holds its bytes again (the document is
// parsed without entity processing, so that a reference to a byte and the
// byte itself stay apart).
void resolveDocument(XMLDocument* document) {
    for (XMLElement* e = document->FirstChildElement(); e != nullptr; e = e->NextSiblingElement())
        for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next())
            if (std::strchr(a->Value(), '&') != nullptr) e->SetAttribute(a->Name(), resolveReferences(a->Value()).c_str());
}

// The file's whole text, NUL-terminated, in a QxAlloc block (null when it
// cannot be read or is empty).
char* readWholeFile(const char* path) {
    QXFILE file = qxOSCreateFile(path, QX_GENERIC_READ, 1, nullptr, QX_OPEN_EXISTING, 0, nullptr);
    if (file == QX_INVALID_FILE) return nullptr;
    char* text = nullptr;
    int64_t size = 0;
    // guard: size + 1 must be countable in 32 bits
    if (qxOSGetFileSizeEx(file, &size) && size >= 0 && size < 0xFFFFFFFF) {
        text = static_cast<char*>(QxAlloc(static_cast<uint32_t>(size) + 1));
        uint32_t got = 0;
        if (text != nullptr && qxOSReadFile(file, text, static_cast<uint32_t>(size), &got, nullptr) && got > 0) {
            text[got] = '\0';
        } else {
            QxFree(text);
            text = nullptr;
        }
    }
    qxOSCloseFile(file);
    return text;
}

// Names the file in `nameAttribute` and embeds its text as "Data".
void embedFile(XMLElement* element, const char* nameAttribute, char* field, const char* path) {
    copyName(field, path);
    element->SetAttribute(nameAttribute, field);
    char* text = readWholeFile(field);
    if (text != nullptr) {
        element->SetAttribute(kData, text);
        QxFree(text);
    }
}

// Writes `text` into a new file (never over an existing one).
void createFile(const char* path, const char* text) {
    QXFILE file = qxOSCreateFile(path, QX_GENERIC_WRITE, 0, nullptr, QX_CREATE_NEW, 0, nullptr);
    if (file == QX_INVALID_FILE) return;
    size_t left = std::strlen(text);
    while (left > 0) {
        uint32_t piece = left > (1u << 30) ? 1u << 30 : static_cast<uint32_t>(left);
        uint32_t written = 0;
        if (!qxOSWriteFile(file, text, piece, &written, nullptr)) break;
        text += written;
        left -= written;
    }
    qxOSCloseFile(file);
}

// Recreates the file that `element` names in `nameAttribute` when it exists
// neither under its name nor next to the XML file. `name` receives the name.
void restoreFile(const char* xmlPath, const XMLElement* element, const char* nameAttribute, char* name,
                 bool needsData) {
    copyName(name, element->Attribute(nameAttribute));
    if (qxOSFileExists(name)) return;
    char beside[QX_MAX_PATH];
    qnv::projectFileBeside(xmlPath, name, beside);
    if (qxOSFileExists(beside)) return;
    const char* data = element->Attribute(kData);
    if (data == nullptr) data = "";
    if (needsData && *data == '\0') return;
    createFile(beside, data);
}

}  // namespace

CQxProjectToXML::CQxProjectToXML() : document(new XMLDocument(false)) {
    std::memset(xmlName, 0, sizeof xmlName);
    std::memset(clipFile, 0, sizeof clipFile);
    std::memset(edlName, 0, sizeof edlName);
    // Empty encoding and standalone values are left out of the declaration.
    document->InsertEndChild(document->NewDeclaration("xml version=\"1.0\""));
    // Three top-level elements side by side, no common root: the file format.
    clipList = document->InsertEndChild(document->NewElement(kClipList))->ToElement();
    edlList = document->InsertEndChild(document->NewElement(kEdlList))->ToElement();
    settings = document->InsertEndChild(document->NewElement(kSettings))->ToElement();
}

CQxProjectToXML::~CQxProjectToXML() {
    delete document;
    document = nullptr;
    clipList = edlList = settings = nullptr;
}

// Shallow on purpose (see the header). The document this object held goes
// unless the source shares it.
CQxProjectToXML& CQxProjectToXML::operator=(const CQxProjectToXML& other) {
    if (this == &other) return *this;
    if (document != other.document) delete document;
    std::memcpy(xmlName, other.xmlName, sizeof xmlName);
    std::memcpy(clipFile, other.clipFile, sizeof clipFile);
    std::memcpy(edlName, other.edlName, sizeof edlName);
    document = other.document;
    clipList = other.clipList;
    edlList = other.edlList;
    settings = other.settings;
    return *this;
}

uint32_t CQxProjectToXML::SetXMLName(const char* name) {
    copyName(xmlName, name);
    return 0;
}

uint32_t CQxProjectToXML::GetXMLName(char* destination) const {
    return copyOut(destination, xmlName);
}

uint32_t CQxProjectToXML::SetClipFile(const char* path) {
    embedFile(topElement(document, clipList, kClipList), "FileName", clipFile, path);
    return 0;
}

uint32_t CQxProjectToXML::GetClipFile(char* destination) const {
    return copyOut(destination, clipFile);
}

uint32_t CQxProjectToXML::SetEDLName(const char* path) {
    embedFile(topElement(document, edlList, kEdlList), "EdlName", edlName, path);
    return 0;
}

uint32_t CQxProjectToXML::GetEDLName(char* destination) const {
    return copyOut(destination, edlName);
}

uint32_t CQxProjectToXML::SetConfigDWORD(const char* name, uint32_t value) {
    if (name != nullptr) topElement(document, settings, kSettings)->SetAttribute(name, value);
    return 0;
}

uint32_t CQxProjectToXML::GetConfigDWORD(const char* name) const {
    const XMLElement* element = document->FirstChildElement(kSettings);
    const char* text = element != nullptr && name != nullptr ? element->Attribute(name) : nullptr;
    if (text == nullptr) return 0;
    // Signed decimal, kept to 32 bits: "-1" and "4294967295" both give
    // 0xFFFFFFFF, so every value SetConfigDWORD wrote comes back.
    return static_cast<uint32_t>(static_cast<uint64_t>(std::strtoll(text, nullptr, 10)));
}

uint32_t CQxProjectToXML::SetConfigString(const char* name, const char* value) {
    if (name != nullptr) topElement(document, settings, kSettings)->SetAttribute(name, value != nullptr ? value : "");
    return 0;
}

uint32_t CQxProjectToXML::GetConfigString(const char* name, char* destination) const {
    const XMLElement* element = document->FirstChildElement(kSettings);
    const char* text = element != nullptr && name != nullptr ? element->Attribute(name) : nullptr;
    if (text != nullptr && destination != nullptr) copyName(destination, text);
    return 0;
}

uint32_t CQxProjectToXML::LoadXMLFile(const char* path) {
    clipFile[0] = edlName[0] = '\0';
    copyName(xmlName, path);
    const bool loaded = document->LoadFile(xmlName) == tinyxml2::XML_SUCCESS;
    resolveDocument(document);
    // The old elements went with the old content.
    clipList = document->FirstChildElement(kClipList);
    edlList = document->FirstChildElement(kEdlList);
    settings = document->FirstChildElement(kSettings);

    if (clipList != nullptr) {
        restoreFile(xmlName, clipList, "FileName", clipFile, true);  // only with embedded text
        if (edlList != nullptr) restoreFile(xmlName, edlList, "EdlName", edlName, false);
    }
    return loaded ? 1 : 0;
}

uint32_t CQxProjectToXML::SaveXMLFile() {
    EscapingPrinter printer;
    document->Print(&printer);
    QXFILE file = qxOSCreateFile(xmlName, QX_GENERIC_WRITE, 0, nullptr, QX_CREATE_ALWAYS, 0, nullptr);
    if (file == QX_INVALID_FILE) return 0;
    uint32_t written = 0;
    const uint32_t size = static_cast<uint32_t>(printer.CStrSize() - 1);  // without the terminator
    const bool saved = qxOSWriteFile(file, printer.CStr(), size, &written, nullptr) && written == size;
    qxOSCloseFile(file);
    return saved ? 1 : 0;
}
