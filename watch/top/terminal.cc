#include "watch/top/terminal.h"

#include <fcntl.h>
#include <langinfo.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "watch/core/text.h"
#include "watch/top/keys.h"

// After all others: it defines short words as macros.
#define NCURSES_WIDECHAR 1
#define NCURSES_NOMACROS 1
#include <curses.h>
#include <term.h>
#undef columns
#undef lines

namespace {

constexpr int kEscapeMilliseconds = 50;  // within which the rest of a key's sequence comes
constexpr short kTroublePair = 1;

// What ends the process at once: its faults, limits of the system, and what others send.
constexpr int kFatalSignals[] = {SIGABRT, SIGSEGV, SIGBUS,  SIGFPE,    SIGILL,  SIGQUIT, SIGSYS,
                                 SIGTRAP, SIGXCPU, SIGALRM, SIGVTALRM, SIGPROF, SIGUSR1, SIGUSR2};

struct Terminal {
    FILE* input = nullptr;  // keys
    int inputDescriptor = -1;
    SCREEN* screen = nullptr;
    bool hasColour = false;
    ScreenSigns signs;
    ScreenPlace click = {};

    // For a rescue: written once, before `isTaken`.
    termios before = {};
    char restore[256] = {};
    size_t restoreBytes = 0;
    std::atomic<bool> isTaken = false;
};

constinit Terminal terminal;

static_assert(std::atomic<bool>::is_always_lock_free);

int keepRestoreByte(int byte) {
    if (terminal.restoreBytes < sizeof terminal.restore) {
        terminal.restore[terminal.restoreBytes++] = static_cast<char>(byte);
    }
    return byte;
}

// What the terminal is sent to leave the full screen, in the order of the end of curses.
void keepRestore() {
    terminal.restoreBytes = 0;
    for (const char* const text :
         {exit_attribute_mode, orig_pair, keypad_local, cursor_normal, exit_ca_mode}) {
        if (text != nullptr) tputs(text, 1, keepRestoreByte);
    }
    // The mouse isn't reported any more; terminals that never did don't know what this is.
    for (const char* text = "\033[?1000l\033[?1006l"; has_mouse() && *text != '\0'; ++text) {
        keepRestoreByte(*text);
    }
    keepRestoreByte('\r');
}

void onFatalSignal(int number) {
    terminalRescue();
    raise(number);  // as the system has it, when this handler returns
}

// Sanitizers have handlers of their own, which stay.
void watchFatalSignals() {
    struct sigaction action = {};
    action.sa_handler = onFatalSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (const int number : kFatalSignals) {
        struct sigaction present = {};
        const bool isFree = sigaction(number, nullptr, &present) == 0 &&
                            (present.sa_flags & SA_SIGINFO) == 0 && present.sa_handler == SIG_DFL;
        if (isFree) sigaction(number, &action, nullptr);
    }
}

bool isPlainName(const char* name, const char* wanted) {
    return std::strncmp(name, wanted, std::strlen(wanted)) == 0;
}

// By convention any value but an empty one.
bool mayUseColour() {
    const char* const none = std::getenv("NO_COLOR");
    return none == nullptr || *none == '\0';
}

void startColour() {
    if (!mayUseColour() || !has_colors() || start_color() == ERR) return;
    if (use_default_colors() == ERR) return;
    terminal.hasColour = init_pair(kTroublePair, COLOR_RED, -1) != ERR;
}

attr_t attributesOf(Style style) {
    switch (style) {
        case Style::kPlain:
            return A_NORMAL;
        case Style::kStrong:
        case Style::kTrouble:
            return A_BOLD;
        case Style::kFaint:
            return A_DIM;
        case Style::kHeading:
            return A_UNDERLINE;
        case Style::kHere:
            return A_REVERSE;
    }
    return A_NORMAL;
}

void setStyle(Style style) {
    const bool isColoured = style == Style::kTrouble && terminal.hasColour;
    attr_set(attributesOf(style), isColoured ? kTroublePair : short{0}, nullptr);
}

void showLine(int line, const ScreenLine& text) {
    if (move(line, 0) == ERR) return;
    const char* at = text.text.data();
    for (const StyledPiece& piece : text.pieces) {
        setStyle(piece.style);
        addnstr(at, static_cast<int>(piece.bytes));
        at += piece.bytes;
    }
    setStyle(Style::kPlain);
    if (text.columns < static_cast<size_t>(COLS)) clrtoeol();
}

struct CursesKey {
    wint_t curses;
    uint32_t key;
};

constexpr CursesKey kCursesKeys[] = {
    {KEY_UP, kKeyUp},
    {KEY_DOWN, kKeyDown},
    {KEY_LEFT, kKeyLeft},
    {KEY_RIGHT, kKeyRight},
    {KEY_PPAGE, kKeyPageUp},
    {KEY_NPAGE, kKeyPageDown},
    {KEY_HOME, kKeyHome},
    {KEY_END, kKeyEnd},
    {KEY_BTAB, kKeyBackTab},
    {KEY_ENTER, kKeyEnter},
    {KEY_BACKSPACE, kKeyBackspace},
    {KEY_A1, kKeyHome},
    {KEY_A3, kKeyPageUp},
    {KEY_C1, kKeyEnd},
    {KEY_C3, kKeyPageDown},
};

uint32_t keyOfCurses(wint_t curses) {
    for (const CursesKey& row : kCursesKeys) {
        if (row.curses == curses) return row.key;
    }
    return kKeyNone;
}

// Presses of the first button, and the wheel, which terminals report as two further ones.
void startMouse() {
    mousemask(BUTTON1_PRESSED | BUTTON4_PRESSED | BUTTON5_PRESSED, nullptr);
    mouseinterval(0);  // a click is a press
}

uint32_t readMouse() {
    MEVENT event = {};
    if (getmouse(&event) != OK) return kKeyNone;
    if ((event.bstate & BUTTON4_PRESSED) != 0) return kKeyWheelUp;
    if ((event.bstate & BUTTON5_PRESSED) != 0) return kKeyWheelDown;
    if ((event.bstate & BUTTON1_PRESSED) == 0 || event.x < 0 || event.y < 0) return kKeyNone;
    terminal.click = {static_cast<size_t>(event.x), static_cast<size_t>(event.y)};
    return kKeyClick;
}

// What the program was started on, as the message names it.
const char* refuseTerminal(const char* what) {
    static char text[160];
    char name[64];
    const char* const term = std::getenv("TERM");
    (void)safeText(term != nullptr ? term : "", name, sizeof name);
    std::snprintf(text, sizeof text, "can't use the terminal \"%s\" (TERM): %s", name, what);
    return text;
}

}  // namespace

