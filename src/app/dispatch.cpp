#include "app/dispatch.h"

#include <algorithm>
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
    AddressBudget* address;
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

// A request refused by a limit: one line a minute per peer at most.
void refused(const Incoming& in, LimitFired limit, const std::string& what) {
    countLimit(limit);
    if (mayLogRefusal(in.budget, in.now)) logError("|||| Peer " + peerAddressText(in.peer) + ": " + what);
}

void malformed(const Incoming& in, std::string_view what) {
    if (mayLog(in)) return logMalformed(what, in.channel, in.packet.size());
    metrics().malformedDropped.fetch_add(1, std::memory_order_relaxed);
}

using Handler = void (*)(const Incoming&);

bool hasFeature(const Incoming& in, std::uint32_t feature) { return hasFeature(in.peer, feature); }

// How each channel names a message type it does not know.
constexpr const char* kUnknownType[kChannelCount] = {
    "|||| Unknown lobby message ",    nullptr, "|||| Unknown ingame message ",
    nullptr,                          "|||| Unknown feedback message ", "|||| Unknown event tracking type ",
    "|||| Unknown file update message ",
};

void unknown(const Incoming& in, std::uint32_t type) {
    metrics().unknownDropped.fetch_add(1, std::memory_order_relaxed);
    if (mayLog(in)) logError(kUnknownType[in.channel] + std::to_string(type) + ". Nothing to do with it");
}

// Decodes the packet as M and hands the record on; a packet that does not
// decode is dropped with the one "Malformed" line.
template <typename M, void (*Handle)(const Incoming&, M&), std::optional<M> (*Decode)(ByteView) = &decode<M>>
void decoded(const Incoming& in) {
    std::optional<M> m = Decode(in.packet);
    if (!m) return malformed(in, M::kName);
    Handle(in, *m);
}

// For the messages of a feature: from a peer that was not granted it they
// are unknown, exactly as they were before the feature existed.
template <typename M, void (*Handle)(const Incoming&, M&), std::uint32_t Feature>
void granted(const Incoming& in) {
    if (!hasFeature(in, Feature)) return unknown(in, M::kType);
    decoded<M, Handle>(in);
}

// For messages that only a player in a room can send: from anyone else they
// change nothing, and are dropped without being decoded or logged.
template <typename M, void (*Handle)(const Incoming&, const Place&, M&),
          std::optional<M> (*Decode)(ByteView) = &decode<M>>
void fromPlayer(const Incoming& in) {
    const Place* place = placeOf(in.server.rooms, in.peer);
    if (place == nullptr) return dropSpectatorOrder(in.server.rooms, in.peer);
    std::optional<M> m = Decode(in.packet);
    if (!m) return malformed(in, M::kName);
    Handle(in, *place, *m);
}

std::uint32_t now32() { return static_cast<std::uint32_t>(unixNow()); }

// ---- Lobby ----
// The refusals of a room, on the text channel: a client that knows nothing
// of them shows them as a line of chat, and its player learns why.
constexpr char kTooManyRooms[] = "Room not created: the server holds as many rooms as it can. Try again later.";
constexpr char kRoomsTooFast[] =
    "Room not created: too many rooms were created from your connection in the last minute. Try again in a minute.";

// Whether the peer may create a room now; a refusal is answered and logged.
bool mayCreateRoom(const Incoming& in) {
    Server& s = in.server;
    // From inside a room the request changes nothing, so it costs nothing.
    if (roomOf(s.rooms, in.peer) != nullptr) return false;
    if (refusedByDrain(s, in.peer)) return false;
    if (s.limits.maxRooms != 0 && s.rooms.byId.size() >= s.limits.maxRooms) {
        sendBytes(in.peer, kTextChannel, encode(Text{kTooManyRooms}));
        refused(in, LimitFired::maxRooms, "room not created: max_rooms reached");
        return false;
    }
    if (!chargeRoomCreation(in.budget, in.address, s.limits, in.now)) {
        sendBytes(in.peer, kTextChannel, encode(Text{kRoomsTooFast}));
        refused(in, LimitFired::roomsPerMinute, "room not created: over rooms_per_peer_per_minute or "
                                                "rooms_per_address_per_minute");
        return false;
    }
    return true;
}

