#pragma once
// Service manager notifications; nothing happens when not run under one.

#include <cstdint>
#include <string>

void notifyReady();
void notifyStatus(const std::string& status);
void notifyStopping();
// The service manager's watchdog time-out in microseconds, 0 when it keeps
// no watchdog on this process; notifyWatchdog tells it the process is alive.
std::uint64_t watchdogTimeoutMicros();
void notifyWatchdog();
