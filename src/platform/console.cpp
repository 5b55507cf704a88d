#include "platform/console.h"

#include <csignal>
#include <cstdlib>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {
bool terminalSaved = false;
struct termios savedTerminal;
bool inputEnded = false;

void restoreTerminal() {
    if (terminalSaved) {
        tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
        terminalSaved = false;
    }
}

void onFatalSignal(int sig) {
    restoreTerminal();
    std::signal(sig, SIG_DFL);
    std::raise(sig);
}
}  // namespace

bool stdoutIsTerminal() {
    static const bool terminal = isatty(STDOUT_FILENO) == 1;
    return terminal;
}

std::string ansiColourStart(std::uint16_t attribute) {
    static const int order[8] = {0, 4, 2, 6, 1, 5, 3, 7};  // console bits to ANSI colour index
    int fg = attribute & 0x7;
    bool bright = (attribute & 0x8) != 0;
    return "\x1b[" + std::to_string((bright ? 90 : 30) + order[fg]) + "m";
}

std::string ansiColourEnd() { return "\x1b[0m"; }

void beginConsoleKeys() {
    if (isatty(STDIN_FILENO) != 1 || terminalSaved) return;
    if (tcgetattr(STDIN_FILENO, &savedTerminal) != 0) return;
    struct termios raw = savedTerminal;
    // No line buffering and no echo; Ctrl+C still raises SIGINT.
    raw.c_lflag &= ~(ICANON | ECHO);
    raw.c_cc[VMIN] = 0;
    raw.c_cc[VTIME] = 0;
    if (tcsetattr(STDIN_FILENO, TCSANOW, &raw) != 0) return;
    terminalSaved = true;
    std::atexit(restoreTerminal);
    for (int sig : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL, SIGQUIT}) std::signal(sig, onFatalSignal);
}

void endConsoleKeys() { restoreTerminal(); }

int consoleKeysFd() { return terminalSaved && !inputEnded ? STDIN_FILENO : -1; }

int readConsoleKey() {
    if (inputEnded) return -1;
    struct pollfd pfd{STDIN_FILENO, POLLIN, 0};
    if (poll(&pfd, 1, 0) <= 0) return -1;
    if (pfd.revents & POLLNVAL) {
        inputEnded = true;
        return -1;
    }
    unsigned char c;
    ssize_t n = read(STDIN_FILENO, &c, 1);
    if (n == 1) return c;
    if (n == 0 || (pfd.revents & (POLLHUP | POLLERR))) inputEnded = true;
    return -1;
}
