// MediaCmd record -> XML document and text.
//
// One writer feeds two sinks: a tinyxml2 document (MediaCmdToXML) and a
// tinyxml2 printer that streams the text directly (MediaCmdToXMLString). The
// printer gives the same text as printing the document would, without
// building it first.
#include <tinyxml2.h>

#include <cstring>
#include <memory>
#include <string>

#include "mediacmd/names.h"
#include "mediacmd/record.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/timecodetext.h"

namespace {

using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

// "%d" without the C library's formatter: digits from the back of a
// 12-byte buffer; returns the first character.
char* formatDecimal(int32_t value, char (&text)[12]) {
    char* p = text + sizeof text;
    *--p = '\0';
    uint32_t magnitude = value < 0 ? 0u - static_cast<uint32_t>(value) : static_cast<uint32_t>(value);
    do {
        *--p = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) *--p = '-';
    return p;
}

constexpr uint32_t kTimecodeWord = 0x32100;  // timecode text, type in the low byte
constexpr uint32_t kFixedWord = 0xB2140;     // timecode text of the queue values
constexpr uint32_t kLevelWarning = 0x80000000u;

// Receives the document in order: every element's attributes come before its
// text.
class Sink {
public:
    virtual ~Sink() = default;
    virtual void declaration(const char* text) = 0;
    virtual void comment(const char* text) = 0;
    virtual void open(const char* name) = 0;
    virtual void attribute(const char* name, const char* value) = 0;
    virtual void attribute(const char* name, int32_t value) = 0;
    virtual void text(const char* text) = 0;
    virtual void close() = 0;
};

class DocumentSink final : public Sink {
public:
    explicit DocumentSink(XMLDocument* doc) : doc_(doc) {}
    void declaration(const char* text) override { doc_->InsertFirstChild(doc_->NewDeclaration(text)); }
    void comment(const char* text) override { parent()->InsertEndChild(doc_->NewComment(text)); }
    void open(const char* name) override {
        XMLElement* e = doc_->NewElement(name);
        parent()->InsertEndChild(e);
        current_ = e;
    }
    void attribute(const char* name, const char* value) override { current_->SetAttribute(name, value); }
    void attribute(const char* name, int32_t value) override { current_->SetAttribute(name, value); }
    void text(const char* text) override { current_->SetText(text); }
    void close() override {
        tinyxml2::XMLNode* up = current_->Parent();
        current_ = up != nullptr ? up->ToElement() : nullptr;
    }

private:
    tinyxml2::XMLNode* parent() { return current_ != nullptr ? static_cast<tinyxml2::XMLNode*>(current_) : doc_; }
    XMLDocument* doc_;
    XMLElement* current_ = nullptr;
};

// Compact text: no indentation and no line breaks. The printer is the
// calling thread's own and kept from call to call, so that its buffer is
// not grown again for every text.
class PrinterSink final : public Sink {
public:
    explicit PrinterSink(tinyxml2::XMLPrinter& printer) : printer_(printer) { printer_.ClearBuffer(); }
    void declaration(const char* text) override { printer_.PushDeclaration(text); }
    void comment(const char* text) override { printer_.PushComment(text); }
    void open(const char* name) override {
        printer_.OpenElement(name, true);
        ++depth_;
    }
    void attribute(const char* name, const char* value) override { printer_.PushAttribute(name, value); }
    void attribute(const char* name, int32_t value) override {
        char digits[12];
        printer_.PushAttribute(name, formatDecimal(value, digits));
    }
    void text(const char* text) override { printer_.PushText(text); }
    void close() override {
        printer_.CloseElement(true);
        --depth_;
    }
    // Closes what an interrupted writer left open.
    void finish() {
        while (depth_ > 0) close();
    }
    const char* str() const { return printer_.CStr(); }
    size_t length() const { return size_t(printer_.CStrSize() - 1); }

private:
    tinyxml2::XMLPrinter& printer_;
    int depth_ = 0;
};

class Writer {
public:
    Writer(Sink& sink, MediaCmd* cmd, uint8_t tcType)
        : out_(sink), cmd_(cmd), tcType_(tcType == 255 ? 0 : tcType), data_(cmd, cmd->StructSize) {}

