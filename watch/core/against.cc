#include "watch/core/against.h"

#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "watch/capture/source.h"
#include "watch/core/options.h"

const char* againstStore(const char* value) {
    sourceSettings.against.emplace_back(value);
    return nullptr;
}

const char* againstStoreFrom(const char* value) {
    return optionsStoreTime(value, &sourceSettings.againstFrom);
}

const char* againstStoreTo(const char* value) {
    return optionsStoreTime(value, &sourceSettings.againstTo);
}

bool againstIsAsked() {
    return !sourceSettings.against.empty() || sourceSettings.againstFrom ||
           sourceSettings.againstTo;
}

const char* againstSettle() {
    SourceSettings& settings = sourceSettings;
    if (!againstIsAsked() || !settings.against.empty()) return nullptr;
    const bool hasPipe = std::ranges::any_of(settings.files, [](const std::string& name) {
        struct stat status = {};
        return name == "-" || (stat(name.c_str(), &status) == 0 && !S_ISREG(status.st_mode) &&
                               !S_ISDIR(status.st_mode));
    });
    if (hasPipe) return "compares two times of files only: a pipe can't be read twice";
    settings.against = settings.files;
    return nullptr;
}

const char* againstName() {
    static const std::string name = optionsNameOf(sourceSettings.against);
    return name.c_str();
}