bool terminalIsThere(bool keepsStandardInput) {
    terminal.input = keepsStandardInput ? std::fopen("/dev/tty", "re") : stdin;
    terminal.inputDescriptor = terminal.input != nullptr ? fileno(terminal.input) : -1;
    return isatty(terminal.inputDescriptor) != 0 && isatty(STDOUT_FILENO) != 0;
}

const char* terminalRefusal() {
    const char* const term = std::getenv("TERM");
    int found = 0;
    if (term == nullptr || *term == '\0' || setupterm(nullptr, STDOUT_FILENO, &found) == ERR) {
        return refuseTerminal("it isn't known");
    }
    const bool hasScreen = !generic_type && cursor_address != nullptr && clear_screen != nullptr;
    del_curterm(cur_term);
    return hasScreen ? nullptr : refuseTerminal("it has no full screen");
}

int terminalInput() {
    return terminal.inputDescriptor;
}

bool terminalOpen() {
    std::setlocale(LC_CTYPE, "");
    const char* const name = std::getenv("TERM");
    terminal.signs.isUtf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    // Their fonts have few of the signs.
    terminal.signs.hasBlocks =
        terminal.signs.isUtf8 && !isPlainName(name, "linux") && !isPlainName(name, "vt");
    if (tcgetattr(terminal.inputDescriptor, &terminal.before) != 0) return false;
    terminal.screen = newterm(nullptr, stdout, terminal.input);
    if (terminal.screen == nullptr) return false;
    startMouse();
    keepRestore();
    terminal.isTaken = true;
    // Curses would stop the process by itself, whatever its threads are doing.
    signal(SIGTSTP, SIG_DFL);
    watchFatalSignals();
    std::atexit(terminalRescue);
    startColour();
    cbreak();
    noecho();
    nonl();
    intrflush(stdscr, FALSE);
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(kEscapeMilliseconds);
    leaveok(stdscr, FALSE);
    curs_set(0);
    return true;
}

void terminalClose() {
    if (!terminal.isTaken.exchange(false)) return;
    endwin();
}

ScreenSigns terminalSigns() {
    return terminal.signs;
}

// Not every terminal line has a size; then it is that of the terminal's kind.
ScreenSize terminalSize() {
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0) {
        if (size.ws_row != LINES || size.ws_col != COLS) resizeterm(size.ws_row, size.ws_col);
    }
    return {static_cast<size_t>(COLS), static_cast<size_t>(LINES)};
}

void terminalShow(const Screen& screen) {
    if (!terminal.isTaken) return;
    for (size_t line = 0; line < screen.lines.size(); ++line) {
        showLine(static_cast<int>(line), screen.lines[line]);
    }
    curs_set(screen.hasCursor ? 1 : 0);
    if (screen.hasCursor) {
        move(static_cast<int>(screen.cursorLine), static_cast<int>(screen.cursorColumn));
    } else {
        move(0, 0);
    }
    refresh();
}

void terminalForget() {
    clearok(stdscr, TRUE);
}

bool terminalReadKey(uint32_t* key) {
    wint_t read = 0;
    const int kind = get_wch(&read);
    if (kind == ERR) return false;
    *key = kind != KEY_CODE_YES ? static_cast<uint32_t>(read)
           : read == KEY_MOUSE  ? readMouse()
                                : keyOfCurses(read);
    return true;
}

ScreenPlace terminalClick() {
    return terminal.click;
}

void terminalLeave() {
    endwin();
}

// The shell may have changed the settings of the terminal meanwhile.
void terminalReturn() {
    reset_prog_mode();
    terminalForget();
}

void terminalRescue() {
    if (!terminal.isTaken.exchange(false)) return;
    pollfd entry{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&entry, 1, 0) > 0 &&
        write(STDOUT_FILENO, terminal.restore, terminal.restoreBytes) < 0) {
        // The settings at least.
    }
    tcsetattr(terminal.inputDescriptor, TCSANOW, &terminal.before);
}
