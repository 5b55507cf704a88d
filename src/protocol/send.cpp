#include "protocol/send.h"

#include "log/metrics.h"

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

namespace {
struct Owned {
    Bytes bytes;
    std::function<void()> released;
};

void freeOwned(ENetPacket* packet) {
    auto* owned = static_cast<Owned*>(packet->userData);
    std::function<void()> released = std::move(owned->released);
    delete owned;
    if (released) released();
}
}  // namespace

void sendOwned(ENetPeer* peer, std::uint8_t channel, Bytes bytes, std::function<void()> released) {
    countOut(channel, bytes.size(), 1);
    if (recorder) {
        recorder(peer, channel, bytes);
        if (released) released();
        return;
    }
    auto* owned = new Owned{std::move(bytes), std::move(released)};
    ENetPacket* packet = enet_packet_create(owned->bytes.data(), owned->bytes.size(),
                                            ENET_PACKET_FLAG_RELIABLE | ENET_PACKET_FLAG_NO_ALLOCATE);
    if (packet == nullptr) {
        std::function<void()> r = std::move(owned->released);
        delete owned;
        if (r) r();
        return;
    }
    packet->userData = owned;
    packet->freeCallback = freeOwned;
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

void sendToSeated(const SeatPeers& seats, std::uint8_t channel, ByteView bytes, const ENetPeer* except) {
    ENetPeer* targets[kSlotCount];
    std::size_t n = 0;
    for (ENetPeer* peer : seats)
        if (peer != nullptr && peer != except) targets[n++] = peer;
    sendBytesToMany(targets, n, channel, bytes);
}

void sendTextToSeated(const SeatPeers& seats, const std::string& text) {
    sendToSeated(seats, kTextChannel, encode(Text{text}));
}

PeerInfo makePeerInfo(const ENetAddress& address) {
    PeerInfo info;
    const auto* b = reinterpret_cast<const std::uint8_t*>(&address.host);
    for (int i = 0; i < 4; ++i) info.octets[i] = b[i];
    info.port = address.port;
    return info;
}

std::string peerAddressText(const PeerInfo& info) {
    return std::to_string(info.octets[0]) + "." + std::to_string(info.octets[1]) + "." +
           std::to_string(info.octets[2]) + "." + std::to_string(info.octets[3]) + ":" + std::to_string(info.port);
}

std::string peerAddressText(const ENetPeer* peer) {
    const auto* info = static_cast<const PeerInfo*>(peer->data);
    return peerAddressText(info != nullptr ? *info : makePeerInfo(peer->address));
}

PeerRef refOf(ENetPeer* peer) {
    const auto* info = static_cast<const PeerInfo*>(peer->data);
    return PeerRef{peer, info != nullptr ? info->connection : 0};
}

ENetPeer* stillConnected(const PeerRef& ref) {
    const auto* info = static_cast<const PeerInfo*>(ref.peer->data);
    return info != nullptr && info->connection == ref.connection ? ref.peer : nullptr;
}
