#pragma once
// Signal handlers only raise flags; the main loop reads them.

#include <csignal>

extern volatile std::sig_atomic_t quitRequested;
// SIGUSR1: dump events and statistics, as the 'd' key.
extern volatile std::sig_atomic_t dumpRequested;
// SIGUSR2: network and load report, as the 'r' and 't' keys.
extern volatile std::sig_atomic_t reportRequested;

// SIGINT and SIGTERM set quitRequested; SIGUSR1 and SIGUSR2 the other two;
// SIGXFSZ and SIGPIPE are ignored.
void installStopSignals();
