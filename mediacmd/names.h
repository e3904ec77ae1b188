// Name tables of the MediaCmd record: flags, value codes, commands and
// timecode types, shared by the lookups, the XML text and the debug text.
#ifndef QNV_MEDIACMD_NAMES_H
#define QNV_MEDIACMD_NAMES_H

#include <cstdint>
#include <span>
#include <string_view>

namespace qnv {

struct CodeName {
    uint32_t code;
    const char* name;
};

// The flag-name table (36 rows) and the value-name table (460 rows), in the
// order the lookups search them.
std::span<const CodeName> flagNameTable();
std::span<const CodeName> valueNameTable();

// First row whose name equals `name` ignoring ASCII case, or null.
const CodeName* findByName(std::span<const CodeName> table, std::string_view name);
// First row with exactly this code, or null.
const CodeName* findByCode(std::span<const CodeName> table, uint32_t code);

// The XML name of a command code ("Stop" ... "Switch"), null outside 0..21.
const char* commandName(int32_t cmd);
constexpr int32_t kCommandCount = 22;

// The "TcType" text of a timecode type (255 counts as 0), null for codes
// outside the table.
const char* tcTypeName(uint32_t tcType);

char asciiLower(char c);

}  // namespace qnv

#endif
