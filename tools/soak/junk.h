#pragma once
// Packets the server must refuse without changing anything: too short for
// their channel, cut off inside a field, with a list count or blob length
// past the end, a slot index outside the room, or an update file name that
// leaves the update directory. Built on the load generator's encoders, so
// each one is a legitimate message with one thing wrong.

#include <cstdint>
#include <string>
#include <vector>

#include "protocol.h"

namespace soak {

struct JunkPacket {
    std::string kind;  // a short name for the figures
    std::uint8_t channel = 0;
    loadbot::Bytes bytes;
    // Only a member of a room reaches the code that checks it (orders and
    // resync reports from outside a room are ignored before they are read).
    bool wantsMember = false;
};

// Every kind, in a fixed order; the soak sends them round robin.
std::vector<JunkPacket> junkCatalogue();

// Lobby and match-control messages the soak needs beyond the load
// generator's: leaving a room or a match, and the room list request.
loadbot::Bytes leaveRoomMessage();
loadbot::Bytes leaveMatchMessage();
loadbot::Bytes roomListRequestMessage(std::uint32_t roomId);

// The counts of a ServerStatus (channel 0, type 1); nullopt for anything else.
struct StatusCounts {
    std::uint32_t runningRooms = 0;
    std::uint32_t playersInRunning = 0;
    std::uint32_t playersInOther = 0;
    std::uint32_t playersInNoRoom = 0;
    std::uint32_t total() const { return playersInRunning + playersInOther + playersInNoRoom; }
};
bool parseServerStatus(const std::uint8_t* data, std::size_t length, StatusCounts& out);

}  // namespace soak
