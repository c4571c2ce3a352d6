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

// Lays fake modules into the folder: by their variants, "" for none, "text" for one that is no
// module.
void lay(const Folder& folder, const std::string& crypto, const std::string& ssl) {
    for (const auto& [file, variant] :
         {std::pair{"libcrypto.so.1.1", crypto}, {"libssl.so.1.1", ssl}}) {
        if (variant == "text") {
            writeFile(folder.path(file), "no module");
        } else if (!variant.empty()) {
            fs::create_symlink(kFakes + "/" + variant + "/" + file, folder.path(file));
        }
    }
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

// Any letter of one version is accepted, which shows by the step after it.
TEST(SecureModules, ReportsHowFarItCameWhenItFails) {
    const std::string noSsl =
        kOpenedCrypto + "Failed loading library libssl.so.1.1\nTried paths: @\n";
    const auto unbound = [](const std::string& name, const std::string& opened,
                            const std::string& library = "crypto") {
        return "failed to bind " + name + "\n" + opened +
               "Failed binding entry points in library lib" + library + ".so.1.1\n";
    };
    const std::string noFirst = unbound("OPENSSL_init_crypto", kOpenedBoth);
    const std::string wrong = kOpenedBoth + "Wrong SSL version\n";
    struct Case {
        std::string crypto, ssl, words;
        const char* version = "1010117f";
    };
    std::vector<Case> cases = {
        {"", "ssl", "Failed loading library libcrypto.so.1.1\nTried paths: @\n"},
        {"crypto", "", noSsl},
        {"crypto", "text", noSsl},
        {"crypto_without_boot_name", "", unbound("ERR_get_error", kOpenedCrypto)},
        {"crypto_without_last_name", "ssl_without_name", unbound("RSA_free", kOpenedBoth)},
        {"crypto", "ssl_without_name", unbound("SSL_read", kOpenedBoth, "ssl")},
    };
    for (const char* version : {"1010100f", "10101fff"})
        cases.push_back({"crypto_without_first_name", "ssl", noFirst, version});
    for (const char* version : {"101000cf", "1010200f", "30000000", "110101000"})
        cases.push_back({"crypto_without_first_name", "ssl", wrong, version});
    for (auto& [crypto, ssl, words, version] : cases) {
        SCOPED_TRACE(crypto + " " + ssl + " " + version);
        const Folder folder;
        lay(folder, crypto, ssl);
        if (const size_t at = words.find('@'); at != std::string::npos) {
            words.replace(at, 1, folder.root);
        }
        EXPECT_EXIT(bindFrom(folder, version), ExitedWithCode(1), Eq(words + kGivenUp));
    }
    const auto bindWithoutAPath = [] {
        setenv("PELMO_REXEC", "1", 1);
        unsetenv("PM_BIN");
        bindAsTheToolDoes();
    };
    EXPECT_EXIT(bindWithoutAPath(), ExitedWithCode(1),
                Eq("Failed to set module path\n" + kGivenUp));
}

using Forwarder = std::pair<const char*, const char* (*)()>;

#define TEST_ROW(name) {#name, name},
const Forwarder kForwarders[] = {
    SECURE_CRYPTO_NAMES(TEST_ROW) SECURE_SSL_NAMES(TEST_ROW){"ERR_get_error", ERR_get_error},
    {"ERR_error_string", ERR_error_string},
};

// Nor is one seen by the dynamic linker: it would catch the calls within OpenSSL itself, and the
// library's own functions are for the slots alone.
TEST(SecureModules, EachForwarderLeadsToItsFunction) {
    Folder folder;
    lay(folder, "crypto", "ssl");
    const auto callAll = [&folder](const char* version) {
        unsetenv("FAKE_VERSION_TEXT");
        if (version != nullptr) setenv("FAKE_VERSION_TEXT", version, 1);
        bindFrom(folder);
        for (const auto& [name, call] : kForwarders) {
            if (std::strcmp(call(), name) == 0 && dlsym(RTLD_DEFAULT, name) == nullptr) continue;
            std::fprintf(stderr, "%s leads to %s, or is seen\n", name, call());
        }
        std::fputs(secureVersionText(), stderr);
        std::exit(0);
    };
    EXPECT_EXIT(callAll("OpenSSL 1.1.1w"), ExitedWithCode(0), Eq("OpenSSL 1.1.1w"));
    EXPECT_EXIT(callAll(nullptr), ExitedWithCode(0), Eq("Unknown"));
}

TEST(SecureModules, ACallBeforeTheBindingEndsTheProcess) {
    const std::string words = "Unrecoverable error: an unbound module entry point was invoked.";
    for (const auto& [name, call] : {kForwarders[0], {"SSL_read", SSL_read}})
        EXPECT_EXIT(call(), ExitedWithCode(2), Eq(words)) << name;
    EXPECT_EXIT((void)secureVersionText(), ExitedWithCode(2), Eq(words));
}

}  // namespace
