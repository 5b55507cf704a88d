// Readiness and the start: the start request, the once-per-step start check,
// the random tags and start locations, the slot compaction and the switch to
// the running match.

#include <algorithm>
#include <memory>

#include "lobby/lobby.h"
#include "log/log.h"
#include "platform/clock.h"

namespace {

constexpr std::uint32_t kMaxTag = 10;
constexpr std::uint32_t kMaxLocation = 8;
// Only tags 1..8 are ever handed out, although clients may choose 9 and 10.
constexpr std::uint32_t kHandedOutTags = 8;

// The values for the waiting slots, in their order; empty when nothing is
// handed out. The permutation is drawn whenever there is a free value and
// enough of them, also when nobody waits, so that the generator advances
// the same way in every start.
std::vector<std::uint32_t> handOut(const std::vector<std::uint32_t>& freeValues, std::size_t waiting) {
    if (freeValues.empty() || waiting > freeValues.size()) return {};
    std::vector<std::uint32_t> order = shufflePermutation(static_cast<std::uint32_t>(freeValues.size()));
    std::vector<std::uint32_t> values;
    for (std::size_t k = 0; k < waiting; ++k) values.push_back(freeValues[order[k]]);
    return values;
}

struct Readiness {
    std::uint32_t humans = 0;  // humans with a record
    std::uint32_t ready = 0;   // of those, the ones whose record says ready
};

Readiness countReadiness(const Room& room) {
    Readiness r;
    for (const Slot& slot : room.slots) {
        if (slot.peer == nullptr || slot.info == nullptr) continue;
        r.humans += 1;
        r.ready += slot.info->ready != 0;
    }
    return r;
}

void refuseStart(Room& room, const std::string& text, const std::string& logLine) {
    sendTextToRoom(room, text);
    logMessage(logLine);
}

void startRoom(RoomRegistry& rooms, Room& room) {
    room.open = false;
    room.started = true;
    assignTagsAndLocations(room);

    for (const Slot& slot : room.slots)
        if (slot.info != nullptr) sendToHumans(room, kLobbyChannel, slot.info->bytes);
    compactSlots(rooms, room);
    // Every human holds a record (the invariants say so), so the humans are the players.
    sendToHumans(room, kLobbyChannel, encode(StartGame{}));
}

// Every human with a record has confirmed: the match runs.
void checkRunning(RoomRegistry& rooms, Room& room) {
    if (!room.started || room.running) return;
    for (std::size_t i = 0; i < kSlotCount; ++i) {
        const Slot& slot = room.slots[i];
        if (slot.peer != nullptr && slot.info != nullptr && !room.confirmed[i]) return;
    }
    room.running = true;
    rooms.newlyRunning.push_back(&room);
    for (const Slot& slot : room.slots)
        if (slot.peer != nullptr && slot.info != nullptr) room.matchPlayerNames.push_back(slot.info->playerName);
    if (rooms.recordings != nullptr && !rooms.recordings->directory.empty()) {
        RecordingHeader header;
        header.roomId = room.id;
        header.roomName = room.name;
        header.dataset = room.dataset;
        header.datasetChecksum = room.datasetChecksum;
        header.settings = room.settings.bytes;
        for (std::uint32_t i = 0; i < kSlotCount; ++i)
            if (const Slot& slot = room.slots[i]; slot.peer != nullptr && slot.info != nullptr)
                header.players.push_back(RecordedPlayer{i, slot.info->playerTag, slot.info->startLocation,
                                                        slot.info->playerName});
        header.serverVersion = rooms.recordings->serverVersion;
        header.startUnix = static_cast<std::uint64_t>(unixNow());
        room.match.recording = beginRecording(*rooms.recordings, header, steadyMicros());
    }
    sendToHumans(room, kLobbyChannel, encode(StartGame{}));
    handOutRejoinTickets(rooms, room);
}

void checkRoomStart(RoomRegistry& rooms, Room& room) {
    if (!room.started && room.startRequested) {
        Readiness r = countReadiness(room);
        std::uint32_t locations = room.settings.startLocations;
        std::string id = std::to_string(room.id);
        bool refused = false;
        if (r.humans != r.ready) {
            refuseStart(room, "Cannot start game because not all players are ready",
                        "Room " + id + " failed to start because not all players are ready");
            refused = true;
        }
        if (r.humans > locations) {
            refuseStart(room, "Cannot start game because there are more players than starting locations on map",
                        "Room " + id + " failed to start because there are too many players for map: " +
                            room.settings.mapName);
            refused = true;
        }
        if (refused) {
            // Every client's view of every human's setup is refreshed, and the
            // next StartGame is a new request.
            for (const Slot& slot : room.slots)
                if (slot.peer != nullptr && slot.info != nullptr) sendToHumans(room, kLobbyChannel, slot.info->bytes);
            room.startRequested = false;
        } else {
            startRoom(rooms, room);
        }
    }
    // Also right after a successful start: humans who confirmed during
    // earlier attempts need no further StartGame.
    checkRunning(rooms, room);
}

}  // namespace

