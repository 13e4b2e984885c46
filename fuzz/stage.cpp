#include "stage.h"

#include "world.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace tavro_fuzz {

Stage::Stage()
    : m_sandbox(tavro_model::fastFolder()), m_root(m_sandbox.path().string()), m_model(m_root),
      m_home("HOME", m_root + "/home") {
    for (const char* folder : {"home", "A", "A/folder", "B"}) {
        addFolder(folder);
    }
    for (const char* file : {"A/x.txt", "A/folder/inner", "B/x.txt", "B/back\\slash"}) {
        addFile(file);
    }
    addLink("B/to folder", "../A/folder");
    addLink("B/to file", m_root + "/A/x.txt");
    addLink("B/dangling", "nowhere/at/all");
    addLink("B/circle", "circle");
    m_model.Home = m_root + "/home";
    m_model.Disk.CurrentDirectory = m_root + "/A";
}

void Stage::addFolder(const std::string& path) {
    tavro_test::makeDirectory(m_sandbox / path);
    m_model.Disk.makeDirectory(m_root + "/" + path);
}

void Stage::addFile(const std::string& path) {
    tavro_test::writeFile(m_sandbox / path, path);
    m_model.Disk.writeFile(m_root + "/" + path, path);
}

void Stage::addLink(const std::string& path, const std::string& target) {
    fs::create_symlink(target, m_sandbox / path);
    m_model.Disk.makeLink(m_root + "/" + path, target);
}

std::string Stage::inRoot(const std::string& text) const {
    std::string result;
    for (const char byte : text) {
        if (byte == '$') {
            result += m_root;
        } else if (byte != '\0') {
            result += byte;
        }
    }
    return result;
}

Stage& stage() {
    static Stage theOne;
    return theOne;
}

} // namespace tavro_fuzz
