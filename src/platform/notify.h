#pragma once
// Service manager notifications; nothing happens when not run under one.

#include <string>

void notifyReady();
void notifyStatus(const std::string& status);
void notifyStopping();
