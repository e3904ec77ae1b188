// XML document and text -> MediaCmd record.
#include <tinyxml2.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <memory>
#include <string>

#include "mediacmd/names.h"
#include "mediacmd/record.h"
#include "qnvutil/timecodetext.h"

namespace {

using tinyxml2::XMLElement;

// Reads a decimal as scanf's "%d" does: leading white space, a sign, at least
// one digit. The value is taken modulo 2^32 (beyond 64 bits it saturates
// first, as the C library's conversion does) instead of overflowing.
bool scanInt(const char* text, int32_t* value) {
    if (text == nullptr) return false;
    const char* p = text;
    while (*p == ' ' || (*p >= '\t' && *p <= '\r')) ++p;
    bool negative = *p == '-';
    if (*p == '-' || *p == '+') ++p;
    if (*p < '0' || *p > '9') return false;
    uint64_t magnitude = 0;
    bool saturated = false;
    for (; *p >= '0' && *p <= '9'; ++p) {
        if (magnitude > (UINT64_MAX - 9) / 10) saturated = true;
        else magnitude = magnitude * 10 + uint64_t(*p - '0');
    }
    uint64_t limit = negative ? uint64_t(INT64_MAX) + 1 : uint64_t(INT64_MAX);
    if (saturated || magnitude > limit) magnitude = limit;
    uint64_t bits = negative ? ~magnitude + 1 : magnitude;
    *value = static_cast<int32_t>(static_cast<uint32_t>(bits));
    return true;
}

// Name comparison that settles most mismatches on the first two characters.
bool sameName(const char* a, const char* b) { return a[0] == b[0] && a[1] == b[1] && std::strcmp(a, b) == 0; }

bool readAttribute(const XMLElement* e, const char* name, int32_t* value) {
    if (e == nullptr) return false;
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next())
        if (sameName(a->Name(), name)) return scanInt(a->Value(), value);
    return false;
}

// True when the element has an attribute other than Value and TcType (which
// every element of the writer's own text carries): only then can a flag be
// set on it.
bool hasOtherAttributes(const XMLElement* e) {
    for (const tinyxml2::XMLAttribute* a = e->FirstAttribute(); a != nullptr; a = a->Next())
        if (!sameName(a->Name(), "Value") && !sameName(a->Name(), "TcType")) return true;
    return false;
}

// The first child element of each name the reader looks at, found in one
// pass over the root; a name is compared only with the known names of its
// first character.
class Elements {
public:
    explicit Elements(const XMLElement* root) {
        for (const XMLElement* e = root->FirstChildElement(); e != nullptr; e = e->NextSiblingElement()) {
            const int i = index(e->Name());
            if (i >= 0 && found_[i] == nullptr) found_[i] = e;
        }
    }
    const XMLElement* operator[](const char* name) const {
        const int i = index(name);
        return i >= 0 ? found_[i] : nullptr;
    }

private:
    static constexpr const char* kNames[] = {
        "prev",          "next",          "list",         "CmdID",           "StructSize",           "Channel",
        "Cmd",           "Speed",         "VideoChannels", "AudioChannels",  "InfoChannels",         "CmdAlt",
        "Position",      "Start",         "End",          "ClipID",          "FileName",             "arbID",
        "sourceipaddress", "destinationipaddress", "clockipaddress", "interfaceipaddress",
    };
    static_assert(std::size(kNames) <= 32);
    // Bit i of entry c: kNames[i] begins with character c.
    struct ByFirst {
        uint32_t names[128] = {};
        constexpr ByFirst() {
            for (size_t i = 0; i < std::size(kNames); ++i) names[static_cast<unsigned char>(kNames[i][0])] |= 1u << i;
        }
    };
    static int index(const char* name) {
        static constexpr ByFirst kByFirst;
        const auto first = static_cast<unsigned char>(name[0]);
        for (uint32_t m = first < 128 ? kByFirst.names[first] : 0; m != 0; m &= m - 1) {
            const int i = __builtin_ctz(m);
            if (std::strcmp(name, kNames[i]) == 0) return i;
        }
        return -1;
    }
    const XMLElement* found_[std::size(kNames)] = {};
};

template <typename Field>
void readValue(const XMLElement* e, Field* field) {
    int32_t v;
    if (readAttribute(e, "Value", &v)) *field = static_cast<Field>(v);
}

