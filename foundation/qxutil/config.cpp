// Configuration store kept in XML files (see qxutil.h for the contract).
//
// File form:
//   <qnvconfig>
//     <key path="Quellbox\Advanced">
//       <dword name="ForceVideoRangeMatrix">0</dword>
//       <string name="Label">text</string>
//       <string name="Blob" encoding="hex">00FF</string>
//     </key>
//     <key path="4B0D" pathencoding="hex">
//       <dword name="0D" nameencoding="hex">1</dword>
//     </key>
//   </qnvconfig>
// Texts, key paths and value names with control characters or bytes above
// 126, and texts of spaces alone, are stored as hex, so that the file stays
// well-formed XML and every byte comes back.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tinyxml2.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "qnvutil/qxutil.h"

namespace {

// Key paths and value names match ignoring ASCII case: the lookup tables
// are keyed by this form.
std::string folded(std::string_view name) {
    std::string out(name);
    for (char& c : out)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    return out;
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
    std::unordered_map<std::string, size_t> byName;  // folded name -> index in values
};

struct Store {
    std::vector<Key> keys;
    std::unordered_map<std::string, size_t> byPath;  // folded path -> index in keys

    Key* findKey(const std::string& path) {
        auto it = byPath.find(folded(path));
        return it == byPath.end() ? nullptr : &keys[it->second];
    }

    Value* find(const std::string& path, const std::string& name) {
        Key* k = findKey(path);
        if (k == nullptr) return nullptr;
        auto it = k->byName.find(folded(name));
        return it == k->byName.end() ? nullptr : &k->values[it->second];
    }

    // The value, added (with the spelling given) when missing.
    Value& insert(const std::string& path, const std::string& name) {
        Key* k = findKey(path);
        if (k == nullptr) {
            byPath.emplace(folded(path), keys.size());
            k = &keys.emplace_back(Key{path, {}, {}});
        }
        auto [it, added] = k->byName.emplace(folded(name), k->values.size());
        if (added) k->values.push_back(Value{name, false, 0, {}});
        return k->values[it->second];
    }

    bool erase(const std::string& path, const std::string& name) {
        Key* k = findKey(path);
        if (k == nullptr) return false;
        auto it = k->byName.find(folded(name));
        if (it == k->byName.end()) return false;
        const size_t gone = it->second;
        k->values.erase(k->values.begin() + static_cast<std::ptrdiff_t>(gone));
        k->byName.erase(it);
        for (auto& entry : k->byName)
            if (entry.second > gone) --entry.second;
        return true;
    }

    void clear() {
        keys.clear();
        byPath.clear();
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
        if (kind == kErase) return s.erase(key, name);
        Value& v = s.insert(key, name);
        v.isDword = kind == kDword;
        v.dword = dword;
        v.text = kind == kText ? text : std::string();
        return true;
    }
};

enum class Loaded { kOk, kMissing, kCorrupt, kUnreadable };

// Guards the tables below; never held while a file is read or written (the
// file locks order the writers, threads included).
std::mutex g_lock;
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
    bool first;
    {
        std::lock_guard guard(g_lock);
        first = g_reported.insert(file).second;
    }
    if (first) ErrOut("qxCFG: configuration store %s %s; it reads as empty", file.c_str(), why);
}

// Control characters and bytes above 126 cannot stand in XML as they are, and
// a text of spaces alone is dropped by the parser: such texts go as hex.
bool needsHex(const std::string& text) {
    bool spacesOnly = !text.empty();
    for (unsigned char c : text) {
        if (c < 0x20 || c > 0x7E) return true;
        if (c != ' ') spacesOnly = false;
    }
    return spacesOnly;
}

std::string toHex(const std::string& bytes) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string hex;
    hex.reserve(bytes.size() * 2);
    for (unsigned char c : bytes) {
        hex.push_back(kHex[c >> 4]);
        hex.push_back(kHex[c & 15]);
    }
    return hex;
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

// A text as stored: hex when the marking attribute says so.
std::optional<std::string> decoded(const char* text, const tinyxml2::XMLElement* e, const char* marker) {
    if (text == nullptr) return std::nullopt;
    const char* encoding = e->Attribute(marker);
    if (encoding != nullptr && std::strcmp(encoding, "hex") == 0) return fromHex(text);
    return std::string(text);
}

// Sets the attribute, as hex (marked by `marker`) when it needs to be.
void setEncoded(tinyxml2::XMLElement* e, const char* attribute, const char* marker, const std::string& text) {
    if (!needsHex(text)) {
        e->SetAttribute(attribute, text.c_str());
        return;
    }
    e->SetAttribute(attribute, toHex(text).c_str());
    e->SetAttribute(marker, "hex");
}

