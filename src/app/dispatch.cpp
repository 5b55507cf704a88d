#include "app/dispatch.h"

#include <optional>
#include <string>

#include "app/drain.h"
#include "app/peers.h"
#include "lobby/lobby.h"
#include "log/log.h"
#include "log/metrics.h"
#include "platform/clock.h"
#include "protocol/send.h"
#include "reports/reports.h"
#include "stats/events.h"
#include "update/update.h"

namespace {

struct Incoming {
    Server& server;
    ENetPeer* peer;
    std::uint8_t channel;
    ByteView packet;
    PeerBudget& budget;
    std::uint64_t now;
    ENetPacket** received;  // may be null
};

// The packet's bytes for work that outlives the handler: ENet's packet
// itself when the receiver lets it go, else a copy.
KeptBytes keep(const Incoming& in) {
    if (in.received != nullptr && *in.received != nullptr) return KeptBytes::take(*in.received);
    return KeptBytes::copy(in.packet);
}

// Whether the peer may still have a refusal logged in full. Past its
// allowance the refusals are only counted, with a line now and then.
bool mayLog(const Incoming& in) {
    std::string summary;
    if (mayLogMalformed(in.budget, in.server.limits, in.now, summary)) return true;
    if (!summary.empty()) logError("|||| Peer " + peerAddressText(in.peer) + ": " + summary);
    return false;
}

void malformed(const Incoming& in, std::string_view what) {
    if (mayLog(in)) return logMalformed(what, in.channel, in.packet.size());
    metrics().malformedDropped.fetch_add(1, std::memory_order_relaxed);
}

using Handler = void (*)(const Incoming&);

// Decodes the packet as M and hands the record on; a packet that does not
// decode is dropped with the one "Malformed" line.
template <typename M, void (*Handle)(const Incoming&, M&), std::optional<M> (*Decode)(ByteView) = &decode<M>>
void decoded(const Incoming& in) {
    std::optional<M> m = Decode(in.packet);
    if (!m) return malformed(in, M::kName);
    Handle(in, *m);
}

// For messages that only a player in a room can send: from anyone else they
// change nothing, and are dropped without being decoded or logged.
template <typename M, void (*Handle)(const Incoming&, const Seat&, M&),
          std::optional<M> (*Decode)(ByteView) = &decode<M>>
void seated(const Incoming& in) {
    const Seat* seat = seatOf(in.server.rooms, in.peer);
    if (seat == nullptr) return;
    std::optional<M> m = Decode(in.packet);
    if (!m) return malformed(in, M::kName);
    Handle(in, *seat, *m);
}

std::uint32_t now32() { return static_cast<std::uint32_t>(unixNow()); }

// ---- Lobby ----
void onCreateRoom(const Incoming& in, CreateRoom& m) {
    if (!refusedByDrain(in.server, in.peer)) createRoom(in.server.rooms, in.peer, m);
}
void onJoinRoom(const Incoming& in, JoinRoom& m) {
    if (!refusedByDrain(in.server, in.peer)) joinRoom(in.server.rooms, in.peer, m.roomId);
}
void onLeaveRoom(const Incoming& in, LeaveRoom&) { leaveRoom(in.server.rooms, in.peer, false); }
void onPlayerSetup(const Incoming& in, PlayerSetup& m) { updatePlayerSetup(in.server.rooms, in.peer, std::move(m)); }
void onSlotState(const Incoming& in, SlotState& m) { changeSlotState(in.server.rooms, in.peer, m, in.packet); }
void onSetHost(const Incoming& in, SetHost& m) { requestHost(in.server.rooms, in.peer, m.slot); }
void onKick(const Incoming& in, Kick& m) { kickPlayer(in.server.rooms, in.peer, m.slot); }
void onRoomListRequest(const Incoming& in, RoomListRequest& m) {
    const Server& s = in.server;
    sendRoomList(s.rooms, serverStatus(s.rooms, s.serverDescription, s.peers.size()), in.peer, m.roomId);
}
void onGameSettings(const Incoming& in, GameSettings& m) { updateGameSettings(in.server.rooms, in.peer, std::move(m)); }
void onStartGame(const Incoming& in, StartGame&) { requestStart(in.server.rooms, in.peer); }

// ---- Text ----
void onText(const Incoming& in, Text& m) { relayText(in.server.rooms, in.server.peers, in.peer, m.text); }

// ---- Match control and orders ----
void onLeaveMatch(const Incoming& in, LeaveMatch&) { leaveRoom(in.server.rooms, in.peer, false); }
void onDelayHold(const Incoming&, const Seat& seat, DelayHold&) { holdDelay(seat.room->match); }
void onDelayRequest(const Incoming&, const Seat& seat, DelayRequest&) { requestLongerDelay(seat.room->match); }
void onResyncReport(const Incoming& in, const Seat& seat, ResyncReport& m) {
    handleResyncReport(in.server.storage, seat.room->match, seating(*seat.room), seat.slot, m, in.packet,
                       in.server.limits.resyncBytesPerRoom);
}
void onOrder(const Incoming& in, const Seat& seat, Order& m) {
    handleOrder(seat.room->match, seating(*seat.room), seat.slot, m, in.packet);
}

// ---- Reports ----
// The disk a client can fill: reports over the quotas are answered as ones
// that could not be written, and nothing is written.
bool withinReportQuota(const Incoming& in, bool feedback) {
    Server& s = in.server;
    const Limits& l = s.limits;
    if (const std::int64_t day = unixNow() / 86400; day != s.reportDay) {
        s.reportDay = day;
        s.reportBytesToday = 0;
    }
    const char* over = nullptr;
    if (l.reportsBytesPerDay != 0 && s.reportBytesToday + in.packet.size() > l.reportsBytesPerDay) {
        over = "reports_bytes_per_day";
        countLimit(LimitFired::reportsPerDay);
    } else if (const double n = static_cast<double>(l.reportsPerPeerPerHour);
               n != 0 && !take(in.budget.reportsPerHour, n / 3600, n, 1, in.now)) {
        over = "reports_per_peer_per_hour";
        countLimit(LimitFired::reportsPerHour);
    }
    if (over == nullptr) {
        s.reportBytesToday += in.packet.size();
        return true;
    }
    if (std::string line = reportRefusalLine(in.budget, over, in.now); !line.empty())
        logError("|||| Report from " + peerAddressText(in.peer) + " " + line);
    refuseReport(s.storage, in.peer, feedback);
    return false;
}
void onFeedbackReport(const Incoming& in, FeedbackReport&) {
    if (withinReportQuota(in, true)) fileFeedbackReport(in.server.storage, in.peer, keep(in));
}
void onDeterminismTestReport(const Incoming& in, DeterminismTestReport&) {
    if (withinReportQuota(in, false)) fileDeterminismTestReport(in.server.storage, in.peer, keep(in));
}

// ---- Event tracking and file update ----
void onTrackEvent(const Incoming& in, TrackEvent& m) {
    Server& s = in.server;
    auto today = [] { return periodicDumpName(localNow()); };
    if (admitEvent(s.eventSpill, s.events, s.storage, today, unixNow()))
        recordEvent(s.events, m.eventType, std::move(m.playerName), in.peer->address.host, std::move(m.dataset),
                    m.datasetChecksum, std::move(m.additionalEventData), now32());
    if (m.eventType == kUpdateCheckEvent) {
        sendManifestVersion(in.server.storage, in.peer);
        sendAnnouncements(in.server.storage, in.peer);
    }
}
void onManifestRequest(const Incoming& in, ManifestRequest&) {
    recordEvent(in.server.events, 3, "__SERVER__", 0, "", 0, "", now32());
    sendFile(in.server.storage, in.server.downloads, in.peer, kManifestName);
}
void onFileRequest(const Incoming& in, FileRequest& m) {
    sendFile(in.server.storage, in.server.downloads, in.peer, std::move(m.name));
}
void onFileData(const Incoming& in) {
    if (mayLog(in)) logError("???? server should not be receiving file responses");
}

// The text and order channels carry no type word: every packet on them goes
// to their one route.
constexpr std::uint32_t kWholeChannel = 0xFFFFFFFFu;

struct Route {
    std::uint8_t channel;
    std::uint32_t type;
    Handler handle;
};

// Orders first: they are most of the traffic.
constexpr Route kRoutes[] = {
    {kOrderChannel, kWholeChannel, seated<Order, onOrder, &parseOrder>},
    {kTextChannel, kWholeChannel, decoded<Text, onText>},
    {kLobbyChannel, CreateRoom::kType, decoded<CreateRoom, onCreateRoom>},
    {kLobbyChannel, JoinRoom::kType, decoded<JoinRoom, onJoinRoom>},
    {kLobbyChannel, LeaveRoom::kType, decoded<LeaveRoom, onLeaveRoom>},
    {kLobbyChannel, PlayerSetup::kType, decoded<PlayerSetup, onPlayerSetup>},
    {kLobbyChannel, SlotState::kType, decoded<SlotState, onSlotState>},
    {kLobbyChannel, SetHost::kType, decoded<SetHost, onSetHost>},
    {kLobbyChannel, Kick::kType, decoded<Kick, onKick>},
    {kLobbyChannel, RoomListRequest::kType, decoded<RoomListRequest, onRoomListRequest>},
    {kLobbyChannel, GameSettings::kType, decoded<GameSettings, onGameSettings>},
    {kLobbyChannel, StartGame::kType, decoded<StartGame, onStartGame>},
    {kMatchControlChannel, LeaveMatch::kType, decoded<LeaveMatch, onLeaveMatch>},
    {kMatchControlChannel, DelayHold::kType, seated<DelayHold, onDelayHold>},
    {kMatchControlChannel, DelayRequest::kType, seated<DelayRequest, onDelayRequest>},
    {kMatchControlChannel, ResyncReport::kType, seated<ResyncReport, onResyncReport>},
    {kReportsChannel, FeedbackReport::kType, decoded<FeedbackReport, onFeedbackReport>},
    {kReportsChannel, DeterminismTestReport::kType, decoded<DeterminismTestReport, onDeterminismTestReport>},
    {kEventTrackingChannel, TrackEvent::kType, decoded<TrackEvent, onTrackEvent>},
    {kFileUpdateChannel, ManifestRequest::kType, decoded<ManifestRequest, onManifestRequest>},
    {kFileUpdateChannel, FileRequest::kType, decoded<FileRequest, onFileRequest>},
    {kFileUpdateChannel, FileData::kType, onFileData},
};

// How each channel names a message type it does not know.
constexpr const char* kUnknownType[kChannelCount] = {
    "|||| Unknown lobby message ",    nullptr, "|||| Unknown ingame message ",
    nullptr,                          "|||| Unknown feedback message ", "|||| Unknown event tracking type ",
    "|||| Unknown file update message ",
};

const Route* findRoute(std::uint8_t channel, std::uint32_t type) {
    for (const Route& r : kRoutes)
        if (r.channel == channel && r.type == type) return &r;
    return nullptr;
}

}  // namespace

