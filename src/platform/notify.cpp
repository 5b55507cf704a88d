#include "platform/notify.h"

#include <systemd/sd-daemon.h>

void notifyReady() { sd_notify(0, "READY=1"); }
void notifyStatus(const std::string& status) { sd_notify(0, ("STATUS=" + status).c_str()); }
void notifyStopping() { sd_notify(0, "STOPPING=1"); }

std::uint64_t watchdogTimeoutMicros() {
    std::uint64_t usec = 0;
    return sd_watchdog_enabled(0, &usec) > 0 ? usec : 0;
}

void notifyWatchdog() { sd_notify(0, "WATCHDOG=1"); }
