// qnvtool: command-line access to qnvUtil.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include <sys/stat.h>
#include <unistd.h>

#include "tools/qnvtool/tool.h"

namespace qnvtool {

namespace {
std::vector<std::function<void(CLI::App&)>>& registry() {
    static std::vector<std::function<void(CLI::App&)>> setups;
    return setups;
}
}  // namespace

Registration::Registration(std::function<void(CLI::App&)> setup) { registry().push_back(std::move(setup)); }

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Error(path + ": " + std::strerror(errno));
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad()) throw Error(path + ": read error");
    return bytes;
}

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw Error(path + ": " + std::strerror(errno));
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) throw Error(path + ": write error");
}

std::vector<uint8_t> makeBox(const char (&type)[5], const std::vector<uint8_t>& payload) {
    const size_t size = payload.size() + 8;
    if (size > 0xFFFFFFFFu) throw Error("box too large");
    std::vector<uint8_t> box(size);
    for (int i = 0; i < 4; ++i) {
        box[i] = static_cast<uint8_t>(size >> (24 - 8 * i));
        box[4 + i] = static_cast<uint8_t>(type[i]);
    }
    std::copy(payload.begin(), payload.end(), box.begin() + 8);
    return box;
}

void printHex(const std::vector<uint8_t>& bytes) {
    for (size_t i = 0; i < bytes.size(); ++i)
        std::printf("%02x%s", bytes[i], i % 16 == 15 || i + 1 == bytes.size() ? "\n" : " ");
}

void replaceFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    const size_t slash = path.find_last_of('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temporary = folder + (slash == std::string::npos ? "/." : ".") + name + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) throw Error(path + ": " + std::strerror(errno));
    const uint8_t* at = bytes.data();
    size_t left = bytes.size();
    int error = 0;
    while (left > 0 && error == 0) {
        const ssize_t n = ::write(fd, at, left);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? errno : EIO;
        } else {
            at += n;
            left -= static_cast<size_t>(n);
        }
    }
    // The new file gets the permissions a newly created file would get.
    const mode_t mask = umask(0);
    umask(mask);
    if (error == 0 && fchmod(fd, 0666 & ~mask) != 0) error = errno;
    if (::close(fd) != 0 && error == 0) error = errno;
    if (error == 0 && std::rename(temporary.c_str(), path.c_str()) != 0) error = errno;
    if (error != 0) {
        std::remove(temporary.c_str());
        throw Error(path + ": " + std::strerror(error));
    }
}

}  // namespace qnvtool

int main(int argc, char** argv) {
    CLI::App app{"qnvtool: timecode, video-format and elementary-stream utilities", "qnvtool"};
    app.require_subcommand(1);
    for (auto& setup : qnvtool::registry()) setup(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        std::cout << app.help();
        return 0;
    } catch (const CLI::CallForAllHelp&) {
        std::cout << app.help("", CLI::AppFormatMode::All);
        return 0;
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);
        std::string message = e.what();
        for (char& c : message)
            if (c == '\n') c = ' ';
        std::fprintf(stderr, "qnvtool: %s (see qnvtool --help)\n", message.c_str());
        return 2;
    } catch (const qnvtool::Error& e) {
        std::fprintf(stderr, "qnvtool: %s\n", e.what());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qnvtool: %s\n", e.what());
        return 1;
    }
    return 0;
}
