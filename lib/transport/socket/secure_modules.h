// Binds OpenSSL 1.1.1 by name at run time: the program isn't linked against it. As the first step
// of the process both libraries are found in one directory, their version is checked, and each
// function of secure_names.h is bound. The program doesn't start when the libraries are missing.
//
// Each of those functions has a forwarder of the same name in the program: a jump through a slot,
// which passes on any arguments and results. So code that calls OpenSSL reads as usual. A slot that
// wasn't bound points to unboundEntry. The forwarders are hidden symbols: the libraries' calls of
// their own functions never end up here.
//
// Environment:
//     PM_BIN       the directory that is searched; set to the program's own
//     PM_LIB       the directory "lib" beside it, if there is one
//     PELMO_REXEC  when set, the other two are prepared already and are left alone
//
// Ownership: the libraries stay loaded until the process ends, and so does every text given here.
//
// Threads: secureBindAll runs on the main thread before any other thread starts; nothing changes
// afterwards.

#pragma once

#include "lib/base/status.h"

using SecureEntry = void (*)();

// One row of a table; a row without a slot ends it.
struct ModuleBinding {
    SecureEntry* slot;
    const char* name;
};

extern const ModuleBinding cryptoBootTable[];  // libcrypto: what the version check needs
extern const ModuleBinding cryptoTable[];      // libcrypto: all else
extern const ModuleBinding sslTable[];         // libssl

// Prints nothing on success. On failure it reports the steps taken on the standard error stream;
// the program then ends with status 1. The program's directory is taken from `argv` only when the
// operating system doesn't provide it, and never in a program that runs with more rights than its
// caller (file capabilities, set-user-id); there the directory has to be root's, and not writable
// by others. kStatusFileNotFound if there is no directory or no library in it, kStatusIoFailed
// for one that can't be loaded or is of another version, kStatusNotFound for one without a
// function.
[[nodiscard]] pelmoStatus secureBindAll(const char* const* argv);

// The initial target of every slot. It reports the fault and ends the process with status 2 at
// once, since the caller depends on a function that isn't there.
[[noreturn]] void unboundEntry();

// The version text that the library gave at the check, "Unknown" if it gave none. Without a check
// before it asks the library, which ends in unboundEntry if nothing is bound yet.
[[nodiscard]] const char* secureVersionText();
