#include "lib/transport/socket/secure_modules.h"

#include <dlfcn.h>
#include <sys/auxv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "lib/transport/socket/secure_names.h"

// The forwarders have no prototypes, since they touch neither registers nor stack but what a jump
// between two calls may use: nothing on x86-64, x16 on arm64.
#if defined(__x86_64__)
#define SECURE_JUMP "jmp *secureSlot_\\name(%rip)\n"
#elif defined(__aarch64__)
#define SECURE_JUMP                             \
    "adrp x16, secureSlot_\\name\n"             \
    "ldr x16, [x16, :lo12:secureSlot_\\name]\n" \
    "br x16\n"
#else
#error "no forwarders for this processor"
#endif

asm(".macro secureForwarder name\n"
    ".pushsection .text\n"
    ".globl \\name\n"
    ".hidden \\name\n"
    ".type \\name, %function\n"
    ".balign 16\n"
    "\\name:\n"  //
    SECURE_JUMP
    ".size \\name, . - \\name\n"
    ".popsection\n"
    ".endm\n");

#define SECURE_FORWARDER(name) asm("secureForwarder " #name);
#define SECURE_SLOT(name) \
    [[gnu::visibility("hidden")]] SecureEntry secureSlot_##name = unboundEntry;

#define SECURE_ROW(name) {&secureSlot_##name, #name},

extern "C" {
SECURE_CRYPTO_BOOT_NAMES(SECURE_SLOT)
SECURE_CRYPTO_NAMES(SECURE_SLOT)
SECURE_SSL_NAMES(SECURE_SLOT)

// The two functions that this file calls itself.
[[gnu::visibility("hidden")]] unsigned long OpenSSL_version_num();
[[gnu::visibility("hidden")]] const char* OpenSSL_version(int what);
}

SECURE_CRYPTO_BOOT_NAMES(SECURE_FORWARDER)
SECURE_CRYPTO_NAMES(SECURE_FORWARDER)
SECURE_SSL_NAMES(SECURE_FORWARDER)

const ModuleBinding cryptoBootTable[] = {SECURE_CRYPTO_BOOT_NAMES(SECURE_ROW){nullptr, nullptr}};
const ModuleBinding cryptoTable[] = {SECURE_CRYPTO_NAMES(SECURE_ROW){nullptr, nullptr}};
const ModuleBinding sslTable[] = {SECURE_SSL_NAMES(SECURE_ROW){nullptr, nullptr}};

