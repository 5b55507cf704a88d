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
// SIGTERM once drains are on (drainOnTerminate): the server stops taking new
// games and ends when the running ones have. Set by the loop too, for the
// console key; a SIGTERM while it is set stops at once.
extern volatile std::sig_atomic_t drainRequested;

// SIGINT and SIGTERM set quitRequested (the first SIGTERM drainRequested
// instead, once drains are on); SIGUSR1, SIGUSR2 and SIGHUP the other three;
// SIGXFSZ and SIGPIPE are ignored.
void installStopSignals();
// From now on the first SIGTERM asks for a drain instead of a stop.
void drainOnTerminate();
// Every handled signal also writes to this eventfd, so that a loop waiting
// on it turns at once (-1: none).
void wakeOnSignals(int eventFd);
