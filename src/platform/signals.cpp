#include "platform/signals.h"

volatile std::sig_atomic_t quitRequested = 0;
volatile std::sig_atomic_t dumpRequested = 0;
volatile std::sig_atomic_t reportRequested = 0;
volatile std::sig_atomic_t reloadRequested = 0;

namespace {
void onInterrupt(int) { quitRequested = 1; }
void onDump(int) { dumpRequested = 1; }
void onReport(int) { reportRequested = 1; }
void onReload(int) { reloadRequested = 1; }

void install(int sig, void (*handler)(int)) {
    struct sigaction sa{};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
}
}  // namespace

void installStopSignals() {
    install(SIGINT, onInterrupt);
    install(SIGTERM, onInterrupt);
    install(SIGUSR1, onDump);
    install(SIGUSR2, onReport);
    install(SIGHUP, onReload);
    // A console reader that goes away (`| head`) must not end the server:
    // the write fails and the console copy of the line is lost.
    install(SIGPIPE, SIG_IGN);
    // A write beyond the file-size limit then fails like one on a full disk,
    // and is handled as such, instead of ending the process.
    install(SIGXFSZ, SIG_IGN);
}
