// qnvtool: command-line access to qnvUtil.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

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
