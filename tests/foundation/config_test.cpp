// Configuration store: names and texts of any bytes, what a write keeps of the
// file (mode, owner, symbolic link), the write lock and writers' turns.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "qnvutil/qxutil.h"

namespace fs = std::filesystem;

// This program defines flock itself, so that lock failures can be made up:
// each call takes the next errno from `failures` (0: the real call).
namespace lockspy {
std::vector<int> failures;
}
extern "C" __attribute__((visibility("default"))) int flock(int fd, int operation) {
    static const auto real = reinterpret_cast<int (*)(int, int)>(::dlsym(RTLD_NEXT, "flock"));
    if (!lockspy::failures.empty()) {
        int error = lockspy::failures.front();
        lockspy::failures.erase(lockspy::failures.begin());
        if (error != 0) {
            errno = error;
            return -1;
        }
    }
    return real(fd, operation);
}

namespace {

class Config : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("qnvconfig-" + std::to_string(::getpid()) + "-" +
                                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
        ::setenv("QNVUTIL_CONFIG_DIR", dir.c_str(), 1);
    }
    void TearDown() override { fs::remove_all(dir); }

    static uint32_t write(const std::string& key, const std::string& name, const std::string& text) {
        auto length = static_cast<uint32_t>(text.size());
        return qxCFGValueString(QXCFG_DEFAULT, key.c_str(), name.c_str(), const_cast<char*>(text.data()), &length, 1);
    }
    // The text, or "(missing)".
    static std::string read(const std::string& key, const std::string& name) {
        uint32_t length = 0;
        qxCFGValueString(QXCFG_DEFAULT, key.c_str(), name.c_str(), nullptr, &length, 0);
        std::string text(length + 1, '#');
        if (qxCFGValueString(QXCFG_DEFAULT, key.c_str(), name.c_str(), text.data(), &length, 0) != 0) return "(missing)";
        text.resize(length);
        return text;
    }
    fs::path dir;
};

}  // namespace

TEST_F(Config, NamesAndTextsOfAnyBytesComeBackInPlainXml) {
    struct Row {
        std::string key, name, text;
    };
    const Row rows[] = {
        {"Quellbox\\Line\rBreak", "Label", "value"},
        {"Quellbox", "Name\r\n", "value"},
        {"Quellbox", "ctl\x01\x1b[2J", "value"},
        {"Quellbox\xff\xfe", "bad\xc3(", "\xc3("},
        {"Quellbox", "spaces", "   "},
        {"Quellbox", "ends", " around "},
        {" ", " ", " "},
    };
    for (const Row& r : rows) ASSERT_EQ(write(r.key, r.name, r.text), 0u);
    for (const Row& r : rows) EXPECT_EQ(read(r.key, r.name), r.text) << r.name;
    EXPECT_EQ(read("quellbox\\line\rbreak", "LABEL"), "value") << "case folding still applies";
    uint32_t v = 7;
    ASSERT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "Quellbox", "Count\r", &v, 1), 0u);
    v = 0;
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "Quellbox", "COUNT\r", &v, 0), 0u);
    EXPECT_EQ(v, 7u);

    std::ifstream in(dir / "default.xml", std::ios::binary);
    std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    for (unsigned char c : file) ASSERT_TRUE(c == '\n' || (c >= 0x20 && c <= 0x7E)) << int(c) << " in\n" << file;
}

TEST_F(Config, WritesKeepModeOwnerAndLinkAndClearStaleTemporaries) {
    const fs::path store = dir / "default.xml";
    ASSERT_EQ(write("K", "a", "1"), 0u);
    ASSERT_EQ(::chmod(store.c_str(), 0600), 0);
    const bool root = ::geteuid() == 0;
    if (root) {
        ASSERT_EQ(::chown(store.c_str(), 4242, 4343), 0);
    }
    // A writer killed mid-write left its temporary; other names stay.
    for (const char* name : {"default.xml.tmpAb12Cd", "default.xml.tmpnote", "other.xml.tmpAb12Cd"})
        std::ofstream(dir / name) << "x";
    ASSERT_EQ(write("K", "b", "2"), 0u);
    struct stat st;
    ASSERT_EQ(::stat(store.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    if (root) {
        EXPECT_EQ(std::pair(st.st_uid, st.st_gid), std::pair(4242u, 4343u));
    }
    EXPECT_EQ(std::vector<bool>({fs::exists(dir / "default.xml.tmpAb12Cd"), fs::exists(dir / "default.xml.tmpnote"),
                                 fs::exists(dir / "other.xml.tmpAb12Cd")}),
              std::vector<bool>({false, true, true}));

    // A linked store is written through to the link's target, by way of a
    // second link.
    fs::create_directories(dir / "shared");
    fs::rename(store, dir / "shared" / "real.xml");
    fs::create_symlink("real.xml", dir / "shared" / "link.xml");
    fs::create_symlink("shared/link.xml", store);
    ASSERT_EQ(write("K", "c", "3"), 0u);
    EXPECT_TRUE(fs::is_symlink(store) && fs::is_symlink(dir / "shared" / "link.xml"));
    EXPECT_EQ(read("K", "a") + read("K", "b") + read("K", "c"), "123");
    fs::remove(store);
    fs::create_symlink("loop", dir / "loop");
    fs::create_symlink("loop", store);
    EXPECT_EQ(write("K", "d", "4"), QXCFG_FAILED);
}

TEST_F(Config, LockFailuresOtherThanSignalsFailTheWrite) {
    const std::pair<std::vector<int>, uint32_t> rows[] = {
        {{ENOLCK}, QXCFG_FAILED}, {{0, ENOLCK}, QXCFG_FAILED}, {{EINTR, 0, EINTR}, 0u}};
    for (const auto& [failures, result] : rows) {
        lockspy::failures = failures;
        EXPECT_EQ(write("K", "v", "x"), result);
        EXPECT_EQ(read("K", "v"), result == 0 ? "x" : "(missing)");
        lockspy::failures.clear();
        qxCFGDeleteValue(QXCFG_DEFAULT, "K", "v");
    }
}

TEST_F(Config, WritersTakeTurns) {
    // Two processes and two threads write their keys; when the first is done,
    // each of the others has written nearly all of its own.
    constexpr int kWriters = 4, kKeys = 30;
    struct Shared {
        std::atomic<int> written[kWriters];
        std::atomic<bool> oneDone;
        int whenFirstDone[kWriters];
    };
    auto* shared = static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    new (shared) Shared{};
    auto writeAll = [shared](int writer) {
        for (uint32_t i = 0; i < kKeys; ++i) {
            std::string name = "w" + std::to_string(writer) + "k" + std::to_string(i);
            qxCFGValueDword(QXCFG_DEFAULT, "Turns", name.c_str(), &i, 1);
            ++shared->written[writer];
        }
        if (!shared->oneDone.exchange(true))
            for (int w = 0; w < kWriters; ++w) shared->whenFirstDone[w] = shared->written[w];
    };
    std::vector<pid_t> children;
    for (int p = 0; p < 2; ++p) {
        pid_t pid = ::fork();
        if (pid == 0) {
            writeAll(p);
            ::_exit(0);
        }
        children.push_back(pid);
    }
    std::thread a(writeAll, 2), b(writeAll, 3);
    a.join();
    b.join();
    for (pid_t pid : children) ::waitpid(pid, nullptr, 0);
    for (int w = 0; w < kWriters; ++w) EXPECT_GE(shared->whenFirstDone[w], kKeys * 3 / 4) << "writer " << w;
    ::munmap(shared, sizeof(Shared));
}
