// Configuration store: the default and opened stores, damaged files, names and
// texts of any bytes, what a write keeps of the file (mode, owner, symbolic
// link), the write lock, and concurrent writers taking turns.
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
#include "tests/qnvutil/test_util.h"

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

// A fresh configuration folder per test, named by QNVUTIL_CONFIG_DIR.
class ConfigStore : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("qnvcfg-" + std::to_string(::getpid()) + "-" +
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
    qnvtest::LogCapture log;
};

}  // namespace

TEST_F(ConfigStore, DefaultStoreReadsWritesAndKeepsKeyPaths) {
    uint32_t v = 0;
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "Quellbox\\Advanced", "ForceVideoRangeMatrix", &v, 0), QXCFG_MISSING);
    v = 1;
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "Quellbox\\Advanced", "ForceVideoRangeMatrix", &v, 1), 0u);
    v = 0;
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "quellbox\\advanced", "forcevideorangematrix", &v, 0), 0u);
    EXPECT_EQ(v, 1u);
    std::ifstream in(dir / "default.xml");
    std::string file((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(file.find("path=\"Quellbox\\Advanced\""), std::string::npos);

    std::string text = "line\r\nwith <tags> & \x01 bytes\xE9";
    text += std::string(1, '\0') + "after a NUL";
    uint32_t len = static_cast<uint32_t>(text.size());
    EXPECT_EQ(qxCFGValueString(QXCFG_DEFAULT, "Quellbox\\MetaData", "Label", const_cast<char*>(text.data()), &len, 1), 0u);
    len = 99;
    EXPECT_EQ(qxCFGValueString(QXCFG_DEFAULT, "Quellbox\\MetaData", "Label", nullptr, &len, 0), 0u);
    ASSERT_EQ(len, text.size());
    std::vector<char> buf(len + 4, 0);
    EXPECT_EQ(qxCFGValueString(QXCFG_DEFAULT, "Quellbox\\MetaData", "Label", buf.data(), &len, 0), 0u);
    EXPECT_EQ(std::string(buf.data(), len), text);
    uint32_t small = 4;
    EXPECT_EQ(qxCFGValueString(QXCFG_DEFAULT, "Quellbox\\MetaData", "Label", buf.data(), &small, 0), 0u);
    EXPECT_EQ(small, text.size());
    len = 0;
    EXPECT_EQ(qxCFGValueString(QXCFG_DEFAULT, "Quellbox\\MetaData", "Nothing", nullptr, &len, 0), 0u);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(qxCFGDeleteValue(QXCFG_DEFAULT, "Quellbox\\MetaData", "Label"), 0u);
    EXPECT_EQ(qxCFGDeleteValue(QXCFG_DEFAULT, "Quellbox\\MetaData", "Label"), QXCFG_MISSING);
    EXPECT_TRUE(log.lines.empty());
}

TEST_F(ConfigStore, OpenedStoreKeepsWritesOnlyWhenAsked) {
    QXCFG h = qxCFGOpen("UserMetadata.xml", 0);
    ASSERT_NE(h, 0u);
    uint32_t v = 7;
    EXPECT_EQ(qxCFGValueDword(h, "Quellbox\\MetaData\\Default", "Take", &v, 1), 0u);
    v = 0;
    EXPECT_EQ(qxCFGValueDword(h, "Quellbox\\MetaData\\Default", "Take", &v, 0), 0u);
    EXPECT_EQ(v, 7u);
    qxCFGClose(h, 0);
    EXPECT_FALSE(fs::exists(dir / "UserMetadata.xml"));
    EXPECT_EQ(qxCFGValueDword(h, "Quellbox\\MetaData\\Default", "Take", &v, 0), QXCFG_BADHANDLE);

    h = qxCFGOpen("UserMetadata.xml", 0);
    v = 8;
    qxCFGValueDword(h, "Quellbox\\MetaData\\Default", "Take", &v, 1);
    qxCFGClose(h, 1);
    h = qxCFGOpen((dir / "UserMetadata.xml").c_str(), 0);
    v = 0;
    EXPECT_EQ(qxCFGValueDword(h, "Quellbox\\MetaData\\Default", "Take", &v, 0), 0u);
    EXPECT_EQ(v, 8u);
    // A delete leaves the other values findable.
    for (uint32_t i = 0; i < 4; ++i) qxCFGValueDword(h, "K", ("v" + std::to_string(i)).c_str(), &i, 1);
    EXPECT_EQ(qxCFGDeleteValue(h, "K", "V1"), 0u);
    EXPECT_EQ(qxCFGDeleteValue(h, "K", "v1"), QXCFG_MISSING);
    std::vector<uint32_t> left;
    for (const char* name : {"v0", "v2", "v3"}) {
        uint32_t got = 99;
        qxCFGValueDword(h, "k", name, &got, 0);
        left.push_back(got);
    }
    EXPECT_EQ(left, (std::vector<uint32_t>{0, 2, 3}));
    qxCFGClose(h, 0);
    EXPECT_EQ(qxCFGOpen(nullptr, 0), 0u);
}

TEST_F(ConfigStore, CorruptFileReadsEmptyReportedOnceAndIsSetAside) {
    fs::create_directories(dir);
    std::ofstream(dir / "default.xml") << "<qnvconfig><key path=";
    uint32_t v = 5;
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "A", "B", &v, 0), QXCFG_MISSING);
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "A", "C", &v, 0), QXCFG_MISSING);
    EXPECT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "A", "B", &v, 1), 0u);
    EXPECT_TRUE(fs::exists(dir / "default.xml.corrupt"));
    v = 0;
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "A", "B", &v, 0), 0u);
    EXPECT_EQ(v, 5u);
}

