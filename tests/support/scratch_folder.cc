#include "tests/support/scratch_folder.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

Folder::Folder() : root(testing::TempDir() + "pelmo_XXXXXX") {
    EXPECT_NE(mkdtemp(root.data()), nullptr);
}

Folder::~Folder() {
    std::error_code ignored;
    fs::remove_all(root, ignored);
}

std::set<std::string> Folder::names() const {
    std::set<std::string> all;
    for (const fs::directory_entry& entry : fs::directory_iterator(root)) {
        all.insert(entry.path().filename().string());
    }
    return all;
}

std::set<std::string> Folder::entries() const {
    std::set<std::string> all;
    for (const std::string& name : names()) {
        std::ifstream file(path(name));
        std::string text;
        std::getline(file, text);
        all.insert(name + "=" + text);
    }
    return all;
}