void onCreateRoom(const Incoming& in, CreateRoom& m) {
    if (mayCreateRoom(in)) createRoom(in.server.rooms, in.peer, m);
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
    Server& s = in.server;
    if (!mayReply(in.budget, in.address, s.limits, in.now))
        return refused(in, LimitFired::replyBytes, "room list not sent: over reply_bytes_per_second");
    const std::size_t sent = sendRoomList(s.rooms, serverStatus(s.rooms, s.serverDescription, s.peers.size()),
                                          in.peer, m.roomId, hasFeature(in, kFeaturePrivateRooms));
    chargeReply(in.budget, in.address, s.limits, sent);
}
void onGameSettings(const Incoming& in, GameSettings& m) { updateGameSettings(in.server.rooms, in.peer, std::move(m)); }
void onStartGame(const Incoming& in, StartGame&) { requestStart(in.server.rooms, in.peer); }

// ---- Extensions ----
// The handshake grants what was asked for and is switched on by its option;
// asking again replaces the grant.
void onExtensionsHello(const Incoming& in, ExtensionsHello& m) {
    auto* info = static_cast<PeerInfo*>(in.peer->data);
    info->extensionsVersion = std::min(m.version, kExtensionsVersion);
    info->features = 0;
    ExtensionsGranted granted;
    granted.version = kExtensionsVersion;
    for (const std::string& name : m.features)
        for (const FeatureName& f : kFeatureNames)
            if (name == f.name && (in.server.features & f.bit) != 0 && (info->features & f.bit) == 0) {
                info->features |= f.bit;
                granted.features.push_back(name);
            }
    sendBytes(in.peer, kLobbyChannel, encode(granted));
}

// ---- Rejoin and spectators ----
// A drain lets running matches end: their players may come back, and be
// watched, until they do.
void onRejoin(const Incoming& in, Rejoin& m) { rejoin(in.server.rooms, in.peer, m, in.now); }
void onCaughtUp(const Incoming& in, CaughtUp&) { caughtUp(in.server.rooms, in.peer); }
void onStateSnapshot(const Incoming& in, StateSnapshot& m) { receiveSnapshot(in.server.rooms, in.peer, m); }
void onSpectate(const Incoming& in, Spectate& m) { spectate(in.server.rooms, in.peer, m, in.now); }

// ---- Private rooms ----
void onCreatePrivateRoom(const Incoming& in, CreatePrivateRoom& m) {
    if (mayCreateRoom(in)) createPrivateRoom(in.server.rooms, in.peer, m);
}
void onJoinPrivateRoom(const Incoming& in, JoinPrivateRoom& m) {
    if (!refusedByDrain(in.server, in.peer)) joinPrivateRoom(in.server.rooms, in.peer, m.roomId, m.password);
}
void onSetRoomPassword(const Incoming& in, SetRoomPassword& m) { setRoomPassword(in.server.rooms, in.peer, m); }
void onKickAndBan(const Incoming& in, KickAndBan& m) { kickAndBan(in.server.rooms, in.peer, m.slot); }

