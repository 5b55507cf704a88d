#pragma once
// The one object that holds all server state; every handler takes it first.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "lobby/room.h"
#include "stats/events.h"
#include "stats/statistics.h"

inline constexpr std::uint32_t kProtocolVersion = 4;
inline constexpr std::uint16_t kDefaultPort = 1984;
inline constexpr std::size_t kMaxPeers = 1024;
// Per packet and per peer; see startServer.
inline constexpr std::size_t kMaximumPacketSize = 32u * 1024 * 1024;
inline constexpr std::size_t kMaximumWaitingData = 32u * 1024 * 1024;

// The address of a registered peer, hung on the ENet peer's data field.
struct PeerInfo {
    std::array<std::uint32_t, 4> octets{};
    std::uint32_t port = 0;
    // The room this peer was last found in (0: none); a hint for lookups.
    std::uint32_t lastRoomId = 0;
};

struct Server {
    bool eventDumpArmed = true;
    std::uint32_t nextRoomId = 1;
    std::string serverDescription;
    bool statisticsEnabled = false;
    ServerStatistics statistics;
    std::vector<TrackedEvent> events;
    ENetHost* host = nullptr;
    std::set<ENetPeer*> peers;
    // Owned rooms, walked in ID order.
    std::map<std::uint32_t, std::unique_ptr<Room>> rooms;
    std::uint32_t bytesReceived = 0;
};

struct ServerConfig {
    std::uint16_t port = kDefaultPort;
    std::string description;
    bool statisticsEnabled = false;
};

// Reads the three lines of a configuration text; a missing line counts as
// an empty one.
ServerConfig parseServerConfig(const std::string& text);
// dataRootPrefix + "settings/server.config", or the defaults when it cannot
// be opened.
ServerConfig readServerConfig();

// Construction: logs, reads the configuration, opens the host (the process
// ends with status 1 when it cannot) and records the start event.
void startServer(Server& server);
// Destruction: network report, "close" statistics, rooms freed, peers
// disconnected, host flushed and destroyed.
void stopServer(Server& server);