namespace {

constexpr const char* kCryptoFile = "libcrypto.so.1.1";
constexpr const char* kSslFile = "libssl.so.1.1";

// The version's patch letter and state lie in the low 12 bits: any 1.1.1 will do.
constexpr unsigned long kVersionMask = ~0xffful;
constexpr unsigned long kVersionWanted = 0x10101000;
constexpr int kVersionText = 0;  // the argument of OpenSSL_version

struct SecureModules {
    std::string bindingText;  // a record of the steps taken, shown only on failure
    const char* sslVersionText = nullptr;
};

SecureModules secure;

const char* versionTextNow() {
    const char* text = OpenSSL_version(kVersionText);
    return text != nullptr ? text : "Unknown";
}

// By file capabilities or set-user-id the program runs with more rights than its caller, who must
// not choose the folder that code is loaded from: neither by the environment nor by argv[0].
bool hasMoreRights() {
    return getauxval(AT_SECURE) != 0;
}

std::string programFile(const char* const* argv) {
    char name[PATH_MAX];
    const ssize_t sizeBytes = readlink("/proc/self/exe", name, sizeof name);
    if (sizeBytes > 0) return std::string(name, static_cast<size_t>(sizeBytes));
    if (hasMoreRights()) return "";
    return argv != nullptr && argv[0] != nullptr ? argv[0] : "";
}

std::string programFolder(const char* const* argv) {
    const std::string file = programFile(argv);
    const size_t separator = file.rfind('/');
    if (separator == std::string::npos) return ".";
    return separator == 0 ? "/" : file.substr(0, separator);
}

// May only root have put there what is loaded?
bool isRootsAlone(const std::string& folder) {
    struct stat status = {};
    return stat(folder.c_str(), &status) == 0 && status.st_uid == 0 &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// Leaves PM_BIN unset where no folder may be used.
void prepareEnvironment(const char* const* argv) {
    if (secure_getenv("PELMO_REXEC") != nullptr) return;
    unsetenv("PM_BIN");
    if (hasMoreRights() && programFile(argv).empty()) return;
    const std::string folder = programFolder(argv);
    if (hasMoreRights() && !isRootsAlone(folder)) {
        secure.bindingText.append(folder).append(" isn't root's, or others may write there\n");
        return;
    }
    setenv("PM_BIN", folder.c_str(), 1);
    char canonical[PATH_MAX];
    if (realpath((folder + "/../lib").c_str(), canonical) != nullptr) {
        setenv("PM_LIB", canonical, 1);
    }
}

pelmoStatus bindTable(void* module, const ModuleBinding* table) {
    for (const ModuleBinding* row = table; row->slot != nullptr; ++row) {
        void* entry = dlsym(module, row->name);
        if (entry == nullptr) {
            std::fprintf(stderr, "failed to bind %s\n", row->name);
            return kStatusNotFound;
        }
        *row->slot = reinterpret_cast<SecureEntry>(entry);
    }
    return kStatusSuccess;
}

// Loads locally and by full name: no symbol of the libraries becomes visible to the program, and no
// other directory is searched. libssl finds its libcrypto because that one is loaded already.
pelmoStatus loadModule(const std::string& folder, const char* file, void** module) {
    const std::string fullName = folder + "/" + file;
    if (access(fullName.c_str(), F_OK) != 0) return kStatusFileNotFound;
    *module = dlopen(fullName.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (*module == nullptr) return kStatusIoFailed;
    secure.bindingText.append("Opened library ").append(file).append("\n");
    return kStatusSuccess;
}

pelmoStatus checkVersion() {
    if ((OpenSSL_version_num() & kVersionMask) != kVersionWanted) {
        secure.bindingText.append("Wrong SSL version\n");
        return kStatusIoFailed;
    }
    secure.sslVersionText = versionTextNow();
    return kStatusSuccess;
}

pelmoStatus loadOrReport(const std::string& folder, const char* file, void** module) {
    const pelmoStatus status = loadModule(folder, file, module);
    if (status == kStatusSuccess) return status;
    secure.bindingText.append("Failed loading library ").append(file);
    secure.bindingText.append("\nTried paths: ").append(folder).append("\n");
    return status;
}

pelmoStatus bindOrReport(void* module, const char* file, const ModuleBinding* table) {
    const pelmoStatus status = bindTable(module, table);
    if (status == kStatusSuccess) return status;
    secure.bindingText.append("Failed binding entry points in library ").append(file).append("\n");
    return status;
}

// Stops at the first failure.
pelmoStatus bindFrom(const char* path) {
    if (path == nullptr) {
        secure.bindingText.append("Failed to set module path\n");
        return kStatusFileNotFound;
    }
    const std::string folder = path;
    void* crypto = nullptr;
    void* ssl = nullptr;
    pelmoStatus status = loadOrReport(folder, kCryptoFile, &crypto);
    if (status == kStatusSuccess) status = bindOrReport(crypto, kCryptoFile, cryptoBootTable);
    if (status == kStatusSuccess) status = loadOrReport(folder, kSslFile, &ssl);
    if (status == kStatusSuccess) status = checkVersion();
    if (status == kStatusSuccess) status = bindOrReport(crypto, kCryptoFile, cryptoTable);
    if (status == kStatusSuccess) status = bindOrReport(ssl, kSslFile, sslTable);
    return status;
}

}  // namespace

pelmoStatus secureBindAll(const char* const* argv) {
    prepareEnvironment(argv);
    const pelmoStatus status = bindFrom(getenv("PM_BIN"));
    if (status != kStatusSuccess) {
        secure.bindingText.append("Error loading shared libraries; exiting\n");
        std::fprintf(stderr, "%s", secure.bindingText.c_str());
    }
    secure.bindingText = std::string();
    return status;
}

void unboundEntry() {
    std::fprintf(stderr, "Unrecoverable error: an unbound module entry point was invoked.");
    _exit(2);
}

const char* secureVersionText() {
    return secure.sslVersionText != nullptr ? secure.sslVersionText : versionTextNow();
}
