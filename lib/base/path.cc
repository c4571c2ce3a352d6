#include "lib/base/path.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "lib/base/text.h"

namespace {

constexpr size_t kFolderBytes = 512;

}  // namespace

char* absolutePath(const char* path) {
    if (path == nullptr) return nullptr;
    if (path[0] == '/') return concat2(path, "");

    char folder[kFolderBytes];
    if (getcwd(folder, sizeof folder) == nullptr) return nullptr;
    if (std::strlen(path) >= kFolderBytes - std::strlen(folder)) return nullptr;
    return concat3(folder, "/", path);
}

uint64_t fileSize64(const char* path) {
    struct stat status;
    if (stat(path, &status) != 0) return kFileSizeUnknown64;
    return static_cast<uint64_t>(status.st_size);
}

uint32_t fileSize(const char* path) {
    const uint64_t sizeBytes = fileSize64(path);
    if (sizeBytes == kFileSizeUnknown64) return kFileSizeUnknown;
    return static_cast<uint32_t>(std::min<uint64_t>(sizeBytes, kFileSizeUnknown - 1));
}
