// The terminal of the process as a full screen, by curses. Whatever ends the process leaves it as
// it was: orderly ends close it, other signals that end it (SIGABRT, SIGSEGV, SIGUSR1 and their
// like) restore it on their way, and so does exit(). SIGKILL alone doesn't.
//
// Threads: one thread opens, draws, reads keys and closes. terminalRescue may be called by any, and
// by signal handlers.

#pragma once

#include <cstdint>
#include <string>

#include "watch/top/screen.h"

// Are the standard input and output terminals? With the standard input kept for other uses keys
// come from the terminal of the session, which then has to be there in its place.
[[nodiscard]] bool terminalIsThere(bool keepsStandardInput);

// Where keys come from: readable while one waits.
[[nodiscard]] int terminalInput();

// Why there can be no full screen on it, in words that follow a name: "can't use the terminal ...";
// null where there can. The description of the terminal is read from where the environment says, so
// no right should be left by then.
[[nodiscard]] const char* terminalRefusal();

// Takes the terminal. False where the system refuses.
[[nodiscard]] bool terminalOpen();
void terminalClose();

// What the open terminal can show, and its size by now.
[[nodiscard]] ScreenSigns terminalSigns();
[[nodiscard]] ScreenSize terminalSize();

// Shows what differs from what was shown; after terminalForget all of it. Waits for the terminal.
void terminalShow(const Screen& screen);
void terminalForget();

// The next key that was pressed, as watch/top/keys.h has them. Doesn't wait, but for the rest of a
// sequence that one key sends. False where there is none.
[[nodiscard]] bool terminalReadKey(uint32_t* key);

// Where the last kKeyClick was.
[[nodiscard]] ScreenPlace terminalClick();

// Gives the terminal back as it was, and takes it again: around a stop of the process.
void terminalLeave();
void terminalReturn();

// Gives the terminal back for good, by system calls alone and without waiting for it. Nothing
// happens where it isn't taken.
void terminalRescue();
