// Shared pieces of qnvtool: subcommand registration, errors, file access.
#ifndef QNVTOOL_TOOL_H
#define QNVTOOL_TOOL_H

#include <CLI/CLI.hpp>

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
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

// Whole file; throws Error when it cannot be read.
std::vector<uint8_t> readFile(const std::string& path);
// Writes (replacing) a file; throws Error on failure.
void writeFile(const std::string& path, const std::vector<uint8_t>& bytes);
// Writes a temporary file beside `path` and renames it into place, so that
// `path` is either replaced whole or left as it was; throws Error on failure
// (the temporary file removed).
void replaceFile(const std::string& path, const std::vector<uint8_t>& bytes);

// An ISO base media box: 32-bit size, the four-character type, the payload.
std::vector<uint8_t> makeBox(const char (&type)[5], const std::vector<uint8_t>& payload);
// Bytes as hex, 16 to a line.
void printHex(const std::vector<uint8_t>& bytes);

}  // namespace qnvtool

#endif