    void write() {
        out_.declaration("xml version=\"1.0\" encoding=\"iso-8859-1\"");
        out_.open("MediaCmd");
        out_.comment(" Velmora MEDIACMD xml structure version 1,0 ");
        header();
        command();
        speed();
        channels();
        if (cmd_->Flags & (cfUseCmdAlt | cfTimeMs | cfTimeTarget | cfTimeHouseClock)) {
            open("CmdAlt", cmd_->CmdAlt);
            flag("TimeMs", cfTimeMs);
            flag("TimeTarget", cfTimeTarget);
            flag("TimeHouseClock", cfTimeHouseClock);
            out_.close();
        }
        positions();
        if (cmd_->Flags & cfUseClipID) dataArea();
        out_.close();
    }

private:
    void open(const char* name, int32_t value) {
        out_.open(name);
        out_.attribute("Value", value);
    }
    void valueElement(const char* name, int32_t value) {
        open(name, value);
        out_.close();
    }
    void textElement(const char* name, std::string_view text) {
        out_.open(name);
        char shortText[128];
        if (text.size() < sizeof shortText) {
            if (!text.empty()) std::memcpy(shortText, text.data(), text.size());  // an empty view may hold null
            shortText[text.size()] = '\0';
            out_.text(shortText);
        } else {
            out_.text(std::string(text).c_str());
        }
        out_.close();
    }
    void flag(const char* attribute, uint32_t bit) {
        if (cmd_->Flags & bit) out_.attribute(attribute, "1");
    }
    void tcTypeAttribute() {
        if (const char* name = qnv::tcTypeName(tcType_)) out_.attribute("TcType", name);
    }
    void timecodeText(int32_t frames, uint32_t formatWord) {
        char text[TCT_TEXT_SIZE] = {};
        TimecodeTextFormat(static_cast<uint32_t>(frames), formatWord, text);
        out_.text(text);
    }
    void decimalText(int32_t value) {
        char digits[12];
        out_.text(formatDecimal(value, digits));
    }

    void header() {
        const void* links[] = {cmd_->prev, cmd_->next, cmd_->list};
        const char* names[] = {"prev", "next", "list"};
        for (int i = 0; i < 3; ++i)
            if (links[i] != nullptr)
                valueElement(names[i], static_cast<int32_t>(static_cast<uint32_t>(reinterpret_cast<uintptr_t>(links[i]))));
        valueElement("CmdID", static_cast<int32_t>(cmd_->CmdID));
        valueElement("StructSize", static_cast<int32_t>(cmd_->StructSize));
        valueElement("Channel", static_cast<int32_t>(cmd_->Channel));
    }

    void command() {
        static const std::pair<const char*, uint32_t> kFlags[] = {
            {"Deferred", cfDeferred},   {"OverrideDeferred", cfOverrideDeferred},
            {"Loop", cfLoop},           {"Trigger", cfTrigger},
            {"Ripple", cfRipple},       {"Invert", cfInvert},
            {"Test", cfTest},           {"NoReturn", cfNoReturn},
            {"UseAllIDs", cfUseAllIDs}, {"UseClipID", cfUseClipID},
            {"NoClipFiles", cfNoClipFiles}, {"NoTCSpaces", cfNoTCSpaces},
        };
        open("Cmd", cmd_->Cmd);
        for (const auto& [attribute, bit] : kFlags) flag(attribute, bit);
        const char* name = qnv::commandName(cmd_->Cmd);
        out_.text(name != nullptr ? name : "Unknown");
        out_.close();
    }

    // Without cfUseSpeed, play and record (and shuttles) announce normal speed
    // while the text still shows the record's own Speed field.
    void speed() {
        int32_t value;
        if (cmd_->Flags & cfUseSpeed)
            value = cmd_->Speed;
        else if (cmd_->Cmd == ctPlay || cmd_->Cmd == ctRecord || (cmd_->Flags & cfIsShuttle))
            value = MEDIACMD_NORMAL_SPEED;
        else
            return;
        open("Speed", value);
        flag("IsShuttle", cfIsShuttle);
        decimalText(qnv::speedPercent(cmd_->Speed));
        out_.close();
    }

    void channels() {
        if ((cmd_->Flags & cfUsePresets) == 0) return;
        const int32_t masks[] = {static_cast<int32_t>(cmd_->VideoChannels), static_cast<int32_t>(cmd_->AudioChannels),
                                 static_cast<int32_t>(cmd_->InfoChannels)};
        if (cmd_->Flags & cfUseFrameCount) {
            const char* names[] = {"ctltimecode", "ltctimecode", "vitctimecode"};
            for (int i = 0; i < 3; ++i) {
                open(names[i], masks[i]);
                tcTypeAttribute();
                timecodeText(masks[i], tcType_ | kTimecodeWord);
                out_.close();
            }
        }
        valueElement("VideoChannels", masks[0]);
        valueElement("AudioChannels", masks[1]);
        valueElement("InfoChannels", masks[2]);
    }

