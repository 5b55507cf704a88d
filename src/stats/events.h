#pragma once
// Tracked events: reported by clients on the event tracking channel, plus the
// server's own; collected until a dump writes them out.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Server;

struct TrackedEvent {
    std::uint32_t type = 0;
    std::string playerName;
    std::uint32_t sourceIP = 0;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    std::string additionalEventData;
    std::uint32_t timestamp = 0;
};

// Event tracking message 1, client to server (the server uses the same layout
// for its manifest version notice).
struct TrackEvent {
    static constexpr std::uint32_t kType = 1;
    std::uint32_t secondWord = 1;
    std::string playerName;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    std::uint32_t eventType = 0;
    std::string additionalEventData;

    Bytes encode() const;
    // nullopt when the type is not 1 or a field runs past the end.
    static std::optional<TrackEvent> decode(ByteView bytes);
};

// The event type after which a client gets the manifest version and the
// announcements.
inline constexpr std::uint32_t kUpdateCheckEvent = 101;

void recordEvent(Server& server, std::uint32_t type, std::string playerName, std::uint32_t sourceIP,
                 std::string dataset, std::uint32_t datasetChecksum, std::string additionalEventData,
                 std::uint32_t timestamp);

void handleEventTracking(Server& server, ENetPeer* peer, ByteView packet);

// The eight lines of each event, eventIndex counted from 0.
std::string formatEvents(const std::vector<TrackedEvent>& events);

// Writes the statistics block and the events under
// server_data/stats/<name>, then empties the events.
void dumpEvents(Server& server, const std::string& name);
