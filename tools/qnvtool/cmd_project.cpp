// qnvtool project show FILE.xml: the clip file, EDL file and settings of a
// project document, and where a missing clip or EDL file would be recreated
// on loading. Reads the file only; nothing is recreated.
#include <tinyxml2.h>

#include <iostream>
#include <memory>
#include <string>

#include "qnvutil/qxutil.h"
#include "storage/project_internal.h"
#include "tools/qnvtool/tool.h"

namespace qnvtool {
namespace {

size_t countLines(const std::string& text) {
    size_t lines = 0;
    for (size_t i = 0; i < text.size(); ++i)
        if (text[i] == '\n' || (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n'))) ++lines;
    return lines + (!text.empty() && text.back() != '\n' && text.back() != '\r' ? 1 : 0);
}

// One of the two embedded files: its name, its text and where it resolves.
void showFile(const std::string& xml, const tinyxml2::XMLElement* element, const char* label,
              const char* nameAttribute, bool recreatedWithoutData) {
    std::cout << label << ": ";
    if (element == nullptr) {
        std::cout << "(no element)\n";
        return;
    }
    const char* name = element->Attribute(nameAttribute);
    if (name == nullptr || *name == '\0') {
        std::cout << "(none)\n";
        return;
    }
    const char* data = element->Attribute("Data");
    std::string text = data != nullptr ? data : "";
    std::cout << printable(name) << "\n";
    std::cout << "  embedded: " << text.size() << " bytes, " << countLines(text) << " lines\n";

    char beside[QX_MAX_PATH];
    qnv::projectFileBeside(xml.c_str(), name, beside);
    if (qxOSFileExists(name))
        std::cout << "  file: present\n";
    else if (qxOSFileExists(beside))
        std::cout << "  file: next to the project, " << printable(beside) << "\n";
    else if (!text.empty() || recreatedWithoutData)
        std::cout << "  file: missing; loading recreates " << printable(beside) << "\n";
    else
        std::cout << "  file: missing; nothing embedded to recreate it from\n";
}

void runShow(const std::string& file) {
    // Read here rather than by the document, which takes regular files only.
    const std::vector<uint8_t> bytes = readFile(file);
    tinyxml2::XMLDocument document;
    tinyxml2::XMLError error = document.Parse(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (error != tinyxml2::XML_SUCCESS)
        throw Error(file + ": not a project document (" + tinyxml2::XMLDocument::ErrorIDToName(error) + " at line " +
                    std::to_string(document.ErrorLineNum()) + ")");
    const tinyxml2::XMLElement* clips = document.FirstChildElement("ClipList");
    if (clips == nullptr && document.FirstChildElement("EdlList") == nullptr &&
        document.FirstChildElement("Settings") == nullptr)
        throw Error(file + ": not a project document (no ClipList, EdlList or Settings element)");
    std::cout << "project: " << printable(file) << "\n";
    showFile(file, clips, "clip file", "FileName", false);
    // Without a clip list the loader does not look at the EDL.
    showFile(file, document.FirstChildElement("EdlList"), "EDL", "EdlName", clips != nullptr);

    const tinyxml2::XMLElement* settings = document.FirstChildElement("Settings");
    size_t count = 0;
    for (const tinyxml2::XMLAttribute* a = settings != nullptr ? settings->FirstAttribute() : nullptr; a != nullptr;
         a = a->Next())
        ++count;
    std::cout << "settings: " << count << "\n";
    for (const tinyxml2::XMLAttribute* a = settings != nullptr ? settings->FirstAttribute() : nullptr; a != nullptr;
         a = a->Next())
        std::cout << "  " << printable(a->Name()) << " = " << printable(a->Value()) << "\n";
}

const Registration kProject([](CLI::App& app) {
    CLI::App* project = app.add_subcommand("project", "Inspect project documents");
    project->require_subcommand(1);
    auto file = std::make_shared<std::string>();
    CLI::App* show = project->add_subcommand("show", "Print a project's clip file, EDL file and settings");
    show->add_option("FILE", *file, "project XML file")->required();
    show->callback([file] { runShow(*file); });
});

}  // namespace
}  // namespace qnvtool