// ---- Text ----
// A line to a room goes to its few players. A line to the lobby goes to
// everyone in no room, so what it costs grows with the lobby: the lobby's
// lines share one budget for the whole server, counted in the bytes sent
// out, and a recipient that has fallen behind loses lines rather than its
// connection.
void onText(const Incoming& in, Text& m) {
    Server& s = in.server;
    std::vector<ENetPeer*> targets = textRecipients(s.rooms, s.peers, in.peer);
    const Bytes bytes = encode(Text{m.text});
    if (roomOf(s.rooms, in.peer) == nullptr) {
        const Rate& rate = s.limits.lobbyChatBytes;
        if (!take(s.lobbyChat, static_cast<double>(rate.perSecond), static_cast<double>(rate.burst),
                  static_cast<double>(bytes.size() * targets.size()), in.now))
            return refused(in, LimitFired::lobbyChat, "lobby chat line dropped: over lobby_chat_bytes_per_second");
        if (const std::uint64_t behind = s.limits.chatDropQueuedBytes; behind != 0)
            std::erase_if(targets, [behind](ENetPeer* peer) {
                if (!holdsMoreThan(peer, behind)) return false;
                metrics().chatLinesDropped.fetch_add(1, std::memory_order_relaxed);
                return true;
            });
    }
    sendBytesToMany(targets.data(), targets.size(), kTextChannel, bytes);
}

