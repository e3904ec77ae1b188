// File and command helpers shared by the qnvutil tests.
#ifndef QNVUTIL_TESTS_TEST_UTIL_H
#define QNVUTIL_TESTS_TEST_UTIL_H

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace qnvtest {

// The bytes of a file under tests/data (none when it is missing).
inline std::vector<uint8_t> readData(const std::string& path) {
    std::ifstream in(std::string(QNV_TEST_DATA) + "/" + path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Standard output of a shell command.
inline std::string runCommand(const std::string& command) {
    std::string out;
    if (FILE* p = popen(command.c_str(), "r")) {
        char buf[4096];
        for (size_t n; (n = fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
        pclose(p);
    }
    return out;
}

// The qnvtool of this build, and whether it was built.
inline const std::string kQnvtool = std::string(QNV_BINARY_DIR) + "/bin/qnvtool";
inline bool qnvtoolBuilt() { return !runCommand("test -x " + kQnvtool + " && echo yes").empty(); }

}  // namespace qnvtest

#endif
