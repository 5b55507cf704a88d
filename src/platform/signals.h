#pragma once
// Signal handlers only raise flags; the main loop reads them.

#include <csignal>

extern volatile std::sig_atomic_t quitRequested;
// SIGUSR1: dump events and statistics, as the 'd' key.
extern volatile std::sig_atomic_t dumpRequested;
// SIGUSR2: network and load report, as the 'r' and 't' keys.
extern volatile std::sig_atomic_t reportRequested;
// SIGHUP: reload what can be reloaded (the log file is reopened anyway).
extern volatile std::sig_atomic_t reloadRequested;

// SIGINT and SIGTERM set quitRequested; SIGUSR1, SIGUSR2 and SIGHUP the other
// three; SIGXFSZ and SIGPIPE are ignored.
void installStopSignals();
