// Binds OpenSSL 1.1.1 by name at run time: the system isn't linked against it. First thing in the
// process both libraries are found in one directory, checked for their version, and each function
// of secure_names.h is bound. A system whose libraries are missing doesn't start.
//
// Each of those functions has a forwarder of the same name in the system: a jump through a slot,
// which hands on any arguments and results. So code that calls OpenSSL reads as usual. A slot that
// wasn't bound leads to unboundEntry. The forwarders are hidden symbols: the libraries' calls of
// their own functions never end up here.
//
// Environment:
//     PM_BIN       the directory that is searched; set to the program's own
//     PM_LIB       the directory "lib" beside it, where there is one
//     PELMO_REXEC  when set, the other two are prepared already and are left alone
//
// Ownership: the libraries stay loaded until the process ends, and so does every text given here.
//
// Threads: secureBindAll runs on the main thread, ahead of all others; afterwards nothing changes.

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

// Quiet on success. On failure tells on the standard error stream how far it came; the program then
// ends with status 1. `argv` is asked for the program's directory only where the operating system
// doesn't tell it. kStatusFileNotFound where there is no directory or no library in it,
// kStatusIoFailed for one that can't be loaded or is of another version, kStatusNotFound for one
// without a function.
[[nodiscard]] pelmoStatus secureBindAll(const char* const* argv);

// Where every slot points at first: tells of the fault and ends the process with status 2, at once,
// as the caller relies on what isn't there.
[[noreturn]] void unboundEntry();

// What the library called itself at the check, "Unknown" if it gave nothing. Asks the library anew
// where there was no check: ahead of the binding that ends in unboundEntry.
[[nodiscard]] const char* secureVersionText();
