#include "game/match.h"

#include <algorithm>

#include "core/server.h"
#include "game/checksum.h"
#include "game/control.h"
#include "lobby/lobby.h"
#include "log/log.h"

namespace {
// The first room in which the peer holds a slot.
Room* memberRoom(Server& server, const ENetPeer* peer) {
    for (auto& [id, room] : server.rooms)
        for (const Slot& slot : room->slots)
            if (slot.peer == peer) return room.get();
    return nullptr;
}
}  // namespace

void handleMatchControl(Server& server, ENetPeer* peer, ByteView packet) {
    std::uint32_t type = 0;
    readMessageType(packet, type);  // the dispatcher drops packets too short for it
    switch (type) {
        case kLeaveMatch:
            leaveRoom(server, peer, false);
            return;
        case kDelayHold:
            if (Room* room = memberRoom(server, peer)) room->delayHold = std::min(room->delayHold + 2, kMaxDelayHold);
            return;
        case kDelayRequest:
            if (Room* room = memberRoom(server, peer))
                room->lagReports = std::min(room->lagReports + 1, kMaxLagReports);
            return;
        case kResyncReport:
            handleResyncReport(server, peer, packet);
            return;
        default:
            logError("|||| Unknown ingame message " + std::to_string(type) + ". Nothing to do with it");
            return;
    }
}
