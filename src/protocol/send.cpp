#include "protocol/send.h"

#include <algorithm>
#include <utility>

#include "log/log.h"
#include "log/metrics.h"

namespace {
PacketRecorder recorder;
std::function<void(ENetPeer*)> disconnectRecorder;
std::uint64_t outgoingLimit = 0;
std::vector<ENetPeer*> overLimit;

std::uint64_t sumList(const ENetList& list) {
    std::uint64_t total = 0;
    auto* sentinel = const_cast<ENetListNode*>(&list.sentinel);
    for (ENetListNode* n = sentinel->next; n != sentinel; n = n->next) {
        const auto* command = reinterpret_cast<const ENetOutgoingCommand*>(n);
        if (command->packet != nullptr) total += command->fragmentLength;
    }
    return total;
}

// Whether a packet may still go to the peer. The estimate only grows between
// measurements, so the queues are walked once it passes the limit, and then
// at most once per half a limit of bytes sent: the cost of a walk (one step
// per queued command) is spread over the bytes that made the queue.
bool admitOutgoing(ENetPeer* peer, std::size_t bytes) {
    auto* info = static_cast<PeerInfo*>(peer->data);
    if (info == nullptr) return true;
    if (info->overOutgoingLimit) return false;
    info->queuedEstimate += bytes;
    if (outgoingLimit == 0 || info->queuedEstimate <= outgoingLimit) return true;
    // The recorder holds nothing back: only a packet itself can be too big.
    const std::uint64_t queued = recorder ? bytes : queuedForSending(peer) + bytes;
    if (queued <= outgoingLimit) {
        info->queuedEstimate = std::max(queued, outgoingLimit / 2);
        return true;
    }
    info->overOutgoingLimit = true;
    overLimit.push_back(peer);
    countLimit(LimitFired::outgoing);
    logError("|||| Peer " + peerAddressText(*info) + " does not take what is sent to it: " + std::to_string(queued) +
             " bytes queued, over the limit of " + std::to_string(outgoingLimit) + ". Disconnecting it");
    return false;
}
}  // namespace

void setPacketRecorder(PacketRecorder r) { recorder = std::move(r); }
void setDisconnectRecorder(std::function<void(ENetPeer*)> r) { disconnectRecorder = std::move(r); }
void setOutgoingLimit(std::uint64_t bytes) { outgoingLimit = bytes; }

std::vector<ENetPeer*> takePeersOverOutgoingLimit() { return std::exchange(overLimit, {}); }

bool hasFeature(const ENetPeer* peer, std::uint32_t feature) {
    const auto* info = peer != nullptr ? static_cast<const PeerInfo*>(peer->data) : nullptr;
    return info != nullptr && (info->features & feature) != 0;
}

std::uint64_t queuedForSending(const ENetPeer* peer) {
    return sumList(peer->outgoingCommands) + sumList(peer->sentReliableCommands) +
           sumList(peer->sentUnreliableCommands);
}

bool holdsMoreThan(ENetPeer* peer, std::uint64_t bytes) {
    auto* info = static_cast<PeerInfo*>(peer->data);
    if (info == nullptr || info->queuedEstimate <= bytes) return false;
    // The recorder holds nothing back.
    info->queuedEstimate = recorder ? 0 : queuedForSending(peer);
    return info->queuedEstimate > bytes;
}

void disconnectNow(ENetPeer* peer) {
    if (recorder) {
        if (disconnectRecorder) disconnectRecorder(peer);
        return;
    }
    enet_peer_disconnect_now(peer, 0);
}

void sendBytes(ENetPeer* peer, std::uint8_t channel, ByteView bytes) {
    if (!admitOutgoing(peer, bytes.size())) return;
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
    if (!admitOutgoing(peer, bytes.size())) {
        if (released) released();
        return;
    }
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

SharedMessage::SharedMessage(ByteView bytes)
    : packet_(enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE)) {
    // Our own reference: ENet frees the packet only once this message and
    // every send of it have let go.
    if (packet_ != nullptr) ++packet_->referenceCount;
}

SharedMessage::SharedMessage(SharedMessage&& other) noexcept : packet_(std::exchange(other.packet_, nullptr)) {}

// The packet given up goes with the other message.
SharedMessage& SharedMessage::operator=(SharedMessage&& other) noexcept {
    std::swap(packet_, other.packet_);
    return *this;
}

SharedMessage::~SharedMessage() {
    if (packet_ != nullptr && --packet_->referenceCount == 0) enet_packet_destroy(packet_);
}

ByteView SharedMessage::bytes() const {
    return packet_ != nullptr ? ByteView(packet_->data, packet_->dataLength) : ByteView();
}

