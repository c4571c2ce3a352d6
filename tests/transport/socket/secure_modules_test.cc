#include "lib/transport/socket/secure_modules.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "lib/transport/socket/secure_names.h"
#include "tests/support/scratch_folder.h"

#define TEST_FORWARDER(name) const char* name();
extern "C" {
SECURE_CRYPTO_BOOT_NAMES(TEST_FORWARDER)
SECURE_CRYPTO_NAMES(TEST_FORWARDER)
SECURE_SSL_NAMES(TEST_FORWARDER)
}

// Binding ends processes and can't be undone: everything that binds runs in a child, by
// EXPECT_EXIT.
namespace {

namespace fs = std::filesystem;
using testing::Eq;
using testing::ExitedWithCode;

const std::string kFakes = TEST_MODULES;
const std::string kGivenUp = "Error loading shared libraries; exiting\n";
const std::string kOpenedCrypto = "Opened library libcrypto.so.1.1\n";
const std::string kOpenedBoth = kOpenedCrypto + "Opened library libssl.so.1.1\n";

// Lays a fake module into the folder: by its variant, "" for none, "text" for one that is no
// module.
void lay(const Folder& folder, const std::string& file, const std::string& variant) {
    if (variant.empty()) return;
    if (variant == "text") return writeFile(folder.path(file), "no module");
    fs::create_symlink(kFakes + "/" + variant + "/" + file, folder.path(file));
}

void layBoth(const Folder& folder, const std::string& crypto, const std::string& ssl) {
    lay(folder, "libcrypto.so.1.1", crypto);
    lay(folder, "libssl.so.1.1", ssl);
}

// In a child, which ends where it fails.
void bindAsTheToolDoes() {
    if (secureBindAll(nullptr) != kStatusSuccess) std::exit(1);
}

// In a child: binds what lies in the folder.
void bindFrom(const Folder& folder, const char* version = "1010117f") {
    setenv("PELMO_REXEC", "", 1);
    setenv("PM_BIN", folder.root.c_str(), 1);
    setenv("FAKE_VERSION_NUMBER", version, 1);
    bindAsTheToolDoes();
}

TEST(SecureModules, ReportsHowFarItCameWhenItFails) {
    const struct {
        std::string crypto, ssl;
        std::string words;
    } cases[] = {
        {"", "ssl", "Failed loading library libcrypto.so.1.1\nTried paths: @\n"},
        {"crypto", "", kOpenedCrypto + "Failed loading library libssl.so.1.1\nTried paths: @\n"},
        {"crypto", "text",
         kOpenedCrypto + "Failed loading library libssl.so.1.1\nTried paths: @\n"},
        {"crypto_without_boot_name", "",
         "failed to bind ERR_get_error\n" + kOpenedCrypto +
             "Failed binding entry points in library libcrypto.so.1.1\n"},
        {"crypto_without_last_name", "ssl_without_name",
         "failed to bind RSA_free\n" + kOpenedBoth +
             "Failed binding entry points in library libcrypto.so.1.1\n"},
        {"crypto", "ssl_without_name",
         "failed to bind SSL_read\n" + kOpenedBoth +
             "Failed binding entry points in library libssl.so.1.1\n"},
    };
    for (auto [crypto, ssl, words] : cases) {
        SCOPED_TRACE(crypto + " " + ssl);
        Folder folder;
        layBoth(folder, crypto, ssl);
        if (const size_t at = words.find('@'); at != std::string::npos) {
            words.replace(at, 1, folder.root);
        }
        EXPECT_EXIT(bindFrom(folder), ExitedWithCode(1), Eq(words + kGivenUp));
    }
    const auto bindWithoutAPath = [] {
        setenv("PELMO_REXEC", "1", 1);
        unsetenv("PM_BIN");
        bindAsTheToolDoes();
    };
    EXPECT_EXIT(bindWithoutAPath(), ExitedWithCode(1),
                Eq("Failed to set module path\n" + kGivenUp));
}

TEST(SecureModules, TakesAnyLetterOfOneVersion) {
    const struct {
        const char* version;
        bool accepted;
    } cases[] = {
        {"1010100f", true},  {"10101fff", true},  {"101000cf", false},
        {"1010200f", false}, {"30000000", false}, {"110101000", false},
    };
    Folder folder;
    layBoth(folder, "crypto_without_first_name", "ssl");
    for (const auto& [version, accepted] : cases) {
        SCOPED_TRACE(version);
        // An accepted version shows by the step after it.
        const std::string words =
            accepted ? "failed to bind OPENSSL_init_crypto\n" + kOpenedBoth +
                           "Failed binding entry points in library libcrypto.so.1.1\n"
                     : kOpenedBoth + "Wrong SSL version\n";
        EXPECT_EXIT(bindFrom(folder, version), ExitedWithCode(1), Eq(words + kGivenUp));
    }
}

struct Forwarder {
    const char* name;
    const char* (*call)();
};

#define TEST_ROW(name) {#name, name},
const Forwarder kForwarders[] = {
    SECURE_CRYPTO_NAMES(TEST_ROW) SECURE_SSL_NAMES(TEST_ROW){"ERR_get_error", ERR_get_error},
    {"ERR_error_string", ERR_error_string},
};

// Nor is one seen by the dynamic linker: it would catch the calls within OpenSSL itself, and the
// library's own functions are for the slots alone.
TEST(SecureModules, EachForwarderLeadsToItsFunction) {
    Folder folder;
    layBoth(folder, "crypto", "ssl");
    const auto callAll = [&folder](const char* version) {
        unsetenv("FAKE_VERSION_TEXT");
        if (version != nullptr) setenv("FAKE_VERSION_TEXT", version, 1);
        bindFrom(folder);
        for (const Forwarder& forwarder : kForwarders) {
            const bool leads = std::strcmp(forwarder.call(), forwarder.name) == 0;
            if (leads && dlsym(RTLD_DEFAULT, forwarder.name) == nullptr) continue;
            std::fprintf(stderr, "%s leads to %s, or is seen\n", forwarder.name, forwarder.call());
        }
        std::fputs(secureVersionText(), stderr);
        std::exit(0);
    };
    EXPECT_EXIT(callAll("OpenSSL 1.1.1w"), ExitedWithCode(0), Eq("OpenSSL 1.1.1w"));
    EXPECT_EXIT(callAll(nullptr), ExitedWithCode(0), Eq("Unknown"));
}

TEST(SecureModules, ACallBeforeTheBindingEndsTheProcess) {
    const std::string words = "Unrecoverable error: an unbound module entry point was invoked.";
    for (const Forwarder& forwarder : {kForwarders[0], {"SSL_read", SSL_read}}) {
        EXPECT_EXIT(forwarder.call(), ExitedWithCode(2), Eq(words)) << forwarder.name;
    }
    EXPECT_EXIT((void)secureVersionText(), ExitedWithCode(2), Eq(words));
}

}  // namespace
