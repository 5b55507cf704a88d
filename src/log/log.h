#pragma once
// Log lines are queued by the main thread and written by one writer thread to
// the log file and the console, so callers never wait for disk or terminal.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Console attribute of error lines: bright red on black.
inline constexpr std::uint16_t kErrorAttribute = 12;

void logMessage(std::string text, std::uint16_t consoleAttribute = 0);
void logError(const std::string& text);
// Text for the console only, written as it stands (no prefix, no line end
// added), in order with the log lines.
void printToConsole(std::string text);

// Bytes a client chose, fit for a log line: every byte below 0x20 and 0x7F
// becomes \xNN, so no client can start a line or send a terminal escape. Other
// bytes stay as they are.
std::string printable(std::string_view clientBytes);

// Starts the writer thread and empties dataRootPrefix + fileName.
void startLog(const std::string& fileName);
// Clears the running flag and joins the writer; everything queued is written.
void stopLog();

// In-process tests never start the writer: they take the queued texts instead.
std::vector<std::string> takeQueuedLogTexts();
