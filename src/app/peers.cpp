#include "app/peers.h"

#include "admission/setting_lines.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "protocol/send.h"

bool isRegistered(const Server& server, ENetPeer* peer) { return server.peers.count(peer) != 0; }

void handleConnect(Server& server, ENetPeer* peer) {
    if (isRegistered(server, peer)) {
        logError("|||| Peer " + peerAddressText(peer) + " is already connected!");
        return;
    }
    // The gate looked at the connect datagram, but a reload may have banned
    // the address while the handshake went on.
    if (isBanned(server.connections, peer->address.host)) {
        noteRefusal(server.connections, peer->address.host, Refusal::banned, steadyMicros());
        disconnectNow(peer);
        return;
    }
    auto* record = new PeerRecord{makePeerInfo(peer->address), PeerBudget{}, nullptr};
    record->connection = ++server.connectionsMade;
    logMessage("A new client connected from " + peerAddressText(*record));
    peer->data = static_cast<PeerInfo*>(record);
    server.peers.insert(peer);
    record->address = &server.addressBudgets[peer->address.host];
    record->address->peers += 1;
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
    leaveRoom(server.rooms, peer, true);
    PeerRecord* record = recordOf(peer);
    logMessage("Disconnected " + (record ? peerAddressText(*record) : std::string("?")));
    delete record;
    peer->data = nullptr;
    server.peers.erase(peer);
    if (auto a = server.addressBudgets.find(peer->address.host); a != server.addressBudgets.end() && --a->second.peers == 0)
        server.addressBudgets.erase(a);
    forgetDownloads(server.downloads, peer);
    logMessage(std::to_string(server.peers.size()) + " peers now");
}

void cutOff(Server& server, ENetPeer* peer) {
    if (!isRegistered(server, peer)) return;
    handleDisconnect(server, peer);
    disconnectNow(peer);
}

void loadBans(Server& server) {
    if (server.bansFile.empty()) server.bansFile = dataRootPrefix() + "server_data/bans.txt";
    server.storage.submit([&server, path = server.bansFile]() -> Storage::Completion {
        std::string text;
        // A missing file is no ban at all, not a problem.
        const bool read = readSmallTextFile(path, 16 * 1024 * 1024, text);
        return [&server, path, read, text = std::move(text)] {
            std::vector<std::string> problems;
            server.connections.bans = parseBans(read ? text : std::string(), path, problems);
            reportProblems(problems);
            // Without a ban list the log stays as it always was.
            if (read) logMessage("Bans: " + std::to_string(server.connections.bans.entries) + " entries");
            cutOffBannedPeers(server);
        };
    });
}

void cutOffBannedPeers(Server& server) {
    if (server.connections.bans.entries == 0) return;
    const std::vector<ENetPeer*> peers(server.peers.begin(), server.peers.end());
    for (ENetPeer* peer : peers) {
        if (!isBanned(server.connections, peer->address.host)) continue;
        logMessage("Peer " + peerAddressText(peer) + " is banned. Disconnecting it");
        cutOff(server, peer);
    }
}

void cutOffPeersOverLimit(Server& server) {
    for (ENetPeer* peer : takePeersOverOutgoingLimit()) cutOff(server, peer);
}

void cutOffOverWaitingTotal(Server& server) {
    const std::uint64_t limit = server.limits.maxWaitingBytesTotal;
    if (limit == 0) return;
    for (;;) {
        std::uint64_t total = 0;
        ENetPeer* most = nullptr;
        for (ENetPeer* peer : server.peers) {
            total += peer->totalWaitingData;
            if (most == nullptr || peer->totalWaitingData > most->totalWaitingData) most = peer;
        }
        if (total <= limit || most == nullptr) return;
        countLimit(LimitFired::waitingTotal);
        logError("|||| Peers hold " + std::to_string(total) + " bytes of unfinished messages, over the limit of " +
                 std::to_string(limit) + "; " + peerAddressText(most) + " holds the most (" +
                 std::to_string(most->totalWaitingData) + "). Disconnecting it");
        cutOff(server, most);
    }
}
