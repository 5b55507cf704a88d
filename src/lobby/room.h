#pragma once
// A room of up to eight players: lobby state, the host's settings and the
// state of its one match.

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "protocol/wire.h"

inline constexpr std::size_t kSlotCount = 8;

// The setup of the player in one slot: parsed fields plus the exact bytes
// they came from, which are what the server relays.
struct PlayerSetup {
    std::uint32_t secondWord = 1;
    std::uint32_t slot = 0;
    std::uint32_t ready = 0;
    std::uint32_t playerTag = 0;
    std::uint32_t startLocation = 0;
    std::uint32_t clientValue1 = 0;
    std::uint32_t clientValue2 = 0;
    std::uint32_t clientValue3 = 0xFFFFFFFFu;
    std::string playerName;
    std::vector<std::pair<std::uint32_t, std::string>> clientPairs;
    std::vector<std::string> clientStrings;
    Bytes bytes;
};

// The host's settings; parsed fields plus the exact bytes.
struct GameSettings {
    std::uint32_t secondWord = 1;
    std::uint32_t gameMode = 0;
    std::string mapName;
    std::uint32_t startLocations = 8;
    std::uint32_t settingsValue1 = 0;
    std::uint32_t settingsValue2 = 0;
    Bytes bytes;
};

struct Slot {
    ENetPeer* peer = nullptr;            // a human's connection
    std::unique_ptr<PlayerSetup> info;  // nobody in the slot when null
};

struct ChecksumRecord {
    std::uint32_t step = 0;
    std::array<std::uint32_t, kSlotCount> checksums{};
};

using SlotFlags = std::array<bool, kSlotCount>;

struct Room {
    std::uint32_t id = 0;
    std::string name;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    bool open = true;
    bool startRequested = false;
    bool started = false;
    bool running = false;
    std::uint32_t resyncStep = 0xFFFFFFFFu;
    std::uint32_t desyncCount = 0;
    std::vector<std::string> matchPlayerNames;
    std::uint32_t lastCompletedStep = 0;
    std::uint32_t maxOrderDelay = 0;
    std::uint32_t delayCooldown = 40;
    std::uint32_t delayTicks = 0;
    std::int32_t lagReports = 0;
    std::int32_t delayHold = 0;
    std::uint32_t orderDelay = 2;
    std::map<std::uint32_t, SlotFlags> stepReports;
    // When each pending step got its first report; kept only while the
    // metrics endpoint is on.
    std::map<std::uint32_t, std::uint64_t> stepFirstReportMicros;
    std::vector<ChecksumRecord> checksumRecords;
    GameSettings settings;
    std::array<Slot, kSlotCount> slots;
    SlotFlags confirmed{};
    SlotFlags closed{};
    SlotFlags resyncPending{};
    std::uint32_t hostSlot = 0;
};

// Slots whose peer is set.
inline std::uint32_t humanCount(const Room& room) {
    std::uint32_t n = 0;
    for (const Slot& s : room.slots) n += s.peer != nullptr;
    return n;
}

// The smaller of the map's start locations and the slots not closed.
inline std::uint32_t capacity(const Room& room) {
    std::uint32_t notClosed = 0;
    for (bool c : room.closed) notClosed += !c;
    return room.settings.startLocations < notClosed ? room.settings.startLocations : notClosed;
}
