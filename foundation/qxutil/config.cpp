// Configuration store kept in XML files (see qxutil.h for the contract).
//
// File form:
//   <qnvconfig>
//     <key path="Quellbox\Advanced">
//       <dword name="ForceVideoRangeMatrix">0</dword>
//       <string name="Label">text</string>
//       <string name="Blob" encoding="hex">00FF</string>
//     </key>
//   </qnvconfig>
// Texts with control characters or bytes above 126 are stored as hex so that
// the file stays well-formed XML and every byte comes back.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tinyxml2.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "qnvutil/qxutil.h"

namespace {

bool sameName(const std::string& a, const char* b) {
    size_t n = std::strlen(b);
    if (a.size() != n) return false;
    for (size_t i = 0; i < n; ++i) {
        unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
        if (x >= 'A' && x <= 'Z') x = static_cast<unsigned char>(x + 32);
        if (y >= 'A' && y <= 'Z') y = static_cast<unsigned char>(y + 32);
        if (x != y) return false;
    }
    return true;
}

struct Value {
    std::string name;
    bool isDword = false;
    uint32_t dword = 0;
    std::string text;
};

struct Key {
    std::string path;
    std::vector<Value> values;
};

struct Store {
    std::vector<Key> keys;

    Value* find(const char* key, const char* name) {
        for (Key& k : keys) {
            if (!sameName(k.path, key)) continue;
            for (Value& v : k.values)
                if (sameName(v.name, name)) return &v;
        }
        return nullptr;
    }

    Value& insert(const char* key, const char* name) {
        if (Value* v = find(key, name)) return *v;
        Key* target = nullptr;
        for (Key& k : keys)
            if (sameName(k.path, key)) target = &k;
        if (target == nullptr) {
            keys.push_back(Key{key, {}});
            target = &keys.back();
        }
        target->values.push_back(Value{name, false, 0, {}});
        return target->values.back();
    }

    bool erase(const char* key, const char* name) {
        for (Key& k : keys) {
            if (!sameName(k.path, key)) continue;
            for (auto it = k.values.begin(); it != k.values.end(); ++it) {
                if (sameName(it->name, name)) {
                    k.values.erase(it);
                    return true;
                }
            }
        }
        return false;
    }
};

// One change to a store, kept so that it can be replayed on a fresh copy of
// the file under the write lock.
struct Change {
    enum Kind { kDword, kText, kErase } kind;
    std::string key, name;
    uint32_t dword = 0;
    std::string text;

    bool applyTo(Store& s) const {
        if (kind == kErase) return s.erase(key.c_str(), name.c_str());
        Value& v = s.insert(key.c_str(), name.c_str());
        v.isDword = kind == kDword;
        v.dword = dword;
        v.text = kind == kText ? text : std::string();
        return true;
    }
};

enum class Loaded { kOk, kMissing, kCorrupt, kUnreadable };

std::mutex g_lock;  // guards the tables below and serialises writers in this process
std::set<std::string> g_reported;
struct OpenStore {
    std::string file;
    Store copy;
    std::vector<Change> changes;
};
std::map<QXCFG, OpenStore> g_open;
QXCFG g_nextHandle = 1;

std::string configDir() {
    if (const char* d = std::getenv("QNVUTIL_CONFIG_DIR"); d != nullptr && *d != '\0') return d;
    if (const char* x = std::getenv("XDG_CONFIG_HOME"); x != nullptr && *x != '\0')
        return std::string(x) + "/qnvutil";
    const char* home = std::getenv("HOME");
    return std::string(home != nullptr && *home != '\0' ? home : ".") + "/.config/qnvutil";
}

std::string resolve(const char* name) {
    if (name[0] == '/') return name;
    return configDir() + "/" + name;
}

std::string dirOf(const std::string& file) {
    size_t slash = file.rfind('/');
    return slash == std::string::npos ? std::string(".") : file.substr(0, slash == 0 ? 1 : slash);
}

void reportOnce(const std::string& file, const char* why) {
    if (g_reported.insert(file).second)
        ErrOut("qxCFG: configuration store %s %s; it reads as empty", file.c_str(), why);
}

bool needsHex(const std::string& text) {
    for (unsigned char c : text)
        if (c < 0x20 || c > 0x7E) return true;
    return false;
}

std::optional<std::string> fromHex(const char* hex) {
    std::string out;
    size_t n = std::strlen(hex);
    if (n % 2 != 0) return std::nullopt;
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        return -1;
    };
    for (size_t i = 0; i < n; i += 2) {
        int hi = digit(hex[i]), lo = digit(hex[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi * 16 + lo));
    }
    return out;
}