void dispatchPacket(Server& server, ENetPeer* peer, std::uint8_t channel, ByteView packet, ENetPacket** received) {
    // Every registered peer has a budget, so one look-up tells both.
    const auto budget = server.budgets.find(peer);
    if (budget == server.budgets.end()) {
        logError("|||| Packet from unknown peer " + peerAddressText(peer) + "! Ignoring!");
        return;
    }
    const Incoming in{server, peer, channel, packet, budget->second, steadyMicros(), received};
    // Charged before anything is decoded, so a flood costs the least.
    std::string line;
    const Verdict verdict = charge(in.budget, server.limits, groupOfChannel(channel), packet.size(), in.now, line);
    if (!line.empty()) logError("|||| Peer " + peerAddressText(peer) + " " + line);
    if (verdict == Verdict::disconnect) {
        logError("|||| Peer " + peerAddressText(peer) + " stayed over budget for more than " +
                 std::to_string(server.limits.overbudgetDisconnectSeconds) + " s. Disconnecting it");
        return cutOff(server, peer);
    }
    if (verdict == Verdict::drop) return;
    if (channel >= kChannelCount) {
        metrics().unknownDropped.fetch_add(1, std::memory_order_relaxed);
        if (mayLog(in)) logError("|||| Channel " + std::to_string(channel) + ". Nothing to do with it");
        return;
    }
    if (const Route* whole = findRoute(channel, kWholeChannel)) return whole->handle(in);
    std::uint32_t type = 0;
    if (!readMessageType(packet, type)) return malformed(in, "packet");
    if (const Route* route = findRoute(channel, type)) return route->handle(in);
    metrics().unknownDropped.fetch_add(1, std::memory_order_relaxed);
    if (mayLog(in)) logError(kUnknownType[channel] + std::to_string(type) + ". Nothing to do with it");
}
