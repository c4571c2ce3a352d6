// A temporary folder for a test: empty at first, removed with its contents at the end.

#pragma once

#include <set>
#include <string>

#include "tests/support/test.h"

void writeFile(const std::string& path, const std::string& text);

// The whole text; empty where the file can't be read.
[[nodiscard]] std::string readFile(const std::string& path);

struct Folder : NoCopy {
    Folder();
    ~Folder();

    [[nodiscard]] std::string path(const std::string& name) const { return root + "/" + name; }

    // The names in it.
    [[nodiscard]] std::set<std::string> names() const;

    // Each entry as "name=text", text being the file's first line; a folder is "name=".
    [[nodiscard]] std::set<std::string> entries() const;

    std::string root;  // absolute, no "/" at its end
};