    void position(const char* name, int32_t value, uint32_t offsetBit, bool fixedWord) {
        open(name, value);
        tcTypeAttribute();
        flag("IsOffset", offsetBit);
        flag("UsingCurrent", cfUsingCurrent);
        flag("UsingFrameCount", cfUseFrameCount);
        flag("IsFieldCount", cfFields);
        if (tcType_ == 0)
            decimalText(value);
        else
            timecodeText(value, fixedWord ? kFixedWord : tcType_ | kTimecodeWord);
        out_.close();
    }

    // Start and End of the queue values are timed at 60 frames per second,
    // by two different tests that are both part of the format.
    void positions() {
        const uint32_t alt = static_cast<uint32_t>(cmd_->CmdAlt);
        position("Position", cmd_->Position, cfUsePositionOffset, false);
        if (cmd_->Flags & (cfUseStart | cfUseStartOffset))
            position("Start", cmd_->Start, cfUseStartOffset, alt > 1100000u);
        if (cmd_->Flags & (cfUseEnd | cfUseEndOffset))
            position("End", cmd_->End, cfUseEndOffset,
                     (alt == gsInsertqueue || alt == gsXlatqueue) && qnv::isValueCommand(cmd_->Cmd));
    }

    void dataArea() {
        if (!qnv::isValueCommand(cmd_->Cmd)) return clipPart();
        switch (cmd_->CmdAlt) {
            case gsChannelname: channelAliases(); return clipPart();
            case gsIpvideosettings: ipVideoSettings(); return clipPart();
            case gsIpvideoclock: textElement("clockipaddress", data_.string(76)); return clipPart();
            case gsQnvtype: textElement("chanName", data_.string(76)); return;
            case gsFramedata:
            case gsPreviewframe:
                if ((cmd_->Flags & cfUsingCurrent) == 0) arbitraryData();
                return;
            default: return clipPart();
        }
    }

    // The alias strings follow each other from offset 85. The second alias is
    // announced with the first one's text and written without its first
    // character, and the walk moves past a string only when it was written:
    // that is how the format has always been written.
    void channelAliases() {
        uint64_t p = 85;
        std::string_view s0 = data_.string(p);
        textElement("channelalias", s0);
        p += s0.size() + 1;
        std::string_view s1 = data_.string(p);
        if (!s1.empty()) textElement("channel1alias", s0);
        if (s1.size() >= 2) {
            textElement("channel2alias", s1.substr(1));
            p += s1.size() + 1;
        }
        for (const char* name : {"channel3alias", "channel4alias", "channel5alias", "channel6alias", "channel7alias"}) {
            std::string_view s = data_.string(p);
            if (s.empty()) continue;
            textElement(name, s);
            p += s.size() + 1;
        }
    }

    void ipVideoSettings() {
        uint64_t p = 76;
        for (const char* name : {"destinationipaddress", "sourceipaddress", "interfaceipaddress"}) {
            std::string_view s = data_.string(p);
            textElement(name, s);
            p += s.size() + 1;
        }
        valueElement("Start", cmd_->Start);
        valueElement("End", cmd_->End);
        valueElement("AudioChannels", static_cast<int32_t>(cmd_->AudioChannels));
    }

    void arbitraryData() {
        // guard: a StructSize below 76 leaves no data to write.
        const uint32_t n = static_cast<uint32_t>(data_.room(76));
        const auto* bytes = reinterpret_cast<const uint8_t*>(cmd_) + 76;
        std::string text;
        const char* type;
        if (cmd_->Flags & cfNoTCSpaces) {
            // guard: sized in 64 bits, so that no record size can wrap it.
            uint64_t m = uint64_t(n) * 4 / 3 + 4;
            text.assign(m + m / 72 + 17, '\0');
            base64_encode(bytes, n, nullptr, text.data());
            type = "base64";
        } else {
            static const char kHex[] = "0123456789ABCDEF";
            text.resize(size_t(n) * 2);
            for (uint32_t i = 0; i < n; ++i) {
                text[2 * i] = kHex[bytes[i] >> 4];
                text[2 * i + 1] = kHex[bytes[i] & 15];
            }
            type = "hex";
        }
        out_.open("arbID");
        out_.attribute("Type", type);
        out_.attribute("length", static_cast<int32_t>(n));
        out_.text(text.c_str());
        out_.close();
    }

