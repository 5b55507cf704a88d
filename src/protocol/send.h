#pragma once
// Outgoing packets leave through here. In production every packet is a
// reliable ENet packet; an in-process recorder can take their place so that
// state tests and fuzzers drive the server without sockets.

#include <cstdint>
#include <functional>

#include <enet/enet.h>

#include "protocol/wire.h"

enum Channel : std::uint8_t {
    kLobbyChannel = 0,
    kTextChannel = 1,
    kMatchControlChannel = 2,
    kOrderChannel = 3,
    kReportsChannel = 4,
    kEventTrackingChannel = 5,
    kFileUpdateChannel = 6,
};
inline constexpr std::size_t kChannelCount = 7;

using PacketRecorder = std::function<void(ENetPeer* peer, std::uint8_t channel, ByteView bytes)>;

// nullptr restores ENet.
void setPacketRecorder(PacketRecorder recorder);

void sendBytes(ENetPeer* peer, std::uint8_t channel, ByteView bytes);

// The same bytes to several peers: one reference-counted ENet packet.
void sendBytesToMany(ENetPeer* const* peers, std::size_t count, std::uint8_t channel, ByteView bytes);
