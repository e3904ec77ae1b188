// Host services: diagnostics, files, base64 (the configuration store has its own test).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "qnvutil/qxutil.h"
#include "tests/qnvutil/test_util.h"

namespace fs = std::filesystem;

TEST(Diagnostics, OneLinePerMessageToTheSink) {
    const std::string longText(3000, 'a');
    {
        qnvtest::LogCapture log;
        ErrOut("Diskcache seek failed 0x%08X ", 5u);
        ErrFmtOut(0x80000000u, 0, 0, "WARNING(XMLmCmd): %s\n", "Exception: MediaCmdToXML() ");
        qxOutputDebugString("two\nlines");
        ErrOut("%s", longText.c_str());
        // Line breaks inside a message become spaces, trailing ones go; long lines stay whole.
        EXPECT_EQ(log.lines, (std::vector<std::string>{"Diskcache seek failed 0x00000005 ",
                                                       "WARNING(XMLmCmd): Exception: MediaCmdToXML() ", "two lines",
                                                       longText}));
        EXPECT_EQ(log.levels, (std::vector<uint32_t>{QX_LOG_ERROR, 0x80000000u, QX_LOG_DEBUG, QX_LOG_ERROR}));
    }
    ErrOut("to standard error");
}

TEST(Base64, EncodesWithLineBreaksWithinTheCallersSizing) {
    auto encode = [](const std::string& in) {
        uint32_t m = static_cast<uint32_t>(in.size()) * 4 / 3 + 4;
        std::vector<char> out(m + m / 72 + 17, '#');
        uint32_t n = 0;
        base64_encode(reinterpret_cast<const uint8_t*>(in.data()), static_cast<uint32_t>(in.size()), &n, out.data());
        EXPECT_EQ(std::strlen(out.data()), n);
        return std::string(out.data());
    };
    for (auto [in, out] : {std::pair("", ""), std::pair("f", "Zg=="), std::pair("fo", "Zm8="), std::pair("foo", "Zm9v")})
        EXPECT_EQ(encode(in), out);
    // 144 characters: one break after 72, none at the end.
    const std::string text = encode(std::string(108, '\xFB'));
    EXPECT_EQ(std::tuple(text.size(), text[72], text.substr(0, 4)), std::tuple(145u, '\n', "+/v7"));
    for (uint32_t n : {0u, 1u, 53u, 54u, 55u, 1000u, 4112u}) encode(std::string(n, 'x'));
}

TEST(Memory, CopiesAndClearsExactlyCountBytes) {
    using Copy = void (*)(void*, const void*, uint32_t);
    using Clear = void (*)(void*, uint32_t);
    const std::pair<Copy, Clear> pairs[] = {{CopyMemoryFast, ZeroMemoryFast}, {qxOSCopyMemory, qxOSZeroMemory}};
    for (auto [copy, clear] : pairs) {
        std::vector<uint8_t> out(6, 0xEE);
        const uint8_t in[] = {1, 2, 3, 4};
        copy(out.data() + 1, in, 4);
        clear(out.data() + 2, 2);
        copy(nullptr, nullptr, 0);  // empty copies take null pointers
        clear(nullptr, 0);
        EXPECT_EQ(out, (std::vector<uint8_t>{0xEE, 1, 0, 0, 4, 0xEE}));
    }
}

