#pragma once
// The composition root: the one object that owns every part of the running
// server. Handlers are given only the parts they use.

#include <cstdint>
#include <ctime>
#include <memory>
#include <set>
#include <unordered_map>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "admission/budgets.h"
#include "admission/connections.h"
#include "admission/limits.h"
#include "app/drain_state.h"
#include "lobby/room.h"
#include "platform/receive_stamps.h"
#include "platform/storage.h"
#include "platform/wakeup.h"
#include "stats/events.h"
#include "stats/statistics.h"
#include "update/downloads.h"
#include "update/update.h"

inline constexpr std::uint16_t kDefaultPort = 1984;
inline constexpr std::size_t kMaxPeers = 1024;

// When the loop last did what it does now and then (steadyMicros), and the
// local calendar of the current second.
struct LoopClocks {
    std::uint64_t roomWork = 0;
    std::uint64_t waitingCheck = 0;
    std::uint64_t stallCheck = 0;
    std::uint64_t recordingFlush = 0;
    std::int64_t localSecond = -1;
    std::tm local{};
};

struct Server {
    Limits limits;
    // The limits file: settings/limits.conf in the data root, or --limits.
    std::string limitsFile;
    bool limitsFileNamed = false;
    // server_data/bans.txt in the data root, and the limits on connects.
    std::string bansFile;
    ConnectionGate connections;
    bool eventDumpArmed = true;
    std::string serverDescription;
    bool statisticsEnabled = false;
    ServerStatistics statistics;
    Events events;
    EventSpill eventSpill;
    ENetHost* host = nullptr;
    // The peer registry: membership means connected and registered, each
    // with its PeerRecord on the ENet peer's data field.
    std::set<ENetPeer*> peers;
    // What the registered peers of each address may still send together,
    // by the address in ENet's byte order. Each peer's record points at its
    // address's entry, which the map's nodes keep in place.
    std::unordered_map<std::uint32_t, AddressBudget> addressBudgets;
    // Lobby chat over all senders (lobby_chat_bytes_*).
    Bucket lobbyChat;
    RoomRegistry rooms;
    std::uint32_t bytesReceived = 0;
    // The last turn stopped at its bound of events: the next one must not
    // wait for traffic, since ENet may hold events already received.
    bool eventsLeft = false;
    // Report bytes accepted on the day (Unix days) they count against.
    std::int64_t reportDay = -1;
    std::uint64_t reportBytesToday = 0;
    Downloads downloads;
    AnnouncementsCache announcements;
    // --record: where matches are recorded (the rooms point here).
    Recordings recordings;
    LoopClocks clocks;
    // --receive-latency: null unless asked for.
    std::unique_ptr<ReceiveStamps> receiveStamps;
    // Connections made since the start: each peer's number, which work that
    // finishes later checks (a reused ENet peer is another connection).
    std::uint64_t connectionsMade = 0;
    // The extension features switched on by their options (Feature bits).
    std::uint32_t features = 0;
    Drain drain;
    // Work other threads hand the loop, and the eventfd that wakes it for
    // that, for a finished disk job and for a signal. Before the storage,
    // which signals it until it is drained.
    LoopInbox inbox;
    // Every file written or update file read goes through here. Declared
    // last, so it is drained while everything its completions reach exists.
    Storage storage;
};

struct ServerConfig {
    std::uint16_t port = kDefaultPort;
    std::string description;
    bool statisticsEnabled = false;
    // What cannot be what the operator meant (a port above 65535, a missing
    // file); said on stderr at start, never in the log.
    std::vector<std::string> warnings;
};

// Reads the three lines of a configuration text; a missing line counts as
// an empty one.
ServerConfig parseServerConfig(const std::string& text);
// dataRootPrefix + "settings/server.config", or the defaults when it cannot
// be opened.
ServerConfig readServerConfig();

// Construction: logs, reads the configuration, opens the host and records the
// start event. False when the host cannot be opened (logged): the caller
// stops its threads and ends with status 1.
bool startServer(Server& server);
// Reads the limits file (by the storage worker once it runs) and applies
// it; each problem goes to stderr and the log.
void loadLimits(Server& server);
// Hands the limits to the parts that enforce them.
void applyLimits(Server& server);

// Destruction: network report, "close" statistics, rooms freed, peers
// disconnected, host flushed and destroyed.
void stopServer(Server& server);
