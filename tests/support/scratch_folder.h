// A temporary folder for a test: empty at first, removed with its contents at the end.

#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "tests/support/test.h"

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

// The whole text; empty where the file can't be read.
[[nodiscard]] inline std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

struct Folder : NoCopy {
    Folder() { EXPECT_NE(mkdtemp(root.data()), nullptr); }
    ~Folder() {
        std::error_code ignored;
        std::filesystem::remove_all(root, ignored);
    }

    [[nodiscard]] std::string path(const std::string& name) const { return root + "/" + name; }

    // The names in it.
    [[nodiscard]] std::set<std::string> names() const {
        std::set<std::string> all;
        for (const auto& entry : std::filesystem::directory_iterator(root))
            all.insert(entry.path().filename().string());
        return all;
    }

    std::string root = testing::TempDir() + "pelmo_XXXXXX";  // absolute, no "/" at its end
};
