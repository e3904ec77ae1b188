// Reads any bytes as a configuration store file, looks values up, stores a
// text and a number under a key path and name taken from the input, saves
// and opens the store again: both values must come back exactly, and the
// saved file must read without complaint.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "qnvutil/qxutil.h"

namespace {
bool g_complained = false;
void note(uint32_t, const char*, void*) { g_complained = true; }

// A folder of its own, in memory where the machine has /dev/shm.
std::string storeFolder() {
    std::string folder = (::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/qnvfuzzcfgXXXXXX");
    if (::mkdtemp(folder.data()) == nullptr) std::abort();
    return folder;
}

// Key paths and names are C strings: the input's bytes up to a NUL.
std::string name(const uint8_t* data, size_t size, size_t at, size_t length) {
    std::string s;
    for (size_t i = at; i < size && i < at + length && data[i] != 0; ++i) s.push_back(static_cast<char>(data[i]));
    return s;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string folder = storeFolder();
    static const std::string file = folder + "/fuzz.xml";
    static const bool silenced = (QxSetLogSink(note, nullptr), true);
    (void)silenced;
    if (size > 1 << 16) return 0;
    std::remove(file.c_str());
    std::remove((file + ".corrupt").c_str());
    if (FILE* f = std::fopen(file.c_str(), "wb")) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }

    const std::string key = name(data, size, 0, size > 0 ? data[0] % 24 : 0);
    const std::string value = name(data, size, size / 2, size > 1 ? data[1] % 16 : 0);
    const std::string text(reinterpret_cast<const char*>(data), size / 3);
    QXCFG store = qxCFGOpen(file.c_str(), 0);
    if (store == 0) __builtin_trap();  // the file is there and readable
    uint32_t number = 0, length = 0;
    qxCFGValueDword(store, key.c_str(), value.c_str(), &number, 0);
    qxCFGValueString(store, key.c_str(), value.c_str(), nullptr, &length, 0);
    number = size > 2 ? data[2] * 0x01010101u : 0;
    length = static_cast<uint32_t>(text.size());
    if (qxCFGValueString(store, key.c_str(), value.c_str(), const_cast<char*>(text.data()), &length, 1) != 0 ||
        qxCFGValueDword(store, key.c_str(), (value + "#").c_str(), &number, 1) != 0)
        __builtin_trap();
    g_complained = false;
    qxCFGClose(store, 1);
    store = qxCFGOpen(file.c_str(), 0);
    std::string back(text.size() + 1, '\0');
    length = static_cast<uint32_t>(back.size());
    uint32_t numberBack = ~number;
    if (qxCFGValueString(store, key.c_str(), value.c_str(), back.data(), &length, 0) != 0 || length != text.size() ||
        back.compare(0, length, text) != 0)
        __builtin_trap();
    if (qxCFGValueDword(store, key.c_str(), (value + "#").c_str(), &numberBack, 0) != 0 || numberBack != number)
        __builtin_trap();
    qxCFGClose(store, 0);
    if (g_complained) __builtin_trap();  // saved, and read back without complaint
    return 0;
}