bool parse(const std::string& bytes, Store& out) {
    tinyxml2::XMLDocument doc;
    if (doc.Parse(bytes.data(), bytes.size()) != tinyxml2::XML_SUCCESS) return false;
    const tinyxml2::XMLElement* root = doc.RootElement();
    if (root == nullptr || std::strcmp(root->Name(), "qnvconfig") != 0) return false;
    for (auto* k = root->FirstChildElement("key"); k != nullptr; k = k->NextSiblingElement("key")) {
        const char* path = k->Attribute("path");
        if (path == nullptr) return false;
        for (auto* v = k->FirstChildElement(); v != nullptr; v = v->NextSiblingElement()) {
            const char* name = v->Attribute("name");
            if (name == nullptr) return false;
            const char* text = v->GetText() != nullptr ? v->GetText() : "";
            if (std::strcmp(v->Name(), "dword") == 0) {
                char* end = nullptr;
                errno = 0;
                unsigned long value = std::strtoul(text, &end, 10);
                if (errno != 0 || end == text || *end != '\0' || value > 0xFFFFFFFFul) return false;
                Change{Change::kDword, path, name, static_cast<uint32_t>(value), {}}.applyTo(out);
            } else if (std::strcmp(v->Name(), "string") == 0) {
                std::string value = text;
                if (const char* enc = v->Attribute("encoding"); enc != nullptr && std::strcmp(enc, "hex") == 0) {
                    auto decoded = fromHex(text);
                    if (!decoded) return false;
                    value = *decoded;
                }
                Change{Change::kText, path, name, 0, value}.applyTo(out);
            }
        }
    }
    return true;
}

Loaded load(const std::string& file, Store& out) {
    out.keys.clear();
    int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT || errno == ENOTDIR ? Loaded::kMissing : Loaded::kUnreadable;
    std::string bytes;
    char chunk[8192];
    for (;;) {
        ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            ::close(fd);
            return Loaded::kUnreadable;
        }
        if (n == 0) break;
        bytes.append(chunk, static_cast<size_t>(n));
    }
    ::close(fd);
    if (!parse(bytes, out)) {
        out.keys.clear();
        return Loaded::kCorrupt;
    }
    return Loaded::kOk;
}

// Reads a store for lookup; a damaged file reads as empty (reported once).
void loadForReading(const std::string& file, Store& out) {
    switch (load(file, out)) {
        case Loaded::kCorrupt: reportOnce(file, "cannot be parsed"); break;
        case Loaded::kUnreadable: reportOnce(file, "cannot be read"); break;
        default: break;
    }
}

std::string print(const Store& s) {
    tinyxml2::XMLDocument doc;
    doc.InsertEndChild(doc.NewDeclaration());
    auto* root = doc.NewElement("qnvconfig");
    doc.InsertEndChild(root);
    for (const Key& k : s.keys) {
        if (k.values.empty()) continue;
        auto* key = doc.NewElement("key");
        key->SetAttribute("path", k.path.c_str());
        root->InsertEndChild(key);
        for (const Value& v : k.values) {
            auto* e = doc.NewElement(v.isDword ? "dword" : "string");
            e->SetAttribute("name", v.name.c_str());
            if (v.isDword) {
                e->SetText(v.dword);
            } else if (needsHex(v.text)) {
                static const char kHex[] = "0123456789ABCDEF";
                std::string hex;
                for (unsigned char c : v.text) {
                    hex.push_back(kHex[c >> 4]);
                    hex.push_back(kHex[c & 15]);
                }
                e->SetAttribute("encoding", "hex");
                e->SetText(hex.c_str());
            } else if (!v.text.empty()) {
                e->SetText(v.text.c_str());
            }
            key->InsertEndChild(e);
        }
    }
    tinyxml2::XMLPrinter printer;
    doc.Print(&printer);
    return std::string(printer.CStr(), static_cast<size_t>(printer.CStrSize() - 1));
}

bool makeDirs(const std::string& dir) {
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0) return S_ISDIR(st.st_mode);
    size_t slash = dir.rfind('/');
    if (slash != std::string::npos && slash > 0 && !makeDirs(dir.substr(0, slash))) return false;
    return ::mkdir(dir.c_str(), 0777) == 0 || errno == EEXIST;
}

// Writes the file through a flushed temporary and a rename, so that readers
// see either the old or the new store, never a part of one.
bool saveAtomically(const std::string& file, const Store& s) {
    std::string bytes = print(s);
    std::string tmp = file + ".tmpXXXXXX";
    int fd = ::mkstemp(tmp.data());
    if (fd < 0) return false;
    ::fchmod(fd, 0644);
    bool ok = true;
    for (size_t done = 0; ok && done < bytes.size();) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ok = false;
        else done += static_cast<size_t>(n);
    }
    ok = ok && ::fsync(fd) == 0;
    ok = ::close(fd) == 0 && ok;
    ok = ok && ::rename(tmp.c_str(), file.c_str()) == 0;
    if (!ok) {
        ::unlink(tmp.c_str());
        return false;
    }
    int dfd = ::open(dirOf(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
        ::fsync(dfd);
        ::close(dfd);
    }
    return true;
}