// ---- Match control and orders ----
void onLeaveMatch(const Incoming& in, LeaveMatch&) { leaveRoom(in.server.rooms, in.peer, false); }
void onDelayHold(const Incoming&, const Place& place, DelayHold&) { holdDelay(place.room->match); }
void onDelayRequest(const Incoming&, const Place& place, DelayRequest&) { requestLongerDelay(place.room->match); }
void onResyncReport(const Incoming& in, const Place& place, ResyncReport& m) {
    handleResyncReport(in.server.storage, place.room->match, matchView(*place.room), place.slot, m, in.packet, keep(in),
                       in.server.limits.resyncBytesPerRoom, refOf(in.peer).connection);
}
void onOrder(const Incoming& in, const Place& place, Order& m) {
    handleOrder(place.room->match, matchView(*place.room), place.slot, m, in.packet, in.received);
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
// Past the peer's share of the storage worker a report has already been
// answered as unwritten; the line comes like a quota's.
void overWorkerShare(const Incoming& in) {
    countLimit(LimitFired::workerShare);
    if (std::string line = reportRefusalLine(in.budget, "worker_jobs_per_peer or worker_bytes_per_peer", in.now);
        !line.empty())
        logError("|||| Report from " + peerAddressText(in.peer) + " " + line);
}
void onFeedbackReport(const Incoming& in, FeedbackReport&) {
    if (withinReportQuota(in, true) && !fileFeedbackReport(in.server.storage, in.peer, keep(in))) overWorkerShare(in);
}
void onDeterminismTestReport(const Incoming& in, DeterminismTestReport&) {
    if (withinReportQuota(in, false) && !fileDeterminismTestReport(in.server.storage, in.peer, keep(in)))
        overWorkerShare(in);
}

// ---- Event tracking and file update ----
// Every event a client causes, its own or the server's record of its
// request, passes the same bound on the events held.
bool admitClientEvent(Server& s) {
    auto today = [] { return periodicDumpName(localNow()); };
    return admitEvent(s.eventSpill, s.events, s.storage, today, unixNow());
}
void onTrackEvent(const Incoming& in, TrackEvent& m) {
    Server& s = in.server;
    if (admitClientEvent(s))
        recordEvent(s.events, m.eventType, std::move(m.playerName), in.peer->address.host, std::move(m.dataset),
                    m.datasetChecksum, std::move(m.additionalEventData), now32());
    if (m.eventType != kUpdateCheckEvent) return;
    // A few bytes that ask for the whole announcements: their size is charged
    // to the asker's replies.
    if (!mayReply(in.budget, in.address, s.limits, in.now))
        return refused(in, LimitFired::replyBytes, "update check not answered: over reply_bytes_per_second");
    if (!sendManifestVersion(s.storage, s.announcements, in.peer))
        return refused(in, LimitFired::workerShare, "update check not answered: over worker_jobs_per_peer");
    chargeReply(in.budget, in.address, s.limits, kManifestNoticeBytes + s.announcements.message.bytes().size());
}
void requestFile(const Incoming& in, std::string name) {
    if (!sendFile(in.server.storage, in.server.downloads, in.peer, std::move(name)))
        refused(in, LimitFired::downloadRequests, "file request dropped: over download_requests_per_peer");
}
void onManifestRequest(const Incoming& in, ManifestRequest&) {
    if (admitClientEvent(in.server)) recordEvent(in.server.events, 3, "__SERVER__", 0, "", 0, "", now32());
    requestFile(in, kManifestName);
}
void onFileRequest(const Incoming& in, FileRequest& m) { requestFile(in, std::move(m.name)); }
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
    {kOrderChannel, kWholeChannel, fromPlayer<Order, onOrder, &parseOrder>},
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
    {kLobbyChannel, ExtensionsHello::kType, decoded<ExtensionsHello, onExtensionsHello>},
    {kLobbyChannel, CreatePrivateRoom::kType, granted<CreatePrivateRoom, onCreatePrivateRoom, kFeaturePrivateRooms>},
    {kLobbyChannel, JoinPrivateRoom::kType, granted<JoinPrivateRoom, onJoinPrivateRoom, kFeaturePrivateRooms>},
    {kLobbyChannel, SetRoomPassword::kType, granted<SetRoomPassword, onSetRoomPassword, kFeaturePrivateRooms>},
    {kLobbyChannel, KickAndBan::kType, granted<KickAndBan, onKickAndBan, kFeaturePrivateRooms>},
    {kLobbyChannel, Rejoin::kType, granted<Rejoin, onRejoin, kFeatureRejoin>},
    {kLobbyChannel, CaughtUp::kType, granted<CaughtUp, onCaughtUp, kFeatureRejoin>},
    {kLobbyChannel, StateSnapshot::kType, granted<StateSnapshot, onStateSnapshot, kFeatureSnapshots>},
    {kLobbyChannel, Spectate::kType, granted<Spectate, onSpectate, kFeatureSpectate>},
    {kMatchControlChannel, LeaveMatch::kType, decoded<LeaveMatch, onLeaveMatch>},
    {kMatchControlChannel, DelayHold::kType, fromPlayer<DelayHold, onDelayHold>},
    {kMatchControlChannel, DelayRequest::kType, fromPlayer<DelayRequest, onDelayRequest>},
    {kMatchControlChannel, ResyncReport::kType, fromPlayer<ResyncReport, onResyncReport>},
    {kReportsChannel, FeedbackReport::kType, decoded<FeedbackReport, onFeedbackReport>},
    {kReportsChannel, DeterminismTestReport::kType, decoded<DeterminismTestReport, onDeterminismTestReport>},
    {kEventTrackingChannel, TrackEvent::kType, decoded<TrackEvent, onTrackEvent>},
    {kFileUpdateChannel, ManifestRequest::kType, decoded<ManifestRequest, onManifestRequest>},
    {kFileUpdateChannel, FileRequest::kType, decoded<FileRequest, onFileRequest>},
    {kFileUpdateChannel, FileData::kType, onFileData},
};


const Route* findRoute(std::uint8_t channel, std::uint32_t type) {
    for (const Route& r : kRoutes)
        if (r.channel == channel && r.type == type) return &r;
    return nullptr;
}

}  // namespace

void dispatchPacket(Server& server, ENetPeer* peer, std::uint8_t channel, ByteView packet, std::uint64_t now,
                    ENetPacket** received) {
    PeerRecord* record = recordOf(peer);
    if (record == nullptr) {
        logError("|||| Packet from unknown peer " + peerAddressText(peer) + "! Ignoring!");
        return;
    }
    const Incoming in{server, peer, channel, packet, record->budget, record->address, now, received};
    // Charged before anything is decoded, so a flood costs the least.
    std::string line;
    const Verdict verdict =
        charge(in.budget, in.address, server.limits, groupOfChannel(channel), packet.size(), in.now, line);
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
    unknown(in, type);
}
