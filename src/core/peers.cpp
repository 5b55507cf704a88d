#include "core/peers.h"

#include "lobby/lobby.h"
#include "log/log.h"

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

bool isRegistered(const Server& server, ENetPeer* peer) { return server.peers.count(peer) != 0; }

std::uint32_t peerSourceIp(ENetPeer* peer) { return peer->address.host; }

void handleConnect(Server& server, ENetPeer* peer) {
    if (isRegistered(server, peer)) {
        const auto* existing = static_cast<const PeerInfo*>(peer->data);
        logError("|||| Peer " + (existing ? peerAddressText(*existing) : peerAddressText(makePeerInfo(peer->address))) +
                 " is already connected!");
        return;
    }
    auto* info = new PeerInfo(makePeerInfo(peer->address));
    logMessage("A new client connected from " + peerAddressText(*info));
    peer->data = info;
    server.peers.insert(peer);
    logMessage(std::to_string(server.peers.size()) + " peers now");
    // A silent client is dropped only after 40 to 240 seconds.
    if (server.host != nullptr) enet_peer_timeout(peer, 256, 40000, 240000);
}

void handleDisconnect(Server& server, ENetPeer* peer) {
    if (!isRegistered(server, peer)) {
        logError("|||| Peer not connected " + std::to_string(peer->address.host) + ":" +
                 std::to_string(peer->address.port) + "!");
        return;
    }
    leaveRoom(server, peer, true);
    auto* info = static_cast<PeerInfo*>(peer->data);
    logMessage("Disconnected " + (info ? peerAddressText(*info) : std::string("?")));
    delete info;
    peer->data = nullptr;
    server.peers.erase(peer);
    logMessage(std::to_string(server.peers.size()) + " peers now");
}
