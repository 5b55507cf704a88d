#include "core/dispatch.h"

#include <chrono>
#include <cstdio>

#include "core/metrics.h"
#include "core/peers.h"
#include "game/match.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "platform/clock.h"
#include "protocol/messages.h"
#include "protocol/send.h"
#include "reports/reports.h"
#include "stats/events.h"
#include "update/update.h"

std::string periodicDumpName(const std::tm& local) {
    char buf[48];
    std::snprintf(buf, sizeof buf, "%d_%02d_%02d", local.tm_year, local.tm_mon + 1, local.tm_mday);
    return buf;
}

void checkPeriodicDump(Server& server, const std::tm& local) {
    int m = local.tm_min % 5;
    if (server.eventDumpArmed && m == 1) {
        if (!server.events.empty()) dumpEvents(server, periodicDumpName(local));
        server.eventDumpArmed = false;
    } else if (!server.eventDumpArmed && m == 3) {
        server.eventDumpArmed = true;
    }
}

void runRoomWork(Server& server) {
    deleteEmptyRoom(server);
    checkRoomStarts(server);
    adaptOrderDelay(server);
}

namespace {
// The local calendar changes once a second at most; converting the clock on
// every wake-up would cost a time-zone lookup per packet under load.
const std::tm& localTimeThisSecond() {
    static std::int64_t second = -1;
    static std::tm local{};
    std::int64_t now = unixNow();
    if (now != second) {
        second = now;
        local = localNow();
    }
    return local;
}

// The room work walks every room, and the order-delay controller in it counts
// its calls (a pass every 15th, a decision every 41st pass). Its pace was set
// by a loop that sleeps at least 2 ms per step; the loop now wakes on every
// packet, so the room work keeps that pace at most instead of running once per
// wake-up: a busy server would otherwise decide delays many times a second
// and walk every room for every packet.
bool roomWorkDue() {
    using Clock = std::chrono::steady_clock;
    static Clock::time_point last{};
    Clock::time_point now = Clock::now();
    if (now - last < std::chrono::milliseconds(kRoomWorkPeriodMs)) return false;
    last = now;
    return true;
}
}  // namespace

bool serviceStep(Server& server) {
    if (server.host == nullptr) return false;
    checkPeriodicDump(server, localTimeThisSecond());

    bool handled = false;
    ENetEvent event;
    while (enet_host_service(server.host, &event, 0) > 0) {
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
                               ByteView(event.packet->data, event.packet->dataLength));
                enet_packet_destroy(event.packet);
                handled = true;
                break;
            default:
                break;
        }
    }
    if (roomWorkDue()) runRoomWork(server);
    return handled;
}

namespace {
void unknownType(const char* what, std::uint32_t type) {
    logError(std::string(what) + std::to_string(type) + ". Nothing to do with it");
}
}  // namespace

void dispatchPacket(Server& server, ENetPeer* peer, std::uint8_t channel, ByteView packet) {
    if (!isRegistered(server, peer)) {
        const auto* info = static_cast<const PeerInfo*>(peer->data);
        PeerInfo shown = info ? *info : makePeerInfo(peer->address);
        logError("|||| Packet from unknown peer " + peerAddressText(shown) + "! Ignoring!");
        return;
    }

    if (channel == kTextChannel) {
        auto text = decodeText(packet);
        if (!text) {
            logMalformed("text", channel, packet.size());
            return;
        }
        relayText(server, peer, *text);
        return;
    }
    if (channel == kOrderChannel) {
        handleOrder(server, peer, packet);
        return;
    }
    if (channel >= kChannelCount) {
        logError("|||| Channel " + std::to_string(channel) + ". Nothing to do with it");
        return;
    }

    std::uint32_t type = 0;
    if (!readMessageType(packet, type)) {
        logMalformed("packet", channel, packet.size());
        return;
    }
    switch (channel) {
        case kLobbyChannel:
            handleLobbyMessage(server, peer, packet);
            break;
        case kMatchControlChannel:
            handleMatchControl(server, peer, packet);
            break;
        case kReportsChannel:
            if (type == 1)
                receiveFeedbackReport(server, peer, packet);
            else if (type == 3)
                receiveDeterminismTestReport(server, peer, packet);
            else
                unknownType("|||| Unknown feedback message ", type);
            break;
        case kEventTrackingChannel:
            handleEventTracking(server, peer, packet);
            break;
        case kFileUpdateChannel:
            handleFileUpdate(server, peer, packet);
            break;
        default:
            break;
    }
}