class Reader {
public:
    Reader(MediaCmd* cmd, uint32_t tcType, const XMLElement* root)
        : cmd_(cmd), entrySize_(cmd->StructSize), tcType_(tcType), elements_(root) {}

    void read() {
        header();
        command();
        if (const XMLElement* e = child("Speed")) {
            readValue(e, &cmd_->Speed);
            cmd_->Flags |= cfUseSpeed;
            flag(e, "IsShuttle", cfIsShuttle);
        }
        uint32_t* masks[] = {&cmd_->VideoChannels, &cmd_->AudioChannels, &cmd_->InfoChannels};
        const char* maskNames[] = {"VideoChannels", "AudioChannels", "InfoChannels"};
        for (int i = 0; i < 3; ++i) {
            if (const XMLElement* e = child(maskNames[i])) {
                readValue(e, masks[i]);
                cmd_->Flags |= cfUsePresets;
            }
        }
        if (const XMLElement* e = child("CmdAlt")) {
            readValue(e, &cmd_->CmdAlt);
            cmd_->Flags |= cfUseCmdAlt;
            flag(e, "TimeMs", cfTimeMs);
            flag(e, "TimeTarget", cfTimeTarget);
            flag(e, "TimeHouseClock", cfTimeHouseClock);
        }
        position("Position", &cmd_->Position, cfUsePosition, cfUsePositionOffset, true);
        position("Start", &cmd_->Start, cfUseStart, cfUseStartOffset, true);
        position("End", &cmd_->End, cfUseEnd, cfUseEndOffset, false);
        clipID();
        fileName();
        arbitraryData();
        ipAddresses();
    }

private:
    const XMLElement* child(const char* name) const { return elements_[name]; }
    const char* text(const char* name) const {
        const XMLElement* e = child(name);
        return e != nullptr ? e->GetText() : nullptr;
    }
    bool flag(const XMLElement* e, const char* attribute, uint32_t bit) {
        int32_t v;
        if (!readAttribute(e, attribute, &v)) return false;
        if (v != 0) cmd_->Flags |= bit;
        return true;
    }
    char* bytes() const { return reinterpret_cast<char*>(cmd_); }
    // guard: every write into the data area stays below the StructSize the
    // record had on entry, whatever sizes the text claims.
    uint64_t room(uint64_t offset) const { return offset < entrySize_ ? entrySize_ - offset : 0; }
    // guard: a StructSize from the text keeps at least the fixed part and
    // never claims more bytes than the record was handed in with.
    uint32_t boundedSize(uint64_t size) const {
        return static_cast<uint32_t>(std::min<uint64_t>(std::max<uint64_t>(size, MEDIACMD_DATA_OFFSET), entrySize_));
    }
    // guard: single bytes go only into the data area; offsets in the header
    // or past the end are refused.
    void poke(uint64_t offset, char value) {
        if (room(offset) > 0 && offset >= MEDIACMD_DATA_OFFSET) bytes()[offset] = value;
    }
    // strncpy of at most `count` characters to `offset`, cut at the record's end.
    void copyText(uint64_t offset, const char* text, uint64_t count) {
        count = std::min(count, room(offset));
        if (count == 0) return;
        size_t n = ::strnlen(text, count);
        std::memcpy(bytes() + offset, text, n);
        std::memset(bytes() + offset + n, 0, count - n);
    }
    // strcpy to `offset`, cut at the record's end with the terminator kept inside.
    void copyString(uint64_t offset, const char* text) {
        uint64_t space = room(offset);
        if (space == 0) return;
        size_t n = ::strnlen(text, space - 1);
        std::memcpy(bytes() + offset, text, n);
        bytes()[offset + n] = '\0';
    }

    void header() {
        // Only the low halves of the link pointers are read back.
        const size_t linkOffsets[] = {offsetof(MediaCmd, prev), offsetof(MediaCmd, next), offsetof(MediaCmd, list)};
        const char* linkNames[] = {"prev", "next", "list"};
        for (int i = 0; i < 3; ++i) {
            int32_t low;
            if (readAttribute(child(linkNames[i]), "Value", &low)) std::memcpy(bytes() + linkOffsets[i], &low, 4);
        }
        readValue(child("CmdID"), &cmd_->CmdID);
        if (const XMLElement* e = child("StructSize")) {
            readValue(e, &cmd_->StructSize);
            cmd_->StructSize = boundedSize(cmd_->StructSize);
        }
        readValue(child("Channel"), &cmd_->Channel);
    }

