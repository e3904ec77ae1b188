// Shared helpers of the MediaCmd tests.
#ifndef QNV_TESTS_MEDIACMD_TEST_H
#define QNV_TESTS_MEDIACMD_TEST_H

#include <cstring>
#include <string>

#include "qnvutil/mediacmd.h"
#include "qnvutil/qxutil.h"
#include "tests/qnvutil/test_util.h"

namespace mctest {

inline MediaCmd record(uint32_t command) {
    MediaCmd c;
    initMediaCmd(&c, command);
    return c;
}

// The data area from offset 76 (clip ID, file name and payloads run on).
inline char* area(MediaCmd& c) { return reinterpret_cast<char*>(&c) + MEDIACMD_DATA_OFFSET; }

// The record's XML text.
inline std::string toXml(MediaCmd& c, uint32_t tcType = 0) {
    char* text = nullptr;
    EXPECT_EQ(MediaCmdToXMLString(&text, &c, tcType), 0u);
    std::string s = text != nullptr ? text : "";
    MediaCmdFreeXMLString(&text);
    return s;
}

// What the writer puts between the Channel element and the end of the root.
inline std::string body(MediaCmd& c, uint32_t tcType = 0) {
    std::string s = toXml(c, tcType);
    size_t from = s.find("<Cmd ");
    size_t to = s.rfind("</MediaCmd>");
    return from == std::string::npos || to == std::string::npos ? s : s.substr(from, to - from);
}

}  // namespace mctest

#endif
