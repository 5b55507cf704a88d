#include "protocol/send.h"

#include "core/metrics.h"

namespace {
PacketRecorder recorder;
}

void setPacketRecorder(PacketRecorder r) { recorder = std::move(r); }

void sendBytes(ENetPeer* peer, std::uint8_t channel, ByteView bytes) {
    countOut(channel, bytes.size(), 1);
    if (recorder) {
        recorder(peer, channel, bytes);
        return;
    }
    ENetPacket* packet = enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
    if (packet == nullptr) return;
    if (enet_peer_send(peer, channel, packet) != 0 && packet->referenceCount == 0) enet_packet_destroy(packet);
}

void sendBytesToMany(ENetPeer* const* peers, std::size_t count, std::uint8_t channel, ByteView bytes) {
    if (count == 0) return;
    countOut(channel, bytes.size(), count);
    if (recorder) {
        for (std::size_t i = 0; i < count; ++i) recorder(peers[i], channel, bytes);
        return;
    }
    ENetPacket* packet = enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
    if (packet == nullptr) return;
    for (std::size_t i = 0; i < count; ++i) enet_peer_send(peers[i], channel, packet);
    // Nobody took it (every send refused): ENet would never free it.
    if (packet->referenceCount == 0) enet_packet_destroy(packet);
}
