#include "stats/events.h"

#include <cstdio>

#include "core/peers.h"
#include "core/server.h"
#include "log/log.h"
#include "platform/clock.h"
#include "protocol/paths.h"
#include "protocol/send.h"
#include "stats/statistics.h"
#include "update/update.h"

Bytes TrackEvent::encode() const {
    Writer w(19 + playerName.size() + dataset.size() + additionalEventData.size());
    w.u32(kType).u32(secondWord).str(playerName).str(dataset).u32(datasetChecksum).u32(eventType);
    w.str(additionalEventData);
    return w.take();
}

std::optional<TrackEvent> TrackEvent::decode(ByteView bytes) {
    Reader r(bytes);
    if (r.u32() != kType) return std::nullopt;
    TrackEvent e;
    e.secondWord = r.u32();
    e.playerName = r.str();
    e.dataset = r.str();
    e.datasetChecksum = r.u32();
    e.eventType = r.u32();
    e.additionalEventData = r.str();
    // Bytes after the last string are tolerated: newer clients may append.
    if (!r.ok()) return std::nullopt;
    return e;
}

void recordEvent(Server& server, std::uint32_t type, std::string playerName, std::uint32_t sourceIP,
                 std::string dataset, std::uint32_t datasetChecksum, std::string additionalEventData,
                 std::uint32_t timestamp) {
    server.events.push_back(TrackedEvent{type, std::move(playerName), sourceIP, std::move(dataset),
                                         datasetChecksum, std::move(additionalEventData), timestamp});
}

void handleEventTracking(Server& server, ENetPeer* peer, ByteView packet) {
    std::uint32_t type = 0;
    if (!readMessageType(packet, type)) {
        logMalformed("event tracking message", kEventTrackingChannel, packet.size());
        return;
    }
    if (type != TrackEvent::kType) {
        logError("|||| Unknown event tracking type " + std::to_string(type) + ". Nothing to do with it");
        return;
    }
    auto message = TrackEvent::decode(packet);
    if (!message) {
        // A truncated event is dropped whole: a half-read one would be stored
        // with fields the client never sent.
        logMalformed("TrackEvent", kEventTrackingChannel, packet.size());
        return;
    }
    recordEvent(server, message->eventType, std::move(message->playerName), peerSourceIp(peer),
                std::move(message->dataset), message->datasetChecksum, std::move(message->additionalEventData),
                static_cast<std::uint32_t>(unixNow()));
    if (message->eventType == kUpdateCheckEvent) {
        sendManifestVersion(server, peer);
        sendAnnouncements(server, peer);
    }
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

void dumpEvents(Server& server, const std::string& name) {
    logMessage("Dumping stats to " + name);
    const std::string base = dataRootPrefix() + "server_data/stats/" + name;
    dumpStatistics(server.statistics, base);

    const std::string path = base + ".events";
    // Appended through a whole copy renamed into place: a file that cannot be
    // taken keeps the events for the next dump, as one that cannot be opened.
    FileWriter out;
    if (!out.open(path, true)) {
        logMessage("Failed to dump events to " + path);
        return;
    }
    out.write(formatEvents(server.events));
    if (!out.commit()) {
        logMessage("Failed to dump events to " + path);
        return;
    }
    server.events.clear();
    logMessage("Dumped events to " + path);
}