bool parse(const std::string& bytes, Store& out) {
    tinyxml2::XMLDocument doc;
    if (doc.Parse(bytes.data(), bytes.size()) != tinyxml2::XML_SUCCESS) return false;
    const tinyxml2::XMLElement* root = doc.RootElement();
    if (root == nullptr || std::strcmp(root->Name(), "qnvconfig") != 0) return false;
    for (auto* k = root->FirstChildElement("key"); k != nullptr; k = k->NextSiblingElement("key")) {
        auto path = decoded(k->Attribute("path"), k, "pathencoding");
        if (!path) return false;
        for (auto* v = k->FirstChildElement(); v != nullptr; v = v->NextSiblingElement()) {
            auto name = decoded(v->Attribute("name"), v, "nameencoding");
            if (!name) return false;
            const char* text = v->GetText() != nullptr ? v->GetText() : "";
            if (std::strcmp(v->Name(), "dword") == 0) {
                char* end = nullptr;
                errno = 0;
                unsigned long value = std::strtoul(text, &end, 10);
                if (errno != 0 || end == text || *end != '\0' || value > 0xFFFFFFFFul) return false;
                Change{Change::kDword, *path, *name, static_cast<uint32_t>(value), {}}.applyTo(out);
            } else if (std::strcmp(v->Name(), "string") == 0) {
                auto value = decoded(text, v, "encoding");
                if (!value) return false;
                Change{Change::kText, *path, *name, 0, *value}.applyTo(out);
            }
        }
    }
    return true;
}