    void command() {
        const XMLElement* e = child("Cmd");
        if (e == nullptr) return;
        int32_t v;
        if (readAttribute(e, "Value", &v)) {
            cmd_->Cmd = v;
        } else if (const char* name = e->GetText()) {
            // A text that begins with a command's name names that command;
            // ctSwitch has no name here.
            std::string lower(name, ::strnlen(name, 259));
            for (char& c : lower) c = qnv::asciiLower(c);
            for (int32_t code = 0; code < ctSwitch; ++code) {
                std::string known = qnv::commandName(code);
                for (char& c : known) c = qnv::asciiLower(c);
                if (lower.compare(0, known.size(), known) == 0) {
                    cmd_->Cmd = code;
                    break;
                }
            }
        }
        if (!hasOtherAttributes(e)) return;
        flag(e, "Deferred", cfDeferred);
        // The one-r spelling decides whenever it is a number; the writer's
        // own "OverrideDeferred" is not read back.
        if (!flag(e, "cfOverideDeferred", cfOverrideDeferred)) flag(e, "cfOverrideDeferred", cfOverrideDeferred);
        static const std::pair<const char*, uint32_t> kFlags[] = {
            {"Loop", cfLoop},           {"Trigger", cfTrigger},     {"Ripple", cfRipple},
            {"Invert", cfInvert},       {"Test", cfTest},           {"NoReturn", cfNoReturn},
            {"UseAllIDs", cfUseAllIDs}, {"UseClipID", cfUseClipID}, {"NoClipFiles", cfNoClipFiles},
            {"NoTCSpaces", cfNoTCSpaces},
        };
        for (const auto& [attribute, bit] : kFlags) flag(e, attribute, bit);
    }

    // A position without a numeric Value is read from its timecode text in
    // the type its TcType gives as a number (the writer's type names are not
    // numbers, so they fall back to the current type).
    void position(const char* name, int32_t* field, uint32_t useBit, uint32_t offsetBit, bool keepsType) {
        const XMLElement* e = child(name);
        if (e == nullptr) return;
        cmd_->Flags |= useBit;
        int32_t v;
        if (readAttribute(e, "Value", &v)) {
            *field = v;
        } else {
            int32_t t = static_cast<int32_t>(tcType_);
            readAttribute(e, "TcType", &t);
            if (keepsType) tcType_ = static_cast<uint32_t>(t);
            if (const char* text = e->GetText()) parseTimecode(text, static_cast<uint32_t>(t), field);
        }
        if (!hasOtherAttributes(e)) return;
        flag(e, "IsOffset", offsetBit);
        flag(e, "UsingCurrent", cfUsingCurrent);
        flag(e, "UsingFrameCount", cfUseFrameCount);
        flag(e, "IsFieldCount", cfFields);
    }

    static void parseTimecode(const char* text, uint32_t type, int32_t* field) {
        // guard: the binary form (type bit 0x400) reads four bytes, so a
        // shorter text is padded with zeros.
        char padded[4] = {};
        if ((type & 0x400) != 0 && ::strnlen(text, 4) < 4) {
            std::memcpy(padded, text, std::strlen(text));
            text = padded;
        }
        uint32_t frames = static_cast<uint32_t>(*field);
        if (TimecodeTextParse(text, type | 0x100, &frames) == TCT_OK) *field = static_cast<int32_t>(frames);
    }

    void clipID() {
        const XMLElement* e = child("ClipID");
        if (e == nullptr) return;
        if (const char* clip = e->GetText()) {
            // A data area of 9 bytes or less takes one character less than it holds.
            uint32_t data = cmd_->StructSize - 76;
            copyText(76, clip, data > 9 ? 8u : data > 0 ? data - 1 : 0u);
            cmd_->Flags |= cfUseClipID;
        } else {
            poke(76, '\0');
        }
        poke(85, '\0');
    }

    void fileName() {
        const char* file = text("FileName");
        if (file == nullptr || uint32_t(cmd_->StructSize - 76) <= 9) return;
        uint64_t count = uint32_t(cmd_->StructSize - 86);
        copyText(85, file, count);
        poke(uint32_t(cmd_->StructSize - 1), '\0');
        // guard: a copy cut at the record's end still ends in a terminator.
        if (count > room(85)) poke(entrySize_ - 1, '\0');
        cmd_->Flags |= cfUseClipID;
    }

