#pragma once
// Outgoing packets leave through here. In production every packet is a
// reliable ENet packet; an in-process recorder can take their place so that
// state tests and fuzzers drive the server without sockets.

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "protocol/messages.h"
#include "protocol/wire.h"

using PacketRecorder = std::function<void(ENetPeer* peer, std::uint8_t channel, ByteView bytes)>;

// nullptr restores ENet.
void setPacketRecorder(PacketRecorder recorder);

void sendBytes(ENetPeer* peer, std::uint8_t channel, ByteView bytes);

// Hands the bytes to ENet without copying them; released runs once ENet lets
// go of them (delivered, or the peer gone), at once under the recorder.
void sendOwned(ENetPeer* peer, std::uint8_t channel, Bytes bytes, std::function<void()> released);

// An encoded message kept for sends again and again (a room's entry in the
// room list, its settings): every send hands ENet the one packet, counted by
// reference, instead of a copy. Empty until given bytes.
class SharedMessage {
public:
    SharedMessage() = default;
    explicit SharedMessage(ByteView bytes);
    SharedMessage(SharedMessage&& other) noexcept;
    SharedMessage& operator=(SharedMessage&& other) noexcept;
    SharedMessage(const SharedMessage&) = delete;
    SharedMessage& operator=(const SharedMessage&) = delete;
    ~SharedMessage();
    ByteView bytes() const;
    ENetPacket* packet() const { return packet_; }

private:
    ENetPacket* packet_ = nullptr;
};
void sendShared(ENetPeer* peer, std::uint8_t channel, const SharedMessage& message);

// The bytes of a received message kept past the event that brought them, for
// work done later or elsewhere (a report written by the storage worker):
// ENet's own packet when the receiver hands it over, so a large message is
// never copied on the loop, and a copy otherwise. The last holder frees the
// bytes, on whatever thread it runs.
class KeptBytes {
public:
    KeptBytes() = default;
    // Takes the packet over: `packet` is left null, and is freed with the
    // last holder instead of by the receiver.
    static KeptBytes take(ENetPacket*& packet);
    static KeptBytes copy(ByteView bytes);
    ByteView bytes() const { return bytes_; }

private:
    std::shared_ptr<const void> owner_;
    ByteView bytes_;
};

// The same bytes to several peers: one reference-counted ENet packet. When
// received holds the reliable packet those very bytes came in, that packet
// is sent on rather than a copy, and *received is cleared once ENet holds it.
void sendBytesToMany(ENetPeer* const* peers, std::size_t count, std::uint8_t channel, ByteView bytes,
                     ENetPacket** received = nullptr);

// Spectators one room may have at most: what a send to a room's audience
// gathers on the stack.
inline constexpr std::size_t kMaxSpectatorsPerRoom = 64;

// Who a room's messages reach: each slot's player by its connection, in slot
// order (nullptr: nobody there, a player away, or one still reading the
// match's stream), then the spectators that watch the match live.
struct Audience {
    std::array<ENetPeer*, kSlotCount> players{};
    std::span<ENetPeer* const> spectators{};
};

// The bytes, as one shared packet, to the players and then the spectators
// (except one peer, when given); received as for sendBytesToMany.
void sendToAudience(const Audience& audience, std::uint8_t channel, ByteView bytes, const ENetPeer* except = nullptr,
                    ENetPacket** received = nullptr);
// The bytes to the players alone: what belongs to the room rather than to
// its match.
void sendToPlayers(const Audience& audience, std::uint8_t channel, ByteView bytes, const ENetPeer* except = nullptr);
void sendTextToPlayers(const Audience& audience, const std::string& text);

// The address of a registered peer, hung on the ENet peer's data field, and
// the number of its connection (ENet reuses its peer records).
struct PeerInfo {
    std::array<std::uint32_t, 4> octets{};
    std::uint32_t port = 0;
    std::uint64_t connection = 0;
    // Bytes handed to ENet for this peer since its queue was last measured:
    // never less than what ENet still holds for it.
    std::uint64_t queuedEstimate = 0;
    // Over the outgoing limit: nothing more is sent to it, and the loop
    // disconnects it once the message at hand is done.
    bool overOutgoingLimit = false;
    // The extensions version the peer said it speaks; 0: it never asked, and
    // it is served exactly as a client that knows no extensions.
    std::uint32_t extensionsVersion = 0;
    // The features granted to it (Feature bits).
    std::uint32_t features = 0;
};

// Whether the peer was granted the feature (a Feature bit) in its handshake.
bool hasFeature(const ENetPeer* peer, std::uint32_t feature);

// Bytes queued for sending to one peer (delivered to ENet but not yet
// acknowledged) above which the peer is cut off; 0: no limit.
void setOutgoingLimit(std::uint64_t bytes);
// The peers that went over it since the last call.
std::vector<ENetPeer*> takePeersOverOutgoingLimit();
// What ENet holds for sending to the peer, in bytes.
std::uint64_t queuedForSending(const ENetPeer* peer);
// Whether ENet holds more than bytes for the peer. Walks ENet's queues only
// when what was handed over since the last walk says it may.
bool holdsMoreThan(ENetPeer* peer, std::uint64_t bytes);
// Drops the peer at once: a disconnect notice goes out without waiting for an
// acknowledgement, and ENet frees the slot and everything queued for it.
void disconnectNow(ENetPeer* peer);
// Under the recorder, disconnectNow calls this instead.
void setDisconnectRecorder(std::function<void(ENetPeer*)> recorder);

// A peer as work that finishes later knows it: a reply then reaches the same
// connection or nobody.
struct PeerRef {
    ENetPeer* peer = nullptr;
    std::uint64_t connection = 0;
};
PeerRef refOf(ENetPeer* peer);
// The peer while it still holds that connection, else nullptr.
ENetPeer* stillConnected(const PeerRef& ref);
PeerInfo makePeerInfo(const ENetAddress& address);
// "a.b.c.d" of an address in ENet's byte order.
std::string hostText(std::uint32_t addressHost);
// "a.b.c.d:port" of the peer's record, or of its address when it has none.
std::string peerAddressText(const PeerInfo& info);
std::string peerAddressText(const ENetPeer* peer);
