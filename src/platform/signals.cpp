#include "platform/signals.h"

#include <cerrno>
#include <cstdint>
#include <unistd.h>

volatile std::sig_atomic_t quitRequested = 0;
volatile std::sig_atomic_t dumpRequested = 0;
volatile std::sig_atomic_t reportRequested = 0;
volatile std::sig_atomic_t reloadRequested = 0;
volatile std::sig_atomic_t drainRequested = 0;

namespace {
volatile std::sig_atomic_t wakeFd = -1;
volatile std::sig_atomic_t drainOnTerm = 0;

// One write(2) on the eventfd; errno belongs to the interrupted code.
void wake() {
    const int fd = wakeFd;
    if (fd < 0) return;
    const int saved = errno;
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(fd, &one, sizeof one);
    errno = saved;
}

void onInterrupt(int) {
    quitRequested = 1;
    wake();
}
void onTerminate(int) {
    if (drainOnTerm && !drainRequested)
        drainRequested = 1;
    else
        quitRequested = 1;
    wake();
}
void onDump(int) {
    dumpRequested = 1;
    wake();
}
void onReport(int) {
    reportRequested = 1;
    wake();
}
void onReload(int) {
    reloadRequested = 1;
    wake();
}

void install(int sig, void (*handler)(int)) {
    struct sigaction sa{};
    sa.sa_handler = handler;
    sigemptyset(&sa.sa_mask);
    sigaction(sig, &sa, nullptr);
}
}  // namespace

void installStopSignals() {
    install(SIGINT, onInterrupt);
    install(SIGTERM, onTerminate);
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

void drainOnTerminate() { drainOnTerm = 1; }

void wakeOnSignals(int eventFd) { wakeFd = eventFd; }
