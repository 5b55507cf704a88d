#pragma once
// The replay tool's commands, apart from the command line so that the tests
// run them in-process. Each writes its report to `out`, problems to `err`,
// and returns the exit status.

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "protocol/recording.h"

namespace replay {

// Exit statuses, the same for every command.
inline constexpr int kClean = 0;       // the file ends after a whole record
inline constexpr int kDamaged = 1;     // cut short or damaged: what is readable was used
inline constexpr int kUnreadable = 2;  // not a recording, a version this tool does not know, or bad usage

// The payloads of the record types, as the server writes them.
struct OrderRecord {
    std::uint32_t step = 0, slot = 0;
    ByteView bytes;
};
struct StepRecord {
    std::uint32_t step = 0, slot = 0;
};
struct DelayRecord {
    std::uint32_t lastStep = 0, change = 0, delay = 0;
};
struct ChecksumRecord {
    std::uint32_t step = 0, slot = 0, value = 0;
};
struct DesyncRecord {
    std::uint32_t step = 0, number = 0;
    std::string evidenceBase;
};
struct LeftRecord {
    std::uint32_t slot = 0, why = 0;
    std::string name;
};
struct EndRecord {
    std::uint32_t why = 0, lastStep = 0;
};
struct LostRecord {
    std::string why;
};

std::optional<OrderRecord> decodeOrder(const Record& record);
std::optional<StepRecord> decodeStep(const Record& record);
std::optional<DelayRecord> decodeDelay(const Record& record);
std::optional<ChecksumRecord> decodeChecksum(const Record& record);
std::optional<DesyncRecord> decodeDesync(const Record& record);
std::optional<LeftRecord> decodeLeft(const Record& record);
std::optional<EndRecord> decodeEnd(const Record& record);
std::optional<LostRecord> decodeLost(const Record& record);

// The order delay a match starts with, and gets back after a resync.
inline constexpr std::uint32_t kInitialOrderDelay = 2;

// One record as a line of text (no newline), as `show` prints it. The
// header's players follow it on lines of their own.
std::string describe(const Record& record);

// Why a file read back is not a whole recording: a framing problem, no
// header, or no closing record. Empty for a whole one.
std::string problemOf(const RecordingRead& read);

int show(ByteView file, std::ostream& out, std::ostream& err);
int check(ByteView file, std::ostream& out);
// `path` is where the file was read from: the evidence files are looked for
// in the data root around it.
int desync(ByteView file, const std::string& path, std::ostream& out, std::ostream& err);
int html(ByteView file, std::ostream& out, std::ostream& err);

// Text from the wire's 8-bit strings, safe for a terminal: printable ASCII
// as is, anything else as \xNN.
std::string printable(const std::string& text);
// "0x0000abcd"; "12.345" seconds from milliseconds; "2026-11-24 09:30:00 UTC".
std::string hex32(std::uint32_t value);
std::string seconds(std::uint32_t millis);
std::string utcTime(std::uint64_t unixSeconds);

}  // namespace replay

namespace replay {

// Where a match first went out of step, from its checksum records (the
// first step at which the slots' checksums differ) and its desync records.
struct DesyncFinding {
    bool found = false;
    std::uint32_t step = 0;
    bool fromChecksums = false;  // false: only a desync record names the step
    struct Side {
        std::uint32_t checksum = 0;
        std::vector<std::uint32_t> slots;
    };
    std::vector<Side> sides;                // ordered by their lowest slot
    std::optional<DesyncRecord> record;     // the server's record of it, when there is one
    std::uint32_t recordMillis = 0;
    std::uint32_t orderDelay = kInitialOrderDelay;  // in force at the step
};
DesyncFinding findDesync(const std::vector<Record>& records);

}  // namespace replay