void requestStart(RoomRegistry& rooms, ENetPeer* peer) {
    const Place* place = placeOf(rooms, peer);
    if (place == nullptr) return;
    Room& room = *place->room;
    if (room.startRequested)
        room.confirmed[place->slot] = true;
    else
        room.startRequested = true;
    rooms.mayHoldPendingStart = true;
}

namespace {
std::unique_ptr<std::mt19937> generator;
}

std::mt19937& globalGenerator() {
    if (!generator) generator = std::make_unique<std::mt19937>(0);
    return *generator;
}

void resetGlobalGenerator() { generator = std::make_unique<std::mt19937>(0); }

std::vector<std::uint32_t> shufflePermutation(std::uint32_t n) {
    std::vector<std::uint32_t> a(n);
    if (n == 0) return a;
    a[0] = 0;
    std::mt19937& draw = globalGenerator();
    for (std::uint32_t i = 1; i < n; ++i) {
        std::uint64_t r = draw();
        auto j = static_cast<std::uint32_t>((static_cast<std::uint64_t>(i + 1) * r) >> 32);
        a[i] = a[j];
        a[j] = i;
    }
    return a;
}

void assignTagsAndLocations(Room& room) {
    bool tagTaken[kMaxTag + 1] = {};
    bool locationFree[kMaxLocation + 1] = {};
    for (std::uint32_t k = 1; k <= kMaxLocation; ++k) locationFree[k] = k <= room.settings.startLocations;

    // A tag above 10 or a location above 8 counts as not chosen: the slot
    // waits for a value like one that holds 0, and the tables above are
    // never indexed with it.
    std::vector<std::uint32_t> waitingForTag, waitingForLocation;
    for (std::uint32_t i = 0; i < kSlotCount; ++i) {
        const PlayerSetup* info = room.slots[i].info.get();
        if (info == nullptr) continue;
        if (info->playerTag == 0 || info->playerTag > kMaxTag)
            waitingForTag.push_back(i);
        else
            tagTaken[info->playerTag] = true;
        if (info->startLocation == 0 || info->startLocation > kMaxLocation)
            waitingForLocation.push_back(i);
        else
            locationFree[info->startLocation] = false;  // one above the map's count stays as chosen
    }

    std::vector<std::uint32_t> freeTags, freeLocations;
    for (std::uint32_t k = 1; k <= kHandedOutTags; ++k)
        if (!tagTaken[k]) freeTags.push_back(k);
    for (std::uint32_t k = 1; k <= kMaxLocation; ++k)
        if (locationFree[k]) freeLocations.push_back(k);

    std::vector<std::uint32_t> tags = handOut(freeTags, waitingForTag.size());
    std::vector<std::uint32_t> locations = handOut(freeLocations, waitingForLocation.size());

    bool changed[kSlotCount] = {};
    for (std::size_t k = 0; k < tags.size(); ++k) {
        room.slots[waitingForTag[k]].info->playerTag = tags[k];
        changed[waitingForTag[k]] = true;
    }
    for (std::size_t k = 0; k < locations.size(); ++k) {
        room.slots[waitingForLocation[k]].info->startLocation = locations[k];
        changed[waitingForLocation[k]] = true;
    }
    for (std::size_t i = 0; i < kSlotCount; ++i)
        if (changed[i]) rebuildPlayerSetup(*room.slots[i].info);
}

namespace {
void makeDuePasses(RoomRegistry& rooms) {
    std::size_t notices = 0;
    while (!rooms.passesDue.empty()) {
        Room* room = rooms.passesDue.front();
        const Audience audience = audienceOf(*room);
        if (orderDelayDecidesNext(room->match)) {
            const auto told = static_cast<std::size_t>(
                std::count_if(audience.players.begin(), audience.players.end(), [](ENetPeer* p) { return p != nullptr; }));
            // The first decision of a room work is always made, so the
            // passes keep moving whatever the bound.
            if (notices != 0 && notices + told > kDelayNoticesPerRoomWork) return;
            notices += told;
        }
        rooms.passesDue.pop_front();
        adaptOrderDelay(room->match, audience, kDelayTicksPerPass);
    }
}

}  // namespace

void tickOrderDelays(RoomRegistry& rooms) {
    std::vector<Room*>& due = rooms.delayWheel[rooms.delayTurns++ % kDelayTicksPerPass];
    rooms.passesDue.insert(rooms.passesDue.end(), due.begin(), due.end());
    // A first tick never passes, so it tells nobody and waits for nothing.
    for (Room* room : rooms.newlyRunning) {
        adaptOrderDelay(room->match, Audience{});
        due.push_back(room);
    }
    rooms.newlyRunning.clear();
    makeDuePasses(rooms);
}

bool startPending(const Room& room) { return (room.startRequested && !room.started) || (room.started && !room.running); }

void checkRoomStarts(RoomRegistry& rooms) {
    if (!rooms.mayHoldPendingStart) return;
    bool pending = false;
    for (auto& [id, room] : rooms.byId) {
        checkRoomStart(rooms, *room);
        pending = pending || startPending(*room);
    }
    rooms.mayHoldPendingStart = pending;
}
