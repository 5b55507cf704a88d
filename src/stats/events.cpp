#include "stats/events.h"

#include <cstdio>
#include <functional>

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

std::string periodicDumpName(const std::tm& local) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%d_%02d_%02d", local.tm_year, local.tm_mon + 1, local.tm_mday);
    return buf;
}

namespace {

// The events go with the job and come back if they could not be written
// whole, ahead of those recorded meanwhile, for the next dump.
void appendEvents(Storage& storage, Events& events, const std::string& path, std::function<void(bool)> done = {}) {
    std::size_t size = 0;
    for (const TrackedEvent& e : events) size += 64 + e.playerName.size() + e.dataset.size() + e.additionalEventData.size();
    storage.submit(
        [&events, path, taken = std::move(events), done = std::move(done)]() mutable -> Storage::Completion {
            bool written = appendToFile(path, formatEvents(taken));
            if (written) taken.clear();
            return [&events, path, written, taken = std::move(taken), done = std::move(done)]() mutable {
                if (done) done(written);
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

}  // namespace

void dumpEvents(Storage& storage, Events& events, ServerStatistics& statistics, const std::string& name) {
    const std::string base = dataRootPrefix() + "server_data/stats/" + name;
    dumpStatistics(storage, statistics, base, "Dumping stats to " + name);
    appendEvents(storage, events, base + ".events");
}

bool admitEvent(EventSpill& spill, Events& events, Storage& storage, const std::function<std::string()>& name,
                std::int64_t now) {
    if (events.size() >= 2 * kSpillEvents) {
        ++spill.dropped;
        if (now - spill.lastDropLine >= 60) {
            spill.lastDropLine = now;
            logMessage("Dropped " + std::to_string(spill.dropped) +
                       " tracked events so far: their dump cannot keep up with them");
        }
        return false;
    }
    // After a spill that failed, the next waits a minute: the events came
    // back, and writing them again for every new one would only burn CPU.
    if (events.size() >= kSpillEvents && !spill.spilling && now - spill.lastFailure >= 60) {
        spill.spilling = true;
        appendEvents(storage, events, dataRootPrefix() + "server_data/stats/" + name() + ".events",
                     [&spill, now](bool written) {
                         spill.spilling = false;
                         if (!written) spill.lastFailure = now;
                     });
    }
    return true;
}