Loaded load(const std::string& file, Store& out) {
    out.clear();
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
        out.clear();
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
        setEncoded(key, "path", "pathencoding", k.path);
        root->InsertEndChild(key);
        for (const Value& v : k.values) {
            auto* e = doc.NewElement(v.isDword ? "dword" : "string");
            setEncoded(e, "name", "nameencoding", v.name);
            if (v.isDword) {
                e->SetText(v.dword);
            } else if (needsHex(v.text)) {
                e->SetAttribute("encoding", "hex");
                e->SetText(toHex(v.text).c_str());
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

// Follows symbolic links from `file` to the file they end at, so that a
// write replaces the target and keeps the links. False for a loop.
bool followLinks(std::string& file) {
    for (int depth = 0; depth < 40; ++depth) {
        struct stat st;
        if (::lstat(file.c_str(), &st) != 0 || !S_ISLNK(st.st_mode)) return true;
        char target[PATH_MAX];
        ssize_t n = ::readlink(file.c_str(), target, sizeof target);
        // guard: a target that fills the buffer may have been cut
        if (n < 0 || static_cast<size_t>(n) >= sizeof target) return false;
        std::string next(target, static_cast<size_t>(n));
        file = next[0] == '/' ? next : dirOf(file) + "/" + next;
    }
    return false;
}

// Removes the "<name>.tmpXXXXXX" files next to `file`. Writers make them only
// under the write lock, so while it is held they are what writers that died
// mid-write left behind.
void removeStaleTemporaries(const std::string& file) {
    const std::string dir = dirOf(file);
    const std::string prefix = file.substr(file.rfind('/') + 1) + ".tmp";
    DIR* d = ::opendir(dir.c_str());
    if (d == nullptr) return;
    while (const dirent* e = ::readdir(d)) {
        std::string_view name(e->d_name);
        if (name.size() == prefix.size() + 6 && name.substr(0, prefix.size()) == prefix)
            ::unlinkat(::dirfd(d), e->d_name, 0);
    }
    ::closedir(d);
}

// Writes the file through a flushed temporary and a rename, so that readers
// see either the old or the new store, never a part of one. The new file
// keeps the old one's mode and, where permitted, its owner.
bool saveAtomically(const std::string& file, const Store& s) {
    std::string bytes = print(s);
    struct stat old;
    const bool replacing = ::stat(file.c_str(), &old) == 0;
    std::string tmp = file + ".tmpXXXXXX";
    int fd = ::mkstemp(tmp.data());
    if (fd < 0) return false;
    bool ok = true;
    if (replacing) {
        // Only a privileged writer can give the file to another user;
        // anyone else's copy becomes theirs, as any rewrite would.
        if (old.st_uid != ::geteuid() || old.st_gid != ::getegid()) (void)::fchown(fd, old.st_uid, old.st_gid);
        ok = ::fchmod(fd, old.st_mode & 07777) == 0;
    } else {
        ok = ::fchmod(fd, 0644) == 0;
    }
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

// flock that waits through signals; false on any other failure.
bool lockFile(int fd, int operation) {
    while (::flock(fd, operation) != 0)
        if (errno != EINTR) return false;
    return true;
}

// Exclusive, fair access to a store file for one writer among threads and
// processes. A writer holds "<file>.queue" shared while it waits for
// "<file>.lock"; after its write it waits until it can hold the queue
// exclusively, that is until every writer that was waiting has had its turn.
// Without that pause the writer that just released the lock takes it again
// before the sleeping ones wake, and the others starve.
class WriteLock {
public:
    explicit WriteLock(const std::string& file)
        : queue_(::open((file + ".queue").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)),
          lock_(::open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
        held_ = queue_ >= 0 && lock_ >= 0 && lockFile(queue_, LOCK_SH) && lockFile(lock_, LOCK_EX) &&
                lockFile(queue_, LOCK_UN);
    }
    ~WriteLock() {
        if (held_) {
            ::flock(lock_, LOCK_UN);
            lockFile(queue_, LOCK_EX);  // the pause only orders writers: its failure changes nothing
        }
        if (lock_ >= 0) ::close(lock_);
        if (queue_ >= 0) ::close(queue_);
    }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;
    bool held() const { return held_; }

private:
    int queue_, lock_;
    bool held_ = false;
};

// Re-reads the file and applies `changes` to it under the write lock. A
// symbolic link is written through to the file it names.
uint32_t commit(std::string file, const std::vector<Change>& changes, bool* existed) {
    if (!makeDirs(dirOf(file)) || !followLinks(file)) return QXCFG_FAILED;
    WriteLock lock(file);
    if (!lock.held()) return QXCFG_FAILED;
    removeStaleTemporaries(file);
    Store current;
    switch (load(file, current)) {
        case Loaded::kCorrupt:
            reportOnce(file, "cannot be parsed");
            ::rename(file.c_str(), (file + ".corrupt").c_str());
            break;
        case Loaded::kUnreadable:
            reportOnce(file, "cannot be read");
            return QXCFG_FAILED;
        default: break;
    }
    bool found = true;
    for (const Change& c : changes) found = c.applyTo(current);
    if (existed != nullptr) *existed = found;
    return saveAtomically(file, current) ? 0u : QXCFG_FAILED;
}

std::string defaultFile() { return configDir() + "/default.xml"; }

// Runs one change on a store: the default store commits it at once, an
// opened store records it in its private copy.
uint32_t change(QXCFG store, const Change& c) {
    if (store == QXCFG_DEFAULT) {
        bool existed = true;
        uint32_t r = commit(defaultFile(), {c}, &existed);
        return r != 0 ? r : existed ? 0u : QXCFG_MISSING;
    }
    std::lock_guard guard(g_lock);
    auto it = g_open.find(store);
    if (it == g_open.end()) return QXCFG_BADHANDLE;
    if (!c.applyTo(it->second.copy)) return QXCFG_MISSING;
    it->second.changes.push_back(c);
    return 0;
}

// Looks a value up; calls `use` with it under the lock.
template <typename Use>
uint32_t lookup(QXCFG store, const char* key, const char* name, Use use) {
    if (store == QXCFG_DEFAULT) {
        Store fresh;
        loadForReading(defaultFile(), fresh);
        return use(fresh.find(key, name));
    }
    std::lock_guard guard(g_lock);
    auto it = g_open.find(store);
    if (it == g_open.end()) return QXCFG_BADHANDLE;
    return use(it->second.copy.find(key, name));
}

}  // namespace

extern "C" {

QXCFG qxCFGOpen(const char* name, uint32_t) {
    if (name == nullptr || *name == '\0') return 0;
    OpenStore open;
    open.file = resolve(name);
    Loaded state = load(open.file, open.copy);
    if (state == Loaded::kUnreadable) {
        reportOnce(open.file, "cannot be read");
        return 0;
    }
    if (state == Loaded::kCorrupt) reportOnce(open.file, "cannot be parsed");
    std::lock_guard guard(g_lock);
    QXCFG handle = g_nextHandle++;
    g_open.emplace(handle, std::move(open));
    return handle;
}

void qxCFGClose(QXCFG store, uint32_t keep) {
    OpenStore closing;
    {
        std::lock_guard guard(g_lock);
        auto it = g_open.find(store);
        if (it == g_open.end()) return;
        closing = std::move(it->second);
        g_open.erase(it);
    }
    if (keep != 0 && !closing.changes.empty() && commit(closing.file, closing.changes, nullptr) != 0)
        ErrOut("qxCFG: could not save configuration store %s", closing.file.c_str());
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
