#pragma once
// Tracked events: reported by clients on the event tracking channel, plus the
// server's own; collected until a dump writes them out.

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "stats/statistics.h"

struct TrackedEvent {
    std::uint32_t type = 0;
    std::string playerName;
    std::uint32_t sourceIP = 0;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    std::string additionalEventData;
    std::uint32_t timestamp = 0;
};

using Events = std::vector<TrackedEvent>;

void recordEvent(Events& events, std::uint32_t type, std::string playerName, std::uint32_t sourceIP,
                 std::string dataset, std::uint32_t datasetChecksum, std::string additionalEventData,
                 std::uint32_t timestamp);

// The name of the periodic dump of a day: "126_03_05" for 5 March 2026.
std::string periodicDumpName(const std::tm& local);

// The eight lines of each event, eventIndex counted from 0.
std::string formatEvents(const std::vector<TrackedEvent>& events);

// Appends the statistics block and the events under server_data/stats/<name>
// through the storage worker and empties the events; events that could not
// be written come back for the next dump. events must outlive the storage's
// work.
void dumpEvents(Storage& storage, Events& events, ServerStatistics& statistics, const std::string& name);

// Tracked events held in memory are bounded: once kSpillEvents are held they
// are appended to the dump file of the day ahead of the periodic dump (an
// event flood then costs disk, not memory); should twice as many gather
// because the disk does not keep up, new events are dropped and counted.
// No real traffic comes near: a thousand players send a few events a minute.
inline constexpr std::size_t kSpillEvents = 8192;
struct EventSpill {
    bool spilling = false;
    std::uint64_t dropped = 0;
    std::int64_t lastDropLine = -60;
    std::int64_t lastFailure = -60;
};
// Whether one more event may be recorded now; spills the held ones to
// server_data/stats/<name>.events when they are many. events must outlive
// the storage's work.
bool admitEvent(EventSpill& spill, Events& events, Storage& storage, const std::function<std::string()>& name,
                std::int64_t now);
