#pragma once
// Messages every subsystem shares: the server status and relayed texts.

#include <cstdint>
#include <optional>
#include <string>

#include <enet/enet.h>

#include "protocol/wire.h"

struct Server;
struct Room;

// Lobby message 1, server to client.
struct ServerStatus {
    static constexpr std::uint32_t kType = 1;
    std::uint32_t secondWord = 1;
    std::string description;
    std::uint32_t runningRooms = 0;
    std::uint32_t playersInRunningRooms = 0;
    std::uint32_t playersInOtherRooms = 0;
    std::uint32_t playersInNoRoom = 0;
    std::uint32_t protocolVersion = 0;

    Bytes encode() const;
    static std::optional<ServerStatus> decode(ByteView bytes);
};

// A text on the text channel: its bytes and one NUL.
Bytes encodeText(const std::string& text);
// The text up to the first NUL; nullopt when there is none.
std::optional<std::string> decodeText(ByteView bytes);

void sendServerStatus(Server& server, ENetPeer* peer);
// The text to every slot of the room that has a peer, in slot order.
void sendTextToRoom(const Room& room, const std::string& text);
// The text to every registered peer that shares the sender's room (or, for a
// sender in no room, to every peer in no room), the sender included.
void relayText(Server& server, ENetPeer* sender, const std::string& text);

// The room whose slots hold the peer, or nullptr.
Room* findPeerRoom(Server& server, ENetPeer* peer);