TEST_F(ConfigStore, NamesAndTextsOfAnyBytesComeBackInPlainXml) {
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

TEST_F(ConfigStore, WritesKeepModeOwnerAndLinkAndClearStaleTemporaries) {
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

TEST_F(ConfigStore, LockFailuresOtherThanSignalsFailTheWrite) {
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

TEST_F(ConfigStore, ConcurrentWritersLoseNothingAndTakeTurns) {
    // Two processes and two threads write their keys while a reader runs
    // alongside; nothing is lost, and when the first writer is done each of
    // the others has written nearly all of its own. Turns are given to the
    // writers that wait, so a writer the scheduler holds back can fall
    // behind on a loaded machine: the round runs again once before the turns
    // count as not taken (without them, writers starve nearly every round).
    constexpr int kWriters = 4, kKeys = 60;
    struct Shared {
        std::atomic<int> written[kWriters];
        std::atomic<bool> oneDone;
        int whenFirstDone[kWriters];
    };
    auto* shared = static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(shared, MAP_FAILED);
    std::vector<int> behind;
    for (int round = 0; round < 2; ++round) {
        new (shared) Shared{};
        const std::string section = "Turns" + std::to_string(round);
        auto name = [](int writer, uint32_t i) { return "w" + std::to_string(writer) + "k" + std::to_string(i); };
        auto writeAll = [shared, name, &section](int writer) {
            for (uint32_t i = 0; i < kKeys; ++i) {
                qxCFGValueDword(QXCFG_DEFAULT, section.c_str(), name(writer, i).c_str(), &i, 1);
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
        for (int i = 0; i < 50; ++i) {  // a reader never sees a damaged file
            uint32_t v;
            qxCFGValueDword(QXCFG_DEFAULT, section.c_str(), "w0k0", &v, 0);
        }
        a.join();
        b.join();
        for (pid_t pid : children) {
            int status = 0;
            ::waitpid(pid, &status, 0);
            EXPECT_EQ(status, 0);
        }
        behind.clear();
        for (int w = 0; w < kWriters; ++w) {
            if (shared->whenFirstDone[w] < kKeys * 3 / 4) behind.push_back(w);
            for (uint32_t i = 0; i < kKeys; ++i) {
                uint32_t v = ~0u;
                ASSERT_EQ(qxCFGValueDword(QXCFG_DEFAULT, section.c_str(), name(w, i).c_str(), &v, 0), 0u)
                    << name(w, i);
                ASSERT_EQ(v, i);
            }
        }
        if (behind.empty()) break;
    }
    EXPECT_TRUE(behind.empty()) << "writer " << behind.front() << " fell behind in both rounds";
    EXPECT_TRUE(log.lines.empty());
    ::munmap(shared, sizeof(Shared));
}

TEST_F(ConfigStore, FolderFromTheEnvironment) {
    const char* saved = std::getenv("HOME");
    const std::string home = saved != nullptr ? saved : "";
    // Each row: QNVUTIL_CONFIG_DIR, XDG_CONFIG_HOME, HOME -> the store's file.
    const std::vector<std::vector<std::string>> rows = {
        {"", (dir / "xdg").string(), (dir / "home").string(), (dir / "xdg/qnvutil/default.xml").string()},
        {"", "", (dir / "home").string(), (dir / "home/.config/qnvutil/default.xml").string()}};
    for (const auto& r : rows) {
        ::setenv("QNVUTIL_CONFIG_DIR", r[0].c_str(), 1);
        ::setenv("XDG_CONFIG_HOME", r[1].c_str(), 1);
        ::setenv("HOME", r[2].c_str(), 1);
        uint32_t v = 1;
        EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "K", "v", &v, 1), 0u);
        EXPECT_TRUE(fs::exists(r[3])) << r[3];
    }
    ::unsetenv("XDG_CONFIG_HOME");
    ::setenv("HOME", home.c_str(), 1);
}

TEST_F(ConfigStore, UnreadableStoresAndFoldersFailAndAreReported) {
    fs::create_directories(dir / "default.xml");  // a folder where the file should be
    uint32_t v = 1;
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "K", "v", &v, 0), QXCFG_MISSING);
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "K", "v", &v, 1), QXCFG_FAILED);
    EXPECT_EQ(qxCFGOpen("default.xml", 0), 0u);
    QXCFG h = qxCFGOpen("later.xml", 0);
    qxCFGValueDword(h, "K", "v", &v, 1);
    fs::create_directories(dir / "later.xml");
    qxCFGClose(h, 1);
    std::ofstream(dir / "file") << "x";
    ::setenv("QNVUTIL_CONFIG_DIR", (dir / "file" / "sub").c_str(), 1);
    EXPECT_EQ(qxCFGValueDword(QXCFG_DEFAULT, "K", "v", &v, 1), QXCFG_FAILED);
    const std::vector<std::string> want = {
        "qxCFG: configuration store " + (dir / "default.xml").string() + " cannot be read; it reads as empty",
        "qxCFG: configuration store " + (dir / "later.xml").string() + " cannot be read; it reads as empty",
        "qxCFG: could not save configuration store " + (dir / "later.xml").string()};
    EXPECT_EQ(log.lines, want);
}
