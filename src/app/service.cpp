#include "app/service.h"

#include <cstdio>

#include "app/dispatch.h"
#include "app/peers.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "log/metrics.h"
#include "platform/clock.h"

void checkPeriodicDump(Server& server, const std::tm& local) {
    int m = local.tm_min % 5;
    if (server.eventDumpArmed && m == 1) {
        if (!server.events.empty()) dumpEvents(server.storage, server.events, server.statistics, periodicDumpName(local));
        server.eventDumpArmed = false;
    } else if (!server.eventDumpArmed && m == 3) {
        server.eventDumpArmed = true;
    }
}

void runRoomWork(Server& server, std::uint64_t now) {
    if (std::unique_ptr<Room> deleted = deleteEmptyRoom(server.rooms)) {
        endRecording(server.storage, deleted->match.recording, 0, deleted->match.lastCompletedStep);
        if (server.statisticsEnabled && deleted->running) recordFinishedGame(server.statistics, *deleted);
    }
    checkRoomStarts(server.rooms);
    releaseExpiredSeats(server.rooms, now);
    tickOrderDelays(server.rooms);
}

namespace {
// The local calendar changes once a second at most; converting the clock on
// every wake-up would cost a time-zone lookup per packet under load.
const std::tm& localTimeThisSecond(LoopClocks& clocks) {
    std::int64_t now = unixNow();
    if (now != clocks.localSecond) {
        clocks.localSecond = now;
        clocks.local = localNow();
    }
    return clocks.local;
}

// True at most once per period of the loop's clock.
bool due(std::uint64_t& last, std::uint64_t now, std::uint64_t periodMicros) {
    if (now - last < periodMicros) return false;
    last = now;
    return true;
}

}  // namespace

bool serviceStep(Server& server) {
    if (server.host == nullptr) return false;
    LoopClocks& clocks = server.clocks;
    if (server.receiveStamps) server.receiveStamps->mark(TurnMark::turnBegin);
    checkPeriodicDump(server, localTimeThisSecond(clocks));
    // The clock is read once per turn and again at each flush within it,
    // not per packet: what it times (budgets, streams, checks) is measured
    // in milliseconds and more, and a read per packet was a share of the
    // loop's time under load.
    std::uint64_t now = steadyMicros();

    bool handled = false;
    ENetEvent event;
    // A turn hands over a bounded number of events, so the completions, the
    // downloads and the room work come round however much arrives; ENet
    // itself serves its peers in turn, a packet each.
    int events = 0;
    for (; events < kMaxEventsPerTurn && enet_host_service(server.host, &event, 0) > 0; ++events) {
        // ENet sends what the handlers queued only once a drain has handed
        // over every event it received: under load a drain is thousands of
        // events long, and a relay queued at its start would wait for all
        // of them. Flushing every so many events sends it on its way.
        if (events % kEventsPerFlush == kEventsPerFlush - 1) {
            enet_host_flush(server.host);
            if (server.receiveStamps) server.receiveStamps->sent();
            now = steadyMicros();
        }
        switch (event.type) {
            case ENET_EVENT_TYPE_CONNECT:
                handleConnect(server, event.peer);
                handled = true;
                break;
            case ENET_EVENT_TYPE_DISCONNECT:
                handleDisconnect(server, event.peer);
                handled = true;
                break;
            case ENET_EVENT_TYPE_RECEIVE:
                server.bytesReceived += static_cast<std::uint32_t>(event.packet->dataLength);
                countIn(event.channelID, event.packet->dataLength);
                dispatchPacket(server, event.peer, event.channelID,
                               ByteView(event.packet->data, event.packet->dataLength), now, &event.packet);
                if (server.receiveStamps) server.receiveStamps->handled(event.channelID, event.peer);
                if (event.packet != nullptr) enet_packet_destroy(event.packet);
                cutOffPeersOverLimit(server);
                handled = true;
                break;
            default:
                break;
        }
    }
    server.eventsLeft = events == kMaxEventsPerTurn;
    if (server.receiveStamps) server.receiveStamps->mark(TurnMark::drainEnd, static_cast<std::uint32_t>(events));
    // A service that handed over no event has sent all that was queued.
    if (server.receiveStamps && !server.eventsLeft) server.receiveStamps->sent();
    // Completions are the server's own work coming back, not traffic: only
    // connects, disconnects and packets keep the loop's interval short.
    server.storage.poll();
    server.inbox.run();
    pumpDownloads(server.storage, server.downloads);
    if (events != 0) now = steadyMicros();
    turnStreams(server.rooms, now);
    if (due(clocks.stallCheck, now, 250'000))
        for (ENetPeer* peer : checkDownloads(server.downloads, now)) {
            countLimit(LimitFired::downloadStall);
            logError("|||| Peer " + peerAddressText(peer) + " took none of its download for " +
                     std::to_string(server.limits.downloadStallSeconds) + " s. Disconnecting it");
            cutOff(server, peer);
        }
    // The order-delay controller in the room work counts its calls (a pass
    // every 15th, a decision every 41st pass). Its pace was set by a loop
    // that sleeps at least 2 ms per step; the loop now wakes on every packet,
    // so the room work keeps that pace at most instead of running once per
    // wake-up: a busy server would otherwise decide delays many times a
    // second.
    if (due(clocks.roomWork, now, kRoomWorkPeriodMs * 1000)) {
        if (server.receiveStamps) server.receiveStamps->mark(TurnMark::roomWorkBegin);
        runRoomWork(server, now);
        if (server.receiveStamps) server.receiveStamps->mark(TurnMark::roomWorkEnd);
    }
    // Recorded matches hand their records to the worker in batches, about
    // ten a second: a write per order would cost the worker, and a batch a
    // second would hold more of a busy match in memory.
    if (!server.recordings.directory.empty() && due(clocks.recordingFlush, now, 100'000))
        for (auto& [id, room] : server.rooms.byId) flushRecording(server.storage, room->match.recording);
    cutOffPeersOverLimit(server);
    // Ten times a second is often enough to see partial messages pile up: a
    // peer adds at most the host's bandwidth in that time.
    if (due(clocks.waitingCheck, now, 100'000)) cutOffOverWaitingTotal(server);
    if (server.receiveStamps) server.receiveStamps->mark(TurnMark::turnEnd);
    return handled;
}