KeptBytes KeptBytes::take(ENetPacket*& packet) {
    KeptBytes kept;
    kept.bytes_ = ByteView(packet->data, packet->dataLength);
    kept.owner_ = std::shared_ptr<const void>(std::exchange(packet, nullptr), [](const void* p) {
        enet_packet_destroy(static_cast<ENetPacket*>(const_cast<void*>(p)));
    });
    return kept;
}

KeptBytes KeptBytes::copy(ByteView bytes) {
    auto owned = std::make_shared<const Bytes>(bytes.begin(), bytes.end());
    KeptBytes kept;
    kept.bytes_ = ByteView(*owned);
    kept.owner_ = std::move(owned);
    return kept;
}

void sendShared(ENetPeer* peer, std::uint8_t channel, const SharedMessage& message) {
    if (message.packet() == nullptr) return;
    const ByteView bytes = message.bytes();
    if (!admitOutgoing(peer, bytes.size())) return;
    countOut(channel, bytes.size(), 1);
    if (recorder) return recorder(peer, channel, bytes);
    enet_peer_send(peer, channel, message.packet());
}

void sendBytesToMany(ENetPeer* const* peers, std::size_t count, std::uint8_t channel, ByteView bytes,
                     ENetPacket** received) {
    // A room's seats fit on the stack; only the lobby-wide text relay is
    // bigger.
    ENetPeer* few[kSlotCount];
    std::vector<ENetPeer*> many(count > kSlotCount ? count : 0);
    ENetPeer** admitted = count > kSlotCount ? many.data() : few;
    std::size_t n = 0;
    for (std::size_t i = 0; i < count; ++i)
        if (admitOutgoing(peers[i], bytes.size())) admitted[n++] = peers[i];
    if (n == 0) return;
    countOut(channel, bytes.size(), n);
    if (recorder) {
        for (std::size_t i = 0; i < n; ++i) recorder(admitted[i], channel, bytes);
        return;
    }
    // A relay sends on what the loop already holds: a copy per order would
    // cost an allocation and a copy more than the packet it came in, which
    // ENet frees once every receiver has acknowledged it. Only a reliable
    // one, since every relay is reliable however the order came.
    ENetPacket* const held = received != nullptr ? *received : nullptr;
    const bool sendOn = held != nullptr && held->data == bytes.data() && held->dataLength == bytes.size() &&
                        (held->flags & ENET_PACKET_FLAG_RELIABLE) != 0;
    ENetPacket* packet = sendOn ? held : enet_packet_create(bytes.data(), bytes.size(), ENET_PACKET_FLAG_RELIABLE);
    if (packet == nullptr) return;
    for (std::size_t i = 0; i < n; ++i) enet_peer_send(admitted[i], channel, packet);
    if (sendOn) {
        if (packet->referenceCount != 0) *received = nullptr;
        return;
    }
    // Nobody took it (every send refused): ENet would never free it.
    if (packet->referenceCount == 0) enet_packet_destroy(packet);
}

void sendToAudience(const Audience& audience, std::uint8_t channel, ByteView bytes, const ENetPeer* except,
                    ENetPacket** received) {
    ENetPeer* targets[kSlotCount + kMaxSpectatorsPerRoom];
    std::size_t n = 0;
    for (ENetPeer* peer : audience.players)
        if (peer != nullptr && peer != except) targets[n++] = peer;
    for (ENetPeer* peer : audience.spectators) {
        if (n == std::size(targets)) break;
        if (peer != except) targets[n++] = peer;
    }
    sendBytesToMany(targets, n, channel, bytes, received);
}

void sendToPlayers(const Audience& audience, std::uint8_t channel, ByteView bytes, const ENetPeer* except) {
    sendToAudience(Audience{audience.players, {}}, channel, bytes, except);
}

void sendTextToPlayers(const Audience& audience, const std::string& text) {
    sendToPlayers(audience, kTextChannel, encode(Text{text}));
}

PeerInfo makePeerInfo(const ENetAddress& address) {
    PeerInfo info;
    const auto* b = reinterpret_cast<const std::uint8_t*>(&address.host);
    for (int i = 0; i < 4; ++i) info.octets[i] = b[i];
    info.port = address.port;
    return info;
}

namespace {
std::string octetsText(const PeerInfo& info) {
    return std::to_string(info.octets[0]) + "." + std::to_string(info.octets[1]) + "." +
           std::to_string(info.octets[2]) + "." + std::to_string(info.octets[3]);
}
}  // namespace

std::string hostText(std::uint32_t addressHost) { return octetsText(makePeerInfo(ENetAddress{addressHost, 0})); }

std::string peerAddressText(const PeerInfo& info) { return octetsText(info) + ":" + std::to_string(info.port); }

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