// Re-reads the file and applies `changes` to it under an exclusive lock on
// "<file>.lock", which serialises writers across processes.
uint32_t commit(const std::string& file, const std::vector<Change>& changes, bool* existed) {
    if (!makeDirs(dirOf(file))) return QXCFG_FAILED;
    std::string lockName = file + ".lock";
    int lockFd = ::open(lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (lockFd < 0) return QXCFG_FAILED;
    while (::flock(lockFd, LOCK_EX) != 0 && errno == EINTR) {
    }
    Store current;
    uint32_t result = 0;
    switch (load(file, current)) {
        case Loaded::kCorrupt:
            reportOnce(file, "cannot be parsed");
            ::rename(file.c_str(), (file + ".corrupt").c_str());
            break;
        case Loaded::kUnreadable:
            reportOnce(file, "cannot be read");
            result = QXCFG_FAILED;
            break;
        default: break;
    }
    if (result == 0) {
        bool found = true;
        for (const Change& c : changes) found = c.applyTo(current);
        if (existed != nullptr) *existed = found;
        if (!saveAtomically(file, current)) result = QXCFG_FAILED;
    }
    ::flock(lockFd, LOCK_UN);
    ::close(lockFd);
    return result;
}

std::string defaultFile() { return configDir() + "/default.xml"; }

// Runs one change on a store: the default store commits it at once, an
// opened store records it in its private copy.
uint32_t change(QXCFG store, const Change& c) {
    std::lock_guard guard(g_lock);
    if (store == QXCFG_DEFAULT) {
        bool existed = true;
        uint32_t r = commit(defaultFile(), {c}, &existed);
        return r != 0 ? r : existed ? 0u : QXCFG_MISSING;
    }
    auto it = g_open.find(store);
    if (it == g_open.end()) return QXCFG_BADHANDLE;
    if (!c.applyTo(it->second.copy)) return QXCFG_MISSING;
    it->second.changes.push_back(c);
    return 0;
}

// Looks a value up; calls `use` with it under the lock.
template <typename Use>
uint32_t lookup(QXCFG store, const char* key, const char* name, Use use) {
    std::lock_guard guard(g_lock);
    Store fresh;
    Store* s = &fresh;
    if (store == QXCFG_DEFAULT) {
        loadForReading(defaultFile(), fresh);
    } else {
        auto it = g_open.find(store);
        if (it == g_open.end()) return QXCFG_BADHANDLE;
        s = &it->second.copy;
    }
    return use(s->find(key, name));
}

}  // namespace

extern "C" {

QXCFG qxCFGOpen(const char* name, uint32_t) {
    if (name == nullptr || *name == '\0') return 0;
    std::lock_guard guard(g_lock);
    OpenStore open;
    open.file = resolve(name);
    Loaded state = load(open.file, open.copy);
    if (state == Loaded::kUnreadable) {
        reportOnce(open.file, "cannot be read");
        return 0;
    }
    if (state == Loaded::kCorrupt) reportOnce(open.file, "cannot be parsed");
    QXCFG handle = g_nextHandle++;
    g_open.emplace(handle, std::move(open));
    return handle;
}

void qxCFGClose(QXCFG store, uint32_t keep) {
    std::lock_guard guard(g_lock);
    auto it = g_open.find(store);
    if (it == g_open.end()) return;
    if (keep != 0 && !it->second.changes.empty() && commit(it->second.file, it->second.changes, nullptr) != 0)
        ErrOut("qxCFG: could not save configuration store %s", it->second.file.c_str());
    g_open.erase(it);
}

uint32_t qxCFGValueDword(QXCFG store, const char* key, const char* name, uint32_t* value, uint32_t write) {
    if (key == nullptr || name == nullptr || value == nullptr) return QXCFG_BADARG;
    if (write != 0) return change(store, Change{Change::kDword, key, name, *value, {}});
    return lookup(store, key, name, [&](const Value* v) {
        if (v == nullptr || !v->isDword) return QXCFG_MISSING;
        *value = v->dword;
        return 0u;
    });
}

uint32_t qxCFGValueString(QXCFG store, const char* key, const char* name, char* text, uint32_t* length,
                          uint32_t write) {
    if (key == nullptr || name == nullptr || length == nullptr) return QXCFG_BADARG;
    if (write != 0) {
        if (text == nullptr && *length != 0) return QXCFG_BADARG;
        return change(store, Change{Change::kText, key, name, 0, std::string(text != nullptr ? text : "", *length)});
    }
    return lookup(store, key, name, [&](const Value* v) {
        bool present = v != nullptr && !v->isDword;
        uint32_t size = present ? static_cast<uint32_t>(v->text.size()) : 0u;
        if (text == nullptr) {
            *length = size;
            return 0u;
        }
        if (!present) {
            *length = 0;
            return QXCFG_MISSING;
        }
        uint32_t n = size < *length ? size : *length;  // guard: never past the caller's buffer
        std::memcpy(text, v->text.data(), n);
        if (n < *length) text[n] = '\0';
        *length = size;
        return 0u;
    });
}

uint32_t qxCFGDeleteValue(QXCFG store, const char* key, const char* name) {
    if (key == nullptr || name == nullptr) return QXCFG_BADARG;
    return change(store, Change{Change::kErase, key, name, 0, {}});
}

}  // extern "C"
