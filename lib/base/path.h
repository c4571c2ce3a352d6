// Paths and files.
//
// Threads: any. A relative path counts from the process's working directory at that moment.

#pragma once

#include <cstdint>

// The path itself where it begins with "/", else the current directory, "/" and the path, in a new
// block that the caller frees. Null where there is no memory, where the directory can't be read, or
// where directory and path together have 512 bytes or more.
[[nodiscard]] char* absolutePath(const char* path);

// All ones: the file's size can't be read.
inline constexpr uint64_t kFileSizeUnknown64 = UINT64_MAX;
inline constexpr uint32_t kFileSizeUnknown = UINT32_MAX;

[[nodiscard]] uint64_t fileSize64(const char* path);

// A file too large for the number gives the largest one, UINT32_MAX - 1, so that it never seems
// small.
[[nodiscard]] uint32_t fileSize(const char* path);
