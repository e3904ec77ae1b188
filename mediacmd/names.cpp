// The MediaCmd name tables and their lookups.
#include "mediacmd/names.h"

#include <cstring>
#include <iterator>

#include "qnvutil/mediacmd.h"

namespace qnv {
namespace {

// Several bits carry two names; the first one listed is the name of the bit.
// 0x40000000 stands both near the top and last but one.
constexpr CodeName kFlagNames[] = {
    {cfDeferred, "deferred"},
    {cfOverrideDeferred, "overridedeferred"},
    {cfTimeMs, "timems"},
    {cfTimeTarget, "timetarget"},
    {cfTimeHouseClock, "timehouseclock"},
    {cfUseSpeed, "usespeed"},
    {cfUsePresets, "usepresets"},
    {cfUsePosition, "useposition"},
    {cfUsePositionOffset, "usepositionoffset"},
    {cfUseStart, "usestart"},
    {cfUseStartOffset, "usestartoffset"},
    {cfUseEnd, "useend"},
    {cfUseEndOffset, "useendoffset"},
    {cfUseAllIDs, "useallids"},
    {cfUseClipID, "useclipid"},
    {cfCopy, "copy"},
    {cfNoClipFiles, "noclipfiles"},
    {cfConvert, "convert"},
    {cfNoTCSpaces, "notcspaces"},
    {cfUseCmdAlt, "usecmdalt"},
    {cfIsShuttle, "isshuttle"},
    {cfUsingCurrent, "usingcurrent"},
    {cfUseFrameCount, "useframecount"},
    {cfFields, "fields"},
    {cfRipple, "ripple"},
    {cfLoop, "loop"},
    {cfTrigger, "trigger"},
    {cfPreview, "preview"},
    {cfRemoteCommand, "remotecommand"},
    {cfOver24Hours, "over24hours"},
    {cfSecondField, "secondfield"},
    {cfUseNextField, "usenextfield"},
    {cfInvert, "invert"},
    {cfTest, "test"},
    {cfIgnore, "ignore"},
    {cfNoReturn, "noreturn"},
};

// Kept in the order of the list, which is not sorted by code: the 1054 block
// stands before 1028, and the 50000 block ends irregularly.
constexpr CodeName kValueNames[] = {
#define QNV_VALUE_ROW(constant, code, name) {static_cast<uint32_t>(code), name},
    QNV_MEDIACMD_VALUE_NAMES(QNV_VALUE_ROW)
#undef QNV_VALUE_ROW
};

// By code: ctStop (0) to ctSwitch (21).
constexpr const char* kCommandNames[kCommandCount] = {
    "Stop",           "Pause",  "Play",      "Record",     "RecStop",  "Eject",    "Transfer", "Insert",
    "Blank",          "Delete", "Trim",      "ChanSelect", "GetState", "SetState", "GetValue", "SetValue",
    "ValueSupported", "Error",  "Terminate", "Abort",      "Edit",     "Switch",
};

bool equalsIgnoreCase(std::string_view a, const char* b) {
    size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (size_t i = 0; i < n; ++i)
        if (asciiLower(a[i]) != asciiLower(b[i])) return false;
    return true;
}

}  // namespace

char asciiLower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

std::span<const CodeName> flagNameTable() { return kFlagNames; }
std::span<const CodeName> valueNameTable() { return kValueNames; }

const CodeName* findByName(std::span<const CodeName> table, std::string_view name) {
    for (const CodeName& row : table)
        if (equalsIgnoreCase(name, row.name)) return &row;
    return nullptr;
}

const CodeName* findByCode(std::span<const CodeName> table, uint32_t code) {
    for (const CodeName& row : table)
        if (row.code == code) return &row;
    return nullptr;
}

const char* commandName(int32_t cmd) { return cmd >= 0 && cmd < kCommandCount ? kCommandNames[cmd] : nullptr; }

const char* tcTypeName(uint32_t tcType) {
    switch (tcType) {
        case 0:
        case 255: return "frames";
        case 1: return "film";
        case 2: return "non-drop-frame";
        case 4: return "drop-frame";
        case 8: return "pal";
        case 16: return "50";
        case 32: return "59.94";
        case 64: return "60";
        case 128: return "film-drop";
        case 132: return "23.98";
        default: return nullptr;
    }
}

}  // namespace qnv

namespace {

uint32_t nameToCode(std::span<const qnv::CodeName> table, const char* name, uint32_t* code) {
    if (name == nullptr) return 0xFFFFFFFFu;
    const qnv::CodeName* row = qnv::findByName(table, name);
    if (row == nullptr) return 0xFFFFFFFFu;
    if (code != nullptr) *code = row->code;
    return 0;
}

uint32_t codeToName(std::span<const qnv::CodeName> table, uint32_t code, char* text) {
    const qnv::CodeName* row = qnv::findByCode(table, code);
    if (row == nullptr) return 0xFFFFFFFFu;
    if (text != nullptr) std::strcpy(text, row->name);
    return 0;
}

}  // namespace

extern "C" {

uint32_t cfFromString(const char* name, uint32_t* flag) { return nameToCode(qnv::flagNameTable(), name, flag); }
uint32_t cfToString(uint32_t flag, char* text) { return codeToName(qnv::flagNameTable(), flag, text); }
uint32_t gsFromString(const char* name, uint32_t* code) { return nameToCode(qnv::valueNameTable(), name, code); }
uint32_t gsToString(uint32_t code, char* text) { return codeToName(qnv::valueNameTable(), code, text); }

}  // extern "C"