TEST(Files, DispositionsReadWriteSeekAndErrors) {
    fs::path p = fs::temp_directory_path() / ("qnvfile-" + std::to_string(::getpid()));
    fs::remove(p);
    QXFILE f = qxOSCreateFile(p.c_str(), QX_GENERIC_WRITE, 3, nullptr, QX_CREATE_NEW, 0, nullptr);
    ASSERT_NE(f, QX_INVALID_FILE);
    uint32_t n = 0;
    EXPECT_NE(qxOSWriteFile(f, "0123456789", 10, &n, nullptr), 0u);
    EXPECT_EQ(n, 10u);
    qxOSCloseFile(f);
    EXPECT_EQ(qxOSCreateFile(p.c_str(), QX_GENERIC_WRITE, 3, nullptr, QX_CREATE_NEW, 0, nullptr), QX_INVALID_FILE);
    EXPECT_EQ(qxOSGetLastError(), uint32_t(EEXIST));
    EXPECT_NE(qxOSFileExists(p.c_str()), 0u);

    f = qxOSCreateFile(p.c_str(), QX_GENERIC_READ, 1, nullptr, QX_OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(f, QX_INVALID_FILE);
    int64_t size = 0;
    EXPECT_NE(qxOSGetFileSizeEx(f, &size), 0u);
    EXPECT_EQ(std::pair(size, qxOSGetFileSize(f, nullptr)), std::pair(int64_t(10), 10u));
    EXPECT_EQ(qxOSSeek(f, 7), 7);
    char buf[8] = {};
    EXPECT_NE(qxOSReadFile(f, buf, 8, &n, nullptr), 0u);  // end of file: success, fewer bytes
    EXPECT_EQ(std::string(buf, n), "789");
    EXPECT_EQ(qxOSReadFile(f, buf, 8, &n, nullptr), 1u);
    EXPECT_EQ(n, 0u);
    qxOSCloseFile(f);
    fs::remove(p);
    EXPECT_EQ(qxOSFileExists(p.c_str()), 0u);
    EXPECT_EQ(qxOSCreateFile(p.c_str(), QX_GENERIC_READ, 1, nullptr, QX_OPEN_EXISTING, 0, nullptr), QX_INVALID_FILE);
    EXPECT_EQ(qxOSGetLastError(), uint32_t(ENOENT));

    // Arguments that name no file, and a write through a read-only handle.
    EXPECT_EQ(qxOSCreateFile(nullptr, QX_GENERIC_READ, 1, nullptr, QX_OPEN_EXISTING, 0, nullptr), QX_INVALID_FILE);
    EXPECT_EQ(qxOSGetLastError(), uint32_t(EINVAL));
    EXPECT_EQ(qxOSCreateFile(p.c_str(), QX_GENERIC_WRITE, 1, nullptr, 9, 0, nullptr), QX_INVALID_FILE);
    EXPECT_EQ(std::pair(qxOSGetLastError(), qxOSFileExists(p.c_str())), std::pair(uint32_t(EINVAL), 0u));
    f = qxOSCreateFile("/dev/null", QX_GENERIC_READ, 1, nullptr, QX_OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(qxOSWriteFile(f, "x", 1, &n, nullptr), 0u);
    EXPECT_EQ(std::pair(n, qxOSGetLastError()), std::pair(0u, uint32_t(EBADF)));
    qxOSCloseFile(f);

    uint32_t t0 = qxOSGetMs();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(qxOSGetMs() - t0, 19u);
}

TEST(Files, SplitAndMakePath) {
    char drive[QX_MAX_DRIVE], dir[QX_MAX_DIR], name[QX_MAX_FNAME], ext[QX_MAX_EXT], path[QX_MAX_PATH];
    auto split = [&](const std::string& p) {
        qxOSSplitPath(p.c_str(), drive, dir, name, ext);
        return std::tuple(std::string(drive), std::string(dir), std::string(name), std::string(ext));
    };
    EXPECT_EQ(split("/media/projects/show.edl.xml"), std::tuple("", "/media/projects/", "show.edl", ".xml"));
    EXPECT_EQ(split("clip"), std::tuple("", "", "clip", ""));
    qxOSSplitPath(("/d/" + std::string(1000, 'n') + ".e").c_str(), nullptr, nullptr, name, ext);  // cut to fit
    EXPECT_EQ(std::strlen(name), size_t(QX_MAX_FNAME - 1));
    qxOSMakePath(path, "", "/media/projects", "clip", "txt");
    EXPECT_STREQ(path, "/media/projects/clip.txt");
}
