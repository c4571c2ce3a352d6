#include "trace/run/settings_check.h"

#include <sys/stat.h>

#include <cctype>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "lib/base/log.h"
#include "trace/settings.h"

namespace {

namespace fs = std::filesystem;

// libpcap's time grows with the square of a filter's code, and its stack with the code: 10,000
// addresses overflow it. A number alone, a port as a rule, brings about five times the code of an
// address. The most takes half a second: 200 ports, or nearly 300 times "-addr".
constexpr size_t kMostFilterWeight = 1200;
constexpr size_t kNumberWeight = 5;
constexpr size_t kLongWordBytes = 32;  // of a word: each so many weigh as much as another word

bool isWordByte(char byte) {
    return std::isalnum(static_cast<unsigned char>(byte)) != 0 ||
           (byte != '\0' && std::strchr(".:-_/\\", byte) != nullptr);
}

size_t wordWeight(std::string_view word) {
    const bool isNumber = std::isdigit(static_cast<unsigned char>(word[0])) != 0 &&
                          word.find_first_of(".:") == std::string_view::npos;
    return (isNumber ? kNumberWeight : 1) + word.size() / kLongWordBytes;
}

// Punctuation weighs as much as a word.
size_t filterWeight(std::string_view text) {
    size_t weight = 0;
    while (!text.empty()) {
        size_t wordBytes = 0;
        while (wordBytes < text.size() && isWordByte(text[wordBytes]))
            ++wordBytes;
        if (wordBytes != 0) {
            weight += wordWeight(text.substr(0, wordBytes));
        } else if (std::isspace(static_cast<unsigned char>(text[0])) == 0) {
            ++weight;
        }
        text.remove_prefix(wordBytes != 0 ? wordBytes : 1);
    }
    return weight;
}

struct NamedFile {
    const char* option;
    const char* path;  // none: not given
    int32_t rotations = 0;
};

// libpcap's name for the standard streams.
const char* streamOr(const char* path, const char* stream) {
    return path != nullptr && std::strcmp(path, "-") == 0 ? stream : path;
}

// The path without links, also where its last name doesn't exist yet.
std::string resolved(const fs::path& path) {
    std::error_code ignored;
    return fs::weakly_canonical(fs::absolute(path, ignored), ignored);
}

// Does the file's rotation sooner or later take the other's name for a numbered file? Only the name
// counts: a file that has another one is not lost with it.
bool takesTheName(const NamedFile& file, const char* other) {
    std::error_code ignored;
    const fs::path path = fs::absolute(file.path, ignored);
    const std::string own = fs::path(resolved(path.parent_path())) / path.filename();
    const std::string name = resolved(other);
    if (!name.starts_with(own)) return false;

    const char* const digits = name.c_str() + own.size();
    const char* const end = name.c_str() + name.size();
    int32_t number = 0;
    const auto [stop, error] = std::from_chars(digits, end, number);
    return *digits != '0' && stop == end && error == std::errc() && number > 0 &&
           number <= file.rotations;
}

pelmoStatus refusePair(const NamedFile& file, const NamedFile& other) {
    if (file.path == nullptr || other.path == nullptr) return kStatusSuccess;
    if (filesAreOne(file.path, other.path)) {
        logPrint("%s and %s must not be the same file.", file.option, other.option);
        return kStatusInvalidArgument;
    }
    if (!takesTheName(file, other.path)) return kStatusSuccess;
    logPrint("%s must not be a numbered file of %s.", other.option, file.option);
    return kStatusInvalidArgument;
}

}  // namespace

// Devices and pipes can't overwrite each other.
bool filesAreOne(const char* path, const char* other) {
    struct stat status;
    struct stat otherStatus;
    if (stat(path, &status) != 0 || stat(other, &otherStatus) != 0) {
        return resolved(path) == resolved(other);
    }
    return S_ISREG(status.st_mode) && status.st_dev == otherStatus.st_dev &&
           status.st_ino == otherStatus.st_ino;
}

pelmoStatus validateFilter() {
    if (filterWeight(traceSettings.filterText) <= kMostFilterWeight) return kStatusSuccess;
    const bool built = traceSettings.filterText == traceSettings.builtFilter.c_str();
    logPrint("%s: too long for libpcap to compile in reasonable time.",
             built ? "the filter of -addr, -src, -dst and -port" : "-filter");
    return kStatusInvalidArgument;
}

pelmoStatus validateFiles() {
    const auto& s = traceSettings;
    const int32_t logRotations = s.logLimitBytes != 0 ? s.logMaxRotations : 0;
    const int32_t captureRotations = s.captureLimitBytes != 0 ? s.captureMaxRotations : 0;
    const NamedFile files[] = {
        {"-r", streamOr(s.readFile, "/dev/stdin")},
        {"-w", streamOr(s.writeFile, "/dev/stdout"), captureRotations},
        {"-logfile", s.logFile, logRotations},
    };
    for (const NamedFile& file : files) {
        for (const NamedFile& other : files) {
            if (&file == &other) continue;
            const pelmoStatus status = refusePair(file, other);
            if (status != kStatusSuccess) return status;
        }
    }
    return kStatusSuccess;
}
