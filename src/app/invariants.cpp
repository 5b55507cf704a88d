#include "app/invariants.h"

#include <map>
#include <set>

std::string brokenInvariant(const Server& s) {
    std::set<const ENetPeer*> placed;
    for (const auto& [id, room] : s.rooms.byId) {
        if (room == nullptr || room->id != id) return "room " + std::to_string(id) + " filed under another ID";
        if (id == 0) return "a room with ID 0";
        for (std::uint32_t i = 0; i < kSlotCount; ++i) {
            const Slot& slot = room->slots[i];
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
    if (s.rooms.places.size() != placed.size()) return "the place index holds peers in no slot";
    for (ENetPeer* p : s.peers) {
        if (p->data == nullptr) return "a registered peer has no address record";
        if (s.budgets.count(p) == 0) return "a registered peer has no budget";
    }
    if (s.budgets.size() != s.peers.size()) return "a budget outlives its peer";
    std::map<std::uint32_t, std::uint64_t> perAddress;
    for (ENetPeer* p : s.peers) perAddress[p->address.host] += 1;
    if (perAddress.size() != s.addressBudgets.size()) return "an address budget without peers, or peers without one";
    for (const auto& [address, budget] : s.addressBudgets)
        if (perAddress[address] != budget.peers) return "an address budget counts its peers wrong";
    for (const auto& [peer, d] : s.downloads.peers)
        if (s.peers.count(peer) == 0) return "downloads kept for a peer that is gone";
    return {};
}
