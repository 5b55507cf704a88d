#include "stats/events.h"

#include "log/log.h"
#include "platform/files.h"

void recordEvent(Events& events, std::uint32_t type, std::string playerName, std::uint32_t sourceIP,
                 std::string dataset, std::uint32_t datasetChecksum, std::string additionalEventData,
                 std::uint32_t timestamp) {
    events.push_back(TrackedEvent{type, std::move(playerName), sourceIP, std::move(dataset),
                                         datasetChecksum, std::move(additionalEventData), timestamp});
}

std::string formatEvents(const std::vector<TrackedEvent>& events) {
    std::string out;
    std::size_t index = 0;
    for (const TrackedEvent& e : events) {
        out += "eventIndex = " + std::to_string(index++) + "\n";
        out += "type = " + std::to_string(e.type) + "\n";
        out += "playerName = " + e.playerName + "\n";
        out += "sourceIP = " + std::to_string(e.sourceIP) + "\n";
        out += "dataset = " + e.dataset + "\n";
        out += "datasetChecksum = " + std::to_string(e.datasetChecksum) + "\n";
        out += "additionalEventData = " + e.additionalEventData + "\n";
        out += "timestamp = " + std::to_string(e.timestamp) + "\n";
    }
    return out;
}

void dumpEvents(Events& events, ServerStatistics& statistics, const std::string& name) {
    logMessage("Dumping stats to " + name);
    const std::string base = dataRootPrefix() + "server_data/stats/" + name;
    dumpStatistics(statistics, base);

    const std::string path = base + ".events";
    // Appended through a whole copy renamed into place: a file that cannot be
    // taken keeps the events for the next dump, as one that cannot be opened.
    FileWriter out;
    if (!out.open(path, true)) {
        logMessage("Failed to dump events to " + path);
        return;
    }
    out.write(formatEvents(events));
    if (!out.commit()) {
        logMessage("Failed to dump events to " + path);
        return;
    }
    events.clear();
    logMessage("Dumped events to " + path);
}
