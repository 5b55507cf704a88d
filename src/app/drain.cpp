#include "app/drain.h"

#include <string>
#include <vector>

#include "app/server.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "log/metrics.h"
#include "protocol/send.h"

std::string drainNotice(std::uint32_t seconds) {
    return "The server is shutting down within " + std::to_string(seconds) +
           " seconds: running games may finish, new games cannot be created or joined.";
}

std::uint32_t matchesUnderWay(const Server& server) {
    std::uint32_t n = 0;
    for (const auto& [id, room] : server.rooms.byId) n += room->started || room->running;
    return n;
}

void startDrain(Server& server, std::uint64_t nowMicros) {
    if (server.drain.active || server.drain.seconds == 0) return;
    server.drain.active = true;
    server.drain.deadlineMicros = nowMicros + std::uint64_t{server.drain.seconds} * 1'000'000;
    metrics().draining.store(true);
    logMessage("Drain: no new games; " + std::to_string(matchesUnderWay(server)) +
               " matches running, stopping when they end or in " + std::to_string(server.drain.seconds) +
               " seconds");
    const std::vector<ENetPeer*> everyone(server.peers.begin(), server.peers.end());
    if (!everyone.empty())
        sendBytesToMany(everyone.data(), everyone.size(), kTextChannel, encode(Text{drainNotice(server.drain.seconds)}));
}

bool drainFinished(const Server& server, std::uint64_t nowMicros) {
    if (!server.drain.active) return false;
    const std::uint32_t left = matchesUnderWay(server);
    if (left == 0) {
        logMessage("Drain: no match left; stopping");
        return true;
    }
    if (nowMicros >= server.drain.deadlineMicros) {
        logMessage("Drain: the deadline has passed with " + std::to_string(left) + " matches running; stopping");
        return true;
    }
    return false;
}

std::uint32_t drainWaitMillis(const Drain& drain, std::uint64_t nowMicros, std::uint32_t intervalMs) {
    if (!drain.active) return intervalMs;
    if (nowMicros >= drain.deadlineMicros) return 0;
    const std::uint64_t left = (drain.deadlineMicros - nowMicros + 999) / 1000;
    return left < intervalMs ? static_cast<std::uint32_t>(left) : intervalMs;
}

bool refusedByDrain(const Server& server, ENetPeer* peer) {
    // A peer in a room gets no reply to these today; it gets none now.
    if (!server.drain.active || roomOf(server.rooms, peer) != nullptr) return false;
    sendBytes(peer, kTextChannel, encode(Text{kDrainRefusal}));
    return true;
}
