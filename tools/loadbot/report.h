#pragma once
// The two outputs of a run: one JSON line for scripts and a summary for
// people.

#include <string>

#include "engine.h"

namespace loadbot {

std::string jsonLine(const Config& config, const Result& result);
std::string summary(const Config& config, const Result& result);
std::string jsonEscape(const std::string& text);

}  // namespace loadbot
