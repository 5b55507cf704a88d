#include "app/invariants.h"

#include <algorithm>
#include <map>
#include <set>

#include "admission/peer_record.h"
#include "lobby/lobby.h"

std::string brokenInvariant(const Server& s) {
    std::set<const ENetPeer*> placed;
    for (const auto& [id, room] : s.rooms.byId) {
        if (room == nullptr || room->id != id) return "room " + std::to_string(id) + " filed under another ID";
        if (id == 0) return "a room with ID 0";
        for (std::uint32_t i = 0; i < kSlotCount; ++i) {
            const Slot& slot = room->slots[i];
            if (slot.state != PlayerState::connected && (!room->running || !room->rejoinable))
                return "a player away or back outside a running room where drops keep seats";
            if ((slot.state == PlayerState::away) != (slot.peer == nullptr && slot.state != PlayerState::connected))
                return "an away player with a connection, or one without that is not away";
            if (slot.state == PlayerState::away && slot.info == nullptr) return "an away player without its record";
            if ((slot.feed != nullptr) != (slot.state == PlayerState::rejoining))
                return "a stream for a player that is not rejoining, or none for one that is";
            if (slot.peer == nullptr) continue;
            if (s.peers.count(slot.peer) == 0) return "a player's connection is not registered";
            if (!placed.insert(slot.peer).second) return "a peer holds two slots";
            if (slot.info == nullptr) return "a player's slot has no setup";
            const Place* indexed = placeOf(s.rooms, slot.peer);
            if (indexed == nullptr || indexed->room != room.get() || indexed->slot != i)
                return "the place index disagrees with room " + std::to_string(id);
        }
        const Match& m = room->match;
        if (room->hostSlot >= kSlotCount) return "host slot out of range";
        if (m.orderDelay < 2 || m.orderDelay > 64) return "order delay out of range";
        if (m.lagReports < 0 || m.lagReports > kMaxLagReports) return "lag reports out of range";
        if (m.delayHold < 0 || m.delayHold > kMaxDelayHold) return "delay hold out of range";
        if (room->running && !room->started) return "running before started";
        if (room->started && room->open) return "started but open";
    }
    std::size_t entries = 0;
    for (const PlaceEntry& e : s.rooms.places) entries += e.peer != nullptr;
    if (entries != placed.size()) return "the place index holds peers in no slot";
    std::uint32_t away = 0;
    for (const auto& [id, room] : s.rooms.byId) {
        std::uint32_t awayHere = 0;
        for (const Slot& slot : room->slots) awayHere += slot.state == PlayerState::away;
        away += awayHere;
        if (!s.rooms.mayHoldEmptyRoom && humanCount(*room) == 0 && awayHere == 0)
            return "room " + std::to_string(id) + " is empty, and the room work would not look for it";
        if (!s.rooms.mayHoldPendingStart && startPending(*room))
            return "room " + std::to_string(id) + " waits for its start, and the room work would not check it";
    }
    if (away != s.rooms.awaySeats) return "the count of away seats is off";
    std::map<const Room*, int> scheduled;
    for (const std::vector<Room*>& slot : s.rooms.delayWheel)
        for (const Room* room : slot) ++scheduled[room];
    for (const Room* room : s.rooms.newlyRunning) ++scheduled[room];
    std::size_t running = 0;
    for (const auto& [id, room] : s.rooms.byId) {
        if (!room->running) continue;
        ++running;
        if (scheduled[room.get()] != 1) return "room " + std::to_string(id) + " is not in the delay schedule once";
    }
    if (scheduled.size() != running) return "the delay schedule holds a room that is gone or not running";
    for (const Room* room : s.rooms.passesDue)
        if (scheduled.count(room) == 0) return "a delay pass is due for a room that is gone or not running";
    std::size_t streams = 0;
    for (const auto& [peer, watcher] : s.rooms.watchers) {
        if (placed.count(peer) != 0) return "a spectator holds a slot";
        if (s.peers.count(const_cast<ENetPeer*>(peer)) == 0) return "a spectator that is gone";
        streams += watcher.feed != nullptr;
        const Room* room = findRoom(s.rooms, watcher.roomId);
        const bool live = room != nullptr &&
                          std::find(room->spectators.begin(), room->spectators.end(), peer) != room->spectators.end();
        if (live == (watcher.feed != nullptr)) return "a spectator both streamed and live, or neither";
    }
    for (const auto& [id, room] : s.rooms.byId)
        for (const ENetPeer* peer : room->spectators)
            if (auto w = s.rooms.watchers.find(peer); w == s.rooms.watchers.end() || w->second.roomId != id)
                return "a live spectator the registry does not know";
    for (const auto& [id, room] : s.rooms.byId)
        for (const Slot& slot : room->slots) streams += slot.feed != nullptr;
    if (streams != s.rooms.feeds.size()) return "streams the registry holds and those in use disagree";
    for (ENetPeer* p : s.peers) {
        const PeerRecord* record = recordOf(p);
        if (record == nullptr) return "a registered peer has no record";
        const auto address = s.addressBudgets.find(p->address.host);
        if (address == s.addressBudgets.end() || record->address != &address->second)
            return "a peer's record points at another address's budget";
    }
    std::map<std::uint32_t, std::uint64_t> perAddress;
    for (ENetPeer* p : s.peers) perAddress[p->address.host] += 1;
    if (perAddress.size() != s.addressBudgets.size()) return "an address budget without peers, or peers without one";
    for (const auto& [address, budget] : s.addressBudgets)
        if (perAddress[address] != budget.peers) return "an address budget counts its peers wrong";
    for (const auto& [peer, d] : s.downloads.peers)
        if (s.peers.count(peer) == 0) return "downloads kept for a peer that is gone";
    return {};
}