    void clipPart() {
        const bool longName = data_.at(84) != '\0';
        const uint32_t size = cmd_->StructSize;
        if (cmd_->CmdAlt == gsMetabasefilename) {
            if (longName) return;
            textElement("ClipID", data_.string(76));
            std::string_view file = data_.string(85);
            // A unique ID after "$" is split off, in the caller's record too.
            if (size_t dollar = file.find('$'); dollar != std::string_view::npos) {
                textElement("UniqueID", file.substr(dollar + 1));
                reinterpret_cast<char*>(cmd_)[85 + dollar] = '\0';
                file = file.substr(0, dollar);
            }
            textElement("FileName", file);
        } else if (cmd_->CmdAlt == gsMetabasegettag) {
            std::string_view tag = data_.string(76);
            textElement("MetaTag", tag);
            out_.open("MetaData");
            if (cmd_->Speed != 1) {
                decimalText(cmd_->Start);
            } else {
                // The tag's data starts End + 1 bytes into the data area.
                // guard: an offset before the record reads as empty.
                int64_t offset = 76 + int64_t(cmd_->End) + 1;
                out_.text(std::string(offset < 0 ? std::string_view() : data_.string(uint64_t(offset))).c_str());
            }
            out_.close();
            if (tag == "REPLAY_COUNT") {
                out_.open("PageRequest");
                decimalText(static_cast<int32_t>(cmd_->InfoChannels));
                out_.close();
            }
        } else if (longName) {
            std::string_view name = data_.string(76);
            if (name.empty() || name.size() + 77 >= uint64_t(size)) return;
            guarded("Exception: MediaCmdToXML() ", [&] { textElement("FileName", name); });
        } else {
            std::string_view clip = data_.string(76);
            textElement("ClipID", clip);
            guarded("Exception:  MediaCmdToXML(ClipID) ", [&] {
                if (data_.at(85) == '\0') {
                    if (cmd_->CmdAlt == gsMetadata) textElement("FileName", clip);
                } else if (std::string_view file = data_.string(85); file.size() + 86 < uint64_t(size)) {
                    textElement("FileName", file);
                }
            });
        }
    }

    // The last step: an exception ends the document where it got to and is
    // reported.
    template <typename Step>
    void guarded(const char* message, Step step) {
        try {
            step();
        } catch (...) {
            ErrFmtOut(kLevelWarning, 0, 0, "WARNING(XMLmCmd): %s\n", message);
        }
    }

    Sink& out_;
    MediaCmd* cmd_;
    uint32_t tcType_;
    qnv::RecordView data_;
};

}  // namespace

extern "C" {

uint32_t MediaCmdToXML(tinyxml2::XMLDocument* document, MediaCmd* cmd, uint8_t tcType) {
    if (document == nullptr || cmd == nullptr) return 0;
    try {
        DocumentSink sink(document);
        Writer(sink, cmd, tcType).write();
    } catch (...) {
        // Out of memory: the document stays as far as it got.
    }
    return 0;
}

uint32_t MediaCmdToXMLString(char** text, MediaCmd* cmd, uint32_t tcType) {
    if (text == nullptr || cmd == nullptr) return 0;
    thread_local std::unique_ptr<tinyxml2::XMLPrinter> printer;
    try {
        if (printer == nullptr) printer = std::make_unique<tinyxml2::XMLPrinter>(nullptr, true);
        PrinterSink sink(*printer);
        bool failed = false;
        try {
            Writer(sink, cmd, static_cast<uint8_t>(tcType)).write();
        } catch (...) {
            // Out of memory: the text ends where the writer got to.
            sink.finish();
            failed = true;
        }
        if (sink.length() > 0) {
            auto* copy = static_cast<char*>(QxAlloc(static_cast<uint32_t>(sink.length()) + 1));
            if (copy != nullptr) {
                std::memcpy(copy, sink.str(), sink.length() + 1);
                *text = copy;
            }
        }
        if (failed) printer.reset();  // a printer that failed inside is not used again
    } catch (...) {
        printer.reset();
    }
    return 0;
}

uint32_t MediaCmdFreeXMLString(char** text) {
    if (text == nullptr) return 0;
    QxFree(*text);
    *text = nullptr;
    return 0;
}

}  // extern "C"
