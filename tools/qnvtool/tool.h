// Shared pieces of qnvtool: subcommand registration, errors, file access.
#ifndef QNVTOOL_TOOL_H
#define QNVTOOL_TOOL_H

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace qnvtool {

// A failure reported as one line "qnvtool: <message>" with exit code 1.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Adds a subcommand at start-up: `setup` receives the main app and creates
// its subcommand, options and callback. One static instance per command file.
struct Registration {
    explicit Registration(std::function<void(CLI::App&)> setup);
};

// Whole file ("-": standard input; a pipe or FIFO too), for small inputs
// such as packet lists and boxes; throws Error naming the path and the
// reason when it cannot be read.
std::vector<uint8_t> readFile(const std::string& path);
// Writes a temporary file beside `path` and renames it into place, so that
// `path` is either replaced whole or left as it was ("-": standard output);
// throws Error on failure (the temporary file removed).
void writeFile(const std::string& path, const std::vector<uint8_t>& bytes);

// An ISO base media box: 32-bit size, the four-character type, the payload.
std::vector<uint8_t> makeBox(const char (&type)[5], const std::vector<uint8_t>& payload);
// Bytes as hex, 16 to a line.
void printHex(const std::vector<uint8_t>& bytes);

// Text from input, safe to show on a terminal: control characters (C0, DEL
// and C1) and bytes that are not UTF-8 are shown as \xHH.
std::string printable(std::string_view text);

// The library's diagnostics go to one sink for the whole run. With --verbose
// each complaint is printed as it comes; otherwise complaints are kept: a
// failing command's error line ends with them, and after a command that
// succeeds they are printed as warnings (each line once, counted).
struct LibraryComplaint {
    std::string line;
    size_t count;
};
// Takes the complaints kept so far, so that nobody reports them again.
std::vector<LibraryComplaint> takeLibraryComplaints();
// The last line the library wrote to its debug output ("" when none).
std::string lastLibraryDebugLine();

}  // namespace qnvtool

#endif
