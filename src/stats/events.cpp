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

void dumpEvents(Storage& storage, Events& events, ServerStatistics& statistics, const std::string& name) {
    logMessage("Dumping stats to " + name);
    const std::string base = dataRootPrefix() + "server_data/stats/" + name;
    dumpStatistics(storage, statistics, base);

    // The events go with the job and come back if they could not be written
    // whole, ahead of those recorded meanwhile, for the next dump.
    std::size_t size = 0;
    for (const TrackedEvent& e : events) size += 64 + e.playerName.size() + e.dataset.size() + e.additionalEventData.size();
    storage.submit(
        [&events, path = base + ".events", taken = std::move(events)]() mutable -> Storage::Completion {
            bool written = appendToFile(path, formatEvents(taken));
            if (written) taken.clear();
            return [&events, path, written, taken = std::move(taken)]() mutable {
                if (!written) {
                    events.insert(events.begin(), std::make_move_iterator(taken.begin()),
                                  std::make_move_iterator(taken.end()));
                    logMessage("Failed to dump events to " + path);
                    return;
                }
                logMessage("Dumped events to " + path);
            };
        },
        size);
    events.clear();
}
