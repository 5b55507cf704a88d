#include "admission/connections.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include <enet/protocol.h>

#include "log/log.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "protocol/send.h"

namespace {

constexpr std::uint64_t kMinuteMicros = 60'000'000;
ConnectionGate* installed = nullptr;

AddressRecord* recordOf(ConnectionGate& gate, std::uint32_t addressHost, std::uint64_t now) {
    if (auto it = gate.addresses.find(addressHost); it != gate.addresses.end()) return &it->second;
    if (gate.addresses.size() >= kMaxTrackedAddresses) {
        // A sweep walks the whole table: once a second at most, or a flood
        // of new addresses would make every datagram pay for one.
        if (now - gate.sweptMicros >= 1'000'000 || gate.sweptMicros == 0) {
            gate.sweptMicros = now;
            std::erase_if(gate.addresses, [now](const auto& e) {
                return now - std::max(e.second.connects.lastMicros, e.second.loggedMicros) >= kMinuteMicros;
            });
        }
        if (gate.addresses.size() >= kMaxTrackedAddresses) return nullptr;
    }
    return &gate.addresses[addressHost];
}

int intercept(ENetHost* host, ENetEvent*) {
    // With checksums on a word would follow the header; the server never
    // sets them, and a datagram it does not understand goes to ENet.
    if (installed == nullptr || host->checksum != nullptr) return 0;
    const std::optional<std::uint32_t> id = connectIdOf(host->receivedData, host->receivedDataLength);
    if (!id) return 0;
    return admitConnect(*installed, *host, host->receivedAddress, *id, steadyMicros()) == Refusal::none ? 0 : 1;
}

}  // namespace

std::optional<std::uint32_t> connectIdOf(const std::uint8_t* data, std::size_t size) {
    constexpr std::size_t kShortHeader = offsetof(ENetProtocolHeader, sentTime);
    if (data == nullptr || size < kShortHeader) return std::nullopt;
    const unsigned peerID = static_cast<unsigned>(data[0]) << 8 | data[1];
    // Compression is never enabled here, and ENet drops what it cannot
    // decompress.
    if ((peerID & ENET_PROTOCOL_HEADER_FLAG_COMPRESSED) != 0) return std::nullopt;
    if ((peerID & ENET_PROTOCOL_MAXIMUM_PEER_ID) != ENET_PROTOCOL_MAXIMUM_PEER_ID) return std::nullopt;
    const std::size_t header = (peerID & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) != 0 ? sizeof(ENetProtocolHeader)
                                                                                    : kShortHeader;
    ENetProtocolConnect connect;
    if (size < header + sizeof connect) return std::nullopt;
    std::memcpy(&connect, data + header, sizeof connect);
    if ((connect.header.command & ENET_PROTOCOL_COMMAND_MASK) != ENET_PROTOCOL_COMMAND_CONNECT) return std::nullopt;
    return std::uint32_t{connect.connectID};
}

bool isBanned(const ConnectionGate& gate, std::uint32_t addressHost) {
    return gate.bans.entries != 0 && isBanned(gate.bans, mappedIPv4(addressHost));
}

Refusal admitConnect(ConnectionGate& gate, const ENetHost& host, const ENetAddress& from, std::uint32_t connectID,
                     std::uint64_t now) {
    Refusal why = Refusal::none;
    std::uint64_t peers = 0;
    if (isBanned(gate, from.host)) {
        why = Refusal::banned;
    } else {
        for (std::size_t i = 0; i < host.peerCount; ++i) {
            const ENetPeer& p = host.peers[i];
            if (p.state == ENET_PEER_STATE_DISCONNECTED || p.address.host != from.host) continue;
            if (p.address.port == from.port && p.connectID == connectID) return Refusal::none;
            ++peers;
        }
        AddressRecord* r = gate.connectsPerMinute != 0 ? recordOf(gate, from.host, now) : nullptr;
        // A bucket of connectsPerMinute tokens, refilled over a minute.
        const double n = static_cast<double>(gate.connectsPerMinute);
        if (r != nullptr && !take(r->connects, n / 60, n, 1, now)) why = Refusal::connectRate;
        else if (gate.maxPeersPerAddress != 0 && peers >= gate.maxPeersPerAddress) why = Refusal::peersPerAddress;
    }
    if (why != Refusal::none) noteRefusal(gate, from.host, why, now);
    return why;
}

void noteRefusal(ConnectionGate& gate, std::uint32_t addressHost, Refusal why, std::uint64_t now) {
    countLimit(why == Refusal::banned            ? LimitFired::banned
               : why == Refusal::peersPerAddress ? LimitFired::peersPerAddress
                                                 : LimitFired::connectsPerMinute);
    AddressRecord* r = recordOf(gate, addressHost, now);
    if (r == nullptr || (r->logged && now - r->loggedMicros < kMinuteMicros)) return;
    r->logged = true;
    r->loggedMicros = now;
    std::string reason = "banned";
    if (why == Refusal::peersPerAddress)
        reason = std::to_string(gate.maxPeersPerAddress) + " peers from this address already (max_peers_per_address)";
    else if (why == Refusal::connectRate)
        reason = "more than " + std::to_string(gate.connectsPerMinute) +
                 " connects a minute (connects_per_address_per_minute)";
    logMessage("Refused connect from " + hostText(addressHost) + ": " + reason);
}

void installConnectionGate(ENetHost* host, ConnectionGate* gate) {
    installed = gate;
    if (host != nullptr) host->intercept = gate != nullptr ? intercept : nullptr;
}
