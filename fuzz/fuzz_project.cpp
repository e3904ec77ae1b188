// Loads random files as project documents in a fresh folder (where a
// missing clip or EDL file may be recreated), uses the getters and setters,
// saves, and checks that the saved file loads again with the same names,
// embedded texts and settings. Half of the inputs are cut at '|' into the
// attribute values of a project skeleton, so that the loader's steps are
// reached without a seed corpus.
#include <dirent.h>
#include <tinyxml2.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "qnvutil/storage.h"

namespace {

class Project : public CQxProjectToXML {
public:
    // Every attribute of the three top-level elements, by element and name.
    std::map<std::string, std::string> attributes() const {
        std::map<std::string, std::string> all;
        for (const char* name : {"ClipList", "EdlList", "Settings"}) {
            const tinyxml2::XMLElement* e = document->FirstChildElement(name);
            for (const tinyxml2::XMLAttribute* a = e != nullptr ? e->FirstAttribute() : nullptr; a != nullptr;
                 a = a->Next())
                all[std::string(name) + "/" + a->Name()] = a->Value();
        }
        return all;
    }
};

// Removes the folder and what the run left in it.
void removeFolder(const std::string& dir) {
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d))
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
                ::unlink((dir + "/" + e->d_name).c_str());
        ::closedir(d);
    }
    ::rmdir(dir.c_str());
}

std::string skeleton(const uint8_t* data, size_t size) {
    std::string fields[5];
    size_t field = 0;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == '|' && field < 4) ++field;
        else fields[field].push_back(static_cast<char>(data[i]));
    }
    return "<?xml version=\"1.0\"?>\n<ClipList FileName=\"" + fields[0] + "\" Data=\"" + fields[1] +
           "\"/>\n<EdlList EdlName=\"" + fields[2] + "\" Data=\"" + fields[3] + "\"/>\n<Settings Rate=\"" +
           fields[4] + "\"/>\n";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0 || size > 4096) return 0;
    char folder[] = "/tmp/fuzz_project-XXXXXX";  // one per run, so no run sees another's files
    if (::mkdtemp(folder) == nullptr) std::abort();
    const std::string path = std::string(folder) + "/project.xml";
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (data[0] & 1)
            out << skeleton(data + 1, size - 1);
        else
            out.write(reinterpret_cast<const char*>(data + 1), static_cast<std::streamsize>(size - 1));
    }
    {
        Project p;
        const uint32_t loaded = p.LoadXMLFile(path.c_str());
        char text[QX_PROJECT_NAME_SIZE];
        p.GetClipFile(text);
        p.GetEDLName(text);
        p.GetConfigString("Rate", text);
        p.GetConfigDWORD("Rate");
        if (loaded == 1) {
            p.SetConfigString("Note", "tab\tline\r\n<&>\"'");
            if (p.SaveXMLFile() != 1) std::abort();
            Project again;
            if (again.LoadXMLFile(path.c_str()) != 1 || again.attributes() != p.attributes()) std::abort();
        }
    }
    removeFolder(folder);
    return 0;
}