    // Hexadecimal bytes, as many as "length" says; the type is not looked at.
    void arbitraryData() {
        const XMLElement* e = child("arbID");
        if (e == nullptr) return;
        int32_t n = 0;
        readAttribute(e, "length", &n);
        const char* hex = e->GetText();
        if (hex == nullptr) hex = "";
        // guard: no more bytes than the record has room for; digits past the
        // end of the text read as 0, as its terminator does.
        const uint64_t length = n > 0 ? uint64_t(n) : 0;
        uint64_t count = std::min(length, room(76));
        size_t available = std::strlen(hex);
        auto digit = [&](uint64_t i) -> uint8_t {
            if (i >= available) return 0;
            auto c = static_cast<signed char>(hex[i]);
            return static_cast<uint8_t>((c > '9' ? c - 7 : c) & 0xF);
        };
        for (uint64_t i = 0; i < count; ++i)
            bytes()[76 + i] = static_cast<char>(digit(2 * i) << 4 | digit(2 * i + 1));
        cmd_->StructSize = boundedSize(length + 76);
        cmd_->Flags |= cfUseClipID;
    }

    // Each address lands one byte past the terminator of the string before
    // it; the positions are part of the format.
    void ipAddresses() {
        qnv::RecordView view(cmd_, entrySize_);
        auto first = [&] { return 78 + uint64_t(view.string(76).size()); };
        for (const char* name : {"sourceipaddress", "destinationipaddress", "clockipaddress"}) {
            if (const char* address = text(name)) {
                copyString(first(), address);
                cmd_->Flags |= cfUseClipID;
            }
        }
        if (const char* address = text("interfaceipaddress")) {
            copyString(78 + uint64_t(view.string(first()).size()), address);
            cmd_->Flags |= cfUseClipID;
        }
    }

    MediaCmd* cmd_;
    const uint32_t entrySize_;
    uint32_t tcType_;
    const Elements elements_;
};

// The first child of the document with this name, of any node kind.
const tinyxml2::XMLNode* namedChild(const tinyxml2::XMLDocument& doc, const char* name) {
    for (const tinyxml2::XMLNode* n = doc.FirstChild(); n != nullptr; n = n->NextSibling())
        if (n->Value() != nullptr && std::strcmp(n->Value(), name) == 0) return n;
    return nullptr;
}

uint32_t readDocument(MediaCmd* cmd, uint32_t* tcType, const tinyxml2::XMLDocument& doc) {
    const tinyxml2::XMLNode* node = namedChild(doc, "MediaCmd");
    if (node == nullptr) node = namedChild(doc, "ClipInfo");
    if (node == nullptr) return MEDIACMD_XML_NO_ROOT;
    const XMLElement* root = node->ToElement();
    if (root == nullptr) return MEDIACMD_XML_NOT_ELEMENT;
    try {
        Reader(cmd, tcType != nullptr ? *tcType : 4, root).read();
    } catch (...) {
        // Out of memory while lower-casing a command name: the record keeps
        // what was read so far.
    }
    return MEDIACMD_XML_OK;
}

}  // namespace

extern "C" {

uint32_t MediaCmdFromXML(MediaCmd* cmd, uint32_t* tcType, tinyxml2::XMLDocument* document) {
    std::unique_ptr<tinyxml2::XMLDocument> doc(document);
    if (cmd == nullptr) return MEDIACMD_XML_NO_RECORD;
    if (doc == nullptr) return MEDIACMD_XML_NO_ROOT;
    return readDocument(cmd, tcType, *doc);
}

uint32_t MediaCmdFromXMLString(MediaCmd* cmd, uint32_t* tcType, const char* xml) {
    if (cmd == nullptr) return MEDIACMD_XML_NO_RECORD;
    initMediaCmd(cmd, ctStop);
    // The calling thread's own document, kept from call to call so that its
    // node pools are not set up again for every text.
    thread_local std::unique_ptr<tinyxml2::XMLDocument> doc;
    try {
        if (doc == nullptr) doc = std::make_unique<tinyxml2::XMLDocument>();
        // A text that does not parse leaves the document empty.
        if (xml != nullptr) {
            doc->Parse(xml);
        } else {
            doc->Clear();
        }
    } catch (...) {
        doc.reset();
        return MEDIACMD_XML_NO_ROOT;
    }
    const uint32_t result = readDocument(cmd, tcType, *doc);
    doc->Clear();  // the text's copy is not kept
    return result;
}

}  // extern "C"
