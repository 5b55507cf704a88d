#pragma once
// Every message of the protocol, one record each, described once by its
// `fields` (see codec.h). Records decoded from a packet either copy what they
// keep or, where marked, view the packet and live no longer than it.
// `kName` is how a dropped undecodable message is named in the log.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "protocol/codec.h"
#include "protocol/wire.h"

inline constexpr std::uint32_t kProtocolVersion = 4;

// The largest packet either way, once ENet has put its fragments together.
// 32 MiB carries the largest report and update file a game sends; ENet
// refuses bigger ones, and no single client can make the server buffer more
// for one packet.
inline constexpr std::size_t kMaxPacketSize = 32u * 1024 * 1024;

enum Channel : std::uint8_t {
    kLobbyChannel = 0,
    kTextChannel = 1,
    kMatchControlChannel = 2,
    kOrderChannel = 3,
    kReportsChannel = 4,
    kEventTrackingChannel = 5,
    kFileUpdateChannel = 6,
};
inline constexpr std::size_t kChannelCount = 7;

// A room has slots 0..7; a message naming another slot is malformed.
inline constexpr std::uint32_t kSlotCount = 8;

// Caps on what a client sends, far above what any real client sends; a
// message over one is malformed. They bound what a room keeps for its
// lifetime (names, setups), what every room list and join repeats to each
// requester, and what a dump or a report file takes per event or report.
// Orders and blobs are not capped here: orders are relayed as they came and
// kept by nobody, and blobs are bounded by the packet size.
inline constexpr std::size_t kMaxNameLength = 1024;         // names, datasets, contact infos
inline constexpr std::size_t kMaxTextLength = 16384;        // chat texts, event data
inline constexpr std::size_t kMaxDescriptionLength = 65536;  // a report's description
inline constexpr std::size_t kMaxFileNameLength = 4096;     // the longest path Linux opens
inline constexpr std::size_t kMaxClientEntries = 64;        // client pairs and strings of a setup

// The header of most messages: the type word (written by describe) and a
// second word that the server writes as 1 and never examines.
#define LOCKSTEP_MESSAGE(TypeWord, Name)            \
    static constexpr std::uint32_t kType = TypeWord; \
    static constexpr const char* kName = Name;       \
    std::uint32_t secondWord = 1

// A message of which only the type word is read.
#define LOCKSTEP_TYPE_ONLY(TypeWord, Name)          \
    static constexpr std::uint32_t kType = TypeWord; \
    static constexpr const char* kName = Name;       \
    template <typename F, typename M>                \
    static void fields(F&, M&) {}

// ---- Lobby (channel 0) ------------------------------------------------------

struct ServerStatus {
    LOCKSTEP_MESSAGE(1, "ServerStatus");
    std::string description;
    std::uint32_t runningRooms = 0;
    std::uint32_t playersInRunningRooms = 0;
    std::uint32_t playersInOtherRooms = 0;
    std::uint32_t playersInNoRoom = 0;
    std::uint32_t protocolVersion = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.description), f.u32(m.runningRooms), f.u32(m.playersInRunningRooms);
        f.u32(m.playersInOtherRooms), f.u32(m.playersInNoRoom), f.u32(m.protocolVersion);
    }
};

struct CreateRoom {
    LOCKSTEP_MESSAGE(2, "CreateRoom");
    std::string name;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.name, kMaxNameLength), f.str(m.dataset, kMaxNameLength);
        f.u32(m.datasetChecksum);
    }
};

struct JoinRoom {
    LOCKSTEP_MESSAGE(3, "JoinRoom");
    std::uint32_t roomId = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId);
    }
};

struct LeaveRoom {
    LOCKSTEP_TYPE_ONLY(4, "LeaveRoom");
};

// A player's setup. The room keeps the exact bytes it came in (`bytes`,
// filled by decode), which are what the server relays.
struct PlayerSetup {
    LOCKSTEP_MESSAGE(5, "PlayerSetup");
    std::uint32_t slot = 0;
    std::uint32_t ready = 0;
    std::uint32_t playerTag = 0;
    std::uint32_t startLocation = 0;
    std::uint32_t clientValue1 = 0;
    std::uint32_t clientValue2 = 0;
    std::uint32_t clientValue3 = 0xFFFFFFFFu;
    std::string playerName;
    std::vector<std::pair<std::uint32_t, std::string>> clientPairs;
    std::vector<std::string> clientStrings;
    Bytes bytes;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot), f.check([&] { return m.slot < kSlotCount; });
        f.u32(m.ready), f.u32(m.playerTag), f.u32(m.startLocation);
        f.u32(m.clientValue1), f.u32(m.clientValue2), f.u32(m.clientValue3), f.str(m.playerName, kMaxNameLength);
        f.list(
            m.clientPairs, 5, [](auto& g, auto& pair) { g.u32(pair.first), g.str(pair.second, kMaxNameLength); },
            kMaxClientEntries);
        f.list(m.clientStrings, 1, [](auto& g, auto& text) { g.str(text, kMaxNameLength); }, kMaxClientEntries);
    }
};

struct JoinAccepted {
    LOCKSTEP_MESSAGE(6, "JoinAccepted");
    std::uint32_t slot = 0;
    std::uint32_t roomId = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot), f.u32(m.roomId);
    }
};

struct SlotState {
    LOCKSTEP_MESSAGE(7, "SlotState");
    std::uint32_t slot = 0;
    std::uint32_t closed = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot), f.check([&] { return m.slot < kSlotCount; }), f.u32(m.closed);
    }
};

// Client to server: hand the host role to a slot.
struct SetHost {
    LOCKSTEP_MESSAGE(8, "SetHost");
    std::uint32_t slot = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot), f.check([&] { return m.slot < kSlotCount; });
    }
};

// Server to client: 1 = you are host, 0 = no longer.
struct HostStatus {
    LOCKSTEP_MESSAGE(8, "HostStatus");
    std::uint32_t isHost = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.isHost);
    }
};

struct Kick {
    LOCKSTEP_MESSAGE(9, "Kick");
    std::uint32_t slot = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot), f.check([&] { return m.slot < kSlotCount; });
    }
};

// Server to client; its one word is always 1.
struct Kicked {
    LOCKSTEP_MESSAGE(9, "Kicked");
    std::uint32_t value = 1;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.value);
    }
};

// The ID of the room whose details are wanted.
struct RoomListRequest {
    LOCKSTEP_MESSAGE(10, "RoomListRequest");
    std::uint32_t roomId = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId);
    }
};

struct RoomListEntry {
    LOCKSTEP_MESSAGE(11, "RoomListEntry");
    std::uint32_t id = 0;
    std::string name;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    std::uint32_t humans = 0;
    std::uint32_t capacity = 0;
    std::uint32_t open = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.id), f.str(m.name), f.str(m.dataset), f.u32(m.datasetChecksum);
        f.u32(m.humans), f.u32(m.capacity), f.u32(m.open);
    }
};

struct RoomPlayerNames {
    LOCKSTEP_MESSAGE(12, "RoomPlayerNames");
    std::vector<std::string> names;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.list(m.names, 1, [](auto& g, auto& name) { g.str(name); });
    }
};

// ---- Extensions (channel 0, a type word the lobby does not otherwise use) ----

// The version of the extensions this server speaks, and the caps on what a
// client may ask for: far more features than exist, each a short name.
inline constexpr std::uint32_t kExtensionsVersion = 1;
inline constexpr std::size_t kMaxFeatures = 32;
inline constexpr std::size_t kMaxFeatureNameLength = 64;

// The capability handshake: the client names the extensions version it
// speaks and the features it wants; the server answers with the same type
// word, its own version and the features it grants (only those switched on).
struct ExtensionsHello {
    LOCKSTEP_MESSAGE(100, "ExtensionsHello");
    std::uint32_t version = kExtensionsVersion;
    std::vector<std::string> features;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.version);
        f.list(m.features, 1, [](auto& g, auto& name) { g.str(name, kMaxFeatureNameLength); }, kMaxFeatures);
    }
};

// The answer has the hello's layout.
struct ExtensionsGranted : ExtensionsHello {
    static constexpr const char* kName = "ExtensionsGranted";
};

// The features a client may ask for, by name, and the bit each has in a
// connection's grant.
enum Feature : std::uint32_t {
    kFeaturePrivateRooms = 1u << 0,
    kFeatureRejoin = 1u << 1,
    kFeatureSpectate = 1u << 2,
    kFeatureSnapshots = 1u << 3,
};
struct FeatureName {
    const char* name;
    std::uint32_t bit;
};
inline constexpr FeatureName kFeatureNames[] = {{"private-rooms", kFeaturePrivateRooms},
                                                {"rejoin", kFeatureRejoin},
                                                {"spectate", kFeatureSpectate},
                                                {"snapshots", kFeatureSnapshots}};

// ---- Private rooms (feature "private-rooms") ---------------------------------

// Room passwords: a phrase a player types, not a file.
inline constexpr std::size_t kMaxPasswordLength = 64;

// CreateRoom with a password (empty: none) and, with hidden 1, left out of
// every room list (a hidden room needs a password).
struct CreatePrivateRoom {
    LOCKSTEP_MESSAGE(101, "CreatePrivateRoom");
    std::string name;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    std::string password;
    std::uint32_t hidden = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.name, kMaxNameLength), f.str(m.dataset, kMaxNameLength);
        f.u32(m.datasetChecksum), f.str(m.password, kMaxPasswordLength), f.u32(m.hidden);
    }
};

struct JoinPrivateRoom {
    LOCKSTEP_MESSAGE(102, "JoinPrivateRoom");
    std::uint32_t roomId = 0;
    std::string password;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.str(m.password, kMaxPasswordLength);
    }
};

// From the host: a new password (empty: none) and whether the room is hidden.
struct SetRoomPassword {
    LOCKSTEP_MESSAGE(103, "SetRoomPassword");
    std::string password;
    std::uint32_t hidden = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.password, kMaxPasswordLength), f.u32(m.hidden);
    }
};

// After the room list's entries, to a client granted private rooms: the IDs
// of the listed rooms that need a password.
struct LockedRooms {
    LOCKSTEP_MESSAGE(104, "LockedRooms");
    std::vector<std::uint32_t> ids;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.list(m.ids, 4, [](auto& g, auto& id) { g.u32(id); });
    }
};

enum class JoinRefusal : std::uint32_t {
    noRoom = 1,
    wrongPassword = 2,
    tooManyAttempts = 3,
    banned = 4,
    full = 5,
    started = 6,
    // Rejoin and Spectate are refused with JoinRefused too.
    badToken = 7,      // no away seat has that token: wrong, spent or expired
    notRunning = 8,    // no running match to watch
    noStream = 9,      // the match's stream is lost (its recording stopped)
    spectatorsFull = 10,
};

// The answer to a JoinPrivateRoom that is not let in; a JoinAccepted and the
// room's state come otherwise, as for JoinRoom.
struct JoinRefused {
    LOCKSTEP_MESSAGE(105, "JoinRefused");
    std::uint32_t roomId = 0;
    std::uint32_t reason = 0;
    std::string text;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.u32(m.reason), f.str(m.text, kMaxTextLength);
    }
};

// From the host: Kick, and the kicked player's address may not join this room
// again while it lives.
struct KickAndBan {
    LOCKSTEP_MESSAGE(106, "KickAndBan");
    std::uint32_t slot = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot);
    }
};

// ---- Rejoin, spectators and snapshots (features "rejoin", "spectate",
// "snapshots") ----------------------------------------------------------------

// A seat's token: 128 bits from the kernel's random source.
inline constexpr std::size_t kRejoinTokenSize = 16;
using RejoinToken = std::array<std::uint8_t, kRejoinTokenSize>;

// To each player of a room where a drop is not a leave, at the start: what
// brings it back to its slot after its connection is lost.
struct RejoinTicket {
    LOCKSTEP_MESSAGE(107, "RejoinTicket");
    std::uint32_t roomId = 0;
    std::uint32_t slot = 0;
    ByteView token;  // kRejoinTokenSize bytes
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.u32(m.slot), f.blob(m.token);
        f.check([&] { return m.token.size() == kRejoinTokenSize; });
    }
};

// From a new connection: the room and the token of the seat to take again.
struct Rejoin {
    LOCKSTEP_MESSAGE(108, "Rejoin");
    std::uint32_t roomId = 0;
    ByteView token;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.blob(m.token);
        f.check([&] { return m.token.size() == kRejoinTokenSize; });
    }
};

// On the match control channel, to the players of the room: the player of a
// slot lost its connection and may come back, or came back.
struct PlayerAway {
    LOCKSTEP_MESSAGE(109, "PlayerAway");
    std::uint32_t slot = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot);
    }
};
struct PlayerBack {
    LOCKSTEP_MESSAGE(110, "PlayerBack");
    std::uint32_t slot = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot);
    }
};

// The answer to a Rejoin that is let in: the slot, and a new token (the one
// presented is spent). A StateSnapshot may follow, then the match's stream.
struct RejoinAccepted {
    LOCKSTEP_MESSAGE(111, "RejoinAccepted");
    std::uint32_t roomId = 0;
    std::uint32_t slot = 0;
    ByteView token;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.u32(m.slot), f.blob(m.token);
        f.check([&] { return m.token.size() == kRejoinTokenSize; });
    }
};

// From a client granted spectating: watch the running match of a room (the
// password of a room that has one, else empty).
struct Spectate {
    LOCKSTEP_MESSAGE(112, "Spectate");
    std::uint32_t roomId = 0;
    std::string password;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.str(m.password, kMaxPasswordLength);
    }
};

// The answer to a Spectate that is let in: how many steps behind the match
// the spectator is sent it. The match's stream follows.
struct SpectateAccepted {
    LOCKSTEP_MESSAGE(113, "SpectateAccepted");
    std::uint32_t roomId = 0;
    std::uint32_t delaySteps = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.u32(m.delaySteps);
    }
};

// A run of the match's stream: whole records, framed as in a recording file.
// The first run starts with the recording's header record.
struct CatchUp {
    LOCKSTEP_MESSAGE(114, "CatchUp");
    ByteView records;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.blob(m.records);
    }
};

// The stream has been sent up to the live match: what comes on the order and
// match control channels from here on is live.
struct CatchUpDone {
    LOCKSTEP_MESSAGE(115, "CatchUpDone");
    std::uint32_t roomId = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId);
    }
};

// From a rejoined player that has run through the stream: from now on steps
// wait for it again.
struct CaughtUp {
    LOCKSTEP_TYPE_ONLY(116, "CaughtUp");
};

// To a player granted snapshots whose game is in sync: a snapshot of its
// game's state is wanted, for the player of slot.
struct StateRequest {
    LOCKSTEP_MESSAGE(117, "StateRequest");
    std::uint32_t requestId = 0;
    std::uint32_t slot = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.requestId), f.u32(m.slot);
    }
};

// A snapshot of the game's state taken after step: from a player answering a
// StateRequest, and passed on to the rejoining player (request ID 0).
struct StateSnapshot {
    LOCKSTEP_MESSAGE(118, "StateSnapshot");
    std::uint32_t requestId = 0;
    std::uint32_t step = 0;
    ByteView state;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.requestId), f.u32(m.step), f.blob(m.state);
    }
};

// To a spectator: the match it watched is over, or the spectator was let go;
// nothing more of it comes.
struct WatchEnded {
    LOCKSTEP_MESSAGE(119, "WatchEnded");
    std::uint32_t roomId = 0;
    std::uint32_t reason = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.roomId), f.u32(m.reason);
    }
};

// The host's settings; kept as the exact bytes like PlayerSetup.
struct GameSettings {
    LOCKSTEP_MESSAGE(13, "GameSettings");
    std::uint32_t gameMode = 0;
    std::string mapName;
    std::uint32_t startLocations = 8;
    std::uint32_t settingsValue1 = 0;
    std::uint32_t settingsValue2 = 0;
    Bytes bytes;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.gameMode), f.str(m.mapName, kMaxNameLength), f.u32(m.startLocations);
        f.u32(m.settingsValue1), f.u32(m.settingsValue2);
    }
};

// Both ways: header only.
struct StartGame {
    LOCKSTEP_MESSAGE(14, "StartGame");
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord);
    }
};

// ---- Text (channel 1): the text and one NUL, no header -------------------------

struct Text {
    static constexpr const char* kName = "text";
    std::string text;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.str(m.text, kMaxTextLength);
    }
};

// ---- Match control (channel 2) ------------------------------------------------

struct DelayIncrease {
    LOCKSTEP_MESSAGE(1, "DelayIncrease");
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord);
    }
};

struct DelayDecrease {
    LOCKSTEP_MESSAGE(2, "DelayDecrease");
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord);
    }
};

struct LeaveMatch {
    LOCKSTEP_TYPE_ONLY(3, "LeaveMatch");
};

struct PlayerLeftMatch {
    LOCKSTEP_MESSAGE(3, "PlayerLeftMatch");
    std::uint32_t slot = 0;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.u32(m.slot);
    }
};

struct DelayHold {
    LOCKSTEP_TYPE_ONLY(4, "DelayHold");
};

struct DelayRequest {
    LOCKSTEP_TYPE_ONLY(5, "DelayRequest");
};

// A client's world state and log after a desync. Views the packet.
struct ResyncReport {
    LOCKSTEP_MESSAGE(8, "resync report");
    ByteView world;
    ByteView log;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.blob(m.world), f.blob(m.log);
    }
};

// ---- Orders (channel 3) ------------------------------------------------------

inline constexpr std::uint32_t kStepDoneMark = 0xFFFFFFFFu;
inline constexpr std::uint32_t kChecksumOrderType = 901;
inline constexpr std::uint32_t kResyncOrderType = 902;
// Type, step and argument: the short form of a step-done order.
inline constexpr std::size_t kShortOrderLength = 12;

// The list [kStepDoneMark] as wire words.
inline constexpr std::array<std::uint8_t, 4> kStepDoneWords{0xFF, 0xFF, 0xFF, 0xFF};

// The one message of the order channel. The server reads only the step, the
// argument, the step-done mark and the order type, and passes the bytes on as
// they came; it builds orders of its own for step completion and resync. The
// lists are kept as their wire words and, with the text, view the packet, so
// reading an order copies nothing.
struct Order {
    static constexpr const char* kName = "order";
    std::uint32_t messageType = 1;  // not examined on receipt
    std::uint32_t step = 0;
    std::uint32_t argument = 0;
    ByteView firstList{kStepDoneWords};
    std::uint32_t orderType = 0;
    ByteView secondList;
    std::array<std::uint32_t, 4> params{0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0};
    std::uint32_t extraParam = 0;
    std::uint8_t flag = 0;
    std::string_view text;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.messageType), f.u32(m.step), f.u32(m.argument), f.words(m.firstList), f.u32(m.orderType);
        f.words(m.secondList);
        for (auto& p : m.params) f.u32(p);
        f.u32(m.extraParam), f.u8(m.flag), f.str(m.text);
    }
};

// A first list that starts with kStepDoneMark, in either form.
bool isStepDoneOrder(const Order& order);
// A packet of exactly 12 bytes is the short form (a step-done order whatever
// its third word, the other fields at their defaults); a longer one is read
// in full. nullopt when shorter, or when a count or the text runs past it.
std::optional<Order> parseOrder(ByteView bytes);
// A step-done order becomes the 12-byte short form; anything else the full
// form with the message type written as 1.
Bytes serializeOrder(const Order& order);

// ---- Reports (channel 4) -----------------------------------------------------

// A snapshot that starts with "COMBOSAVE": a header text up to its NUL, then
// four length-prefixed pieces. The views point into the snapshot.
struct SnapshotBundle {
    ByteView save;
    ByteView world;
    ByteView log;
    ByteView scriptLog;
};
bool isSnapshotBundle(ByteView snapshot);
// nullopt when the header has no NUL or a piece runs past the snapshot.
std::optional<SnapshotBundle> parseSnapshotBundle(ByteView snapshot);
// A bundle with the plain "COMBOSAVE" header (clients and tests).
Bytes encodeSnapshotBundle(ByteView save, ByteView world, ByteView log, ByteView scriptLog);

// The header word and the four texts both report kinds start with.
template <typename F, typename M>
void reportTexts(F& f, M& m) {
    f.u32(m.secondWord), f.str(m.playerName, kMaxNameLength), f.str(m.contactInfo, kMaxNameLength);
    f.str(m.dataset, kMaxNameLength), f.str(m.description, kMaxDescriptionLength);
}

// Views the packet. A snapshot that is a bundle must hold together: one that
// does not makes the report malformed, so no file of it is ever written.
struct FeedbackReport {
    LOCKSTEP_MESSAGE(1, "feedback report");
    std::string playerName;
    std::string contactInfo;
    std::string dataset;
    std::string description;
    ByteView snapshot;    // empty: none
    ByteView screenshot;  // empty: none
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        reportTexts(f, m), f.blob(m.snapshot), f.blob(m.screenshot);
        f.check([&] { return !isSnapshotBundle(m.snapshot) || parseSnapshotBundle(m.snapshot).has_value(); });
    }
};

struct ReportReply {
    LOCKSTEP_MESSAGE(2, "ReportReply");
    std::string text;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.text);
    }
};

// Views the packet.
struct DeterminismTestReport {
    LOCKSTEP_MESSAGE(3, "determinism test report");
    std::string playerName;
    std::string contactInfo;
    std::string dataset;
    std::string description;
    ByteView snapshot;  // empty: none
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        reportTexts(f, m), f.blob(m.snapshot);
    }
};

// ---- Event tracking (channel 5) ------------------------------------------------

// Client to server; the server's manifest version notice has the same layout
// (empty name and dataset, checksum 0, event type 1, the version as data).
struct TrackEvent {
    LOCKSTEP_MESSAGE(1, "TrackEvent");
    std::string playerName;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    std::uint32_t eventType = 0;
    std::string additionalEventData;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.playerName, kMaxNameLength), f.str(m.dataset, kMaxNameLength);
        f.u32(m.datasetChecksum), f.u32(m.eventType), f.str(m.additionalEventData, kMaxTextLength);
    }
};

// The event type after which a client gets the manifest version and the
// announcements.
inline constexpr std::uint32_t kUpdateCheckEvent = 101;

struct Announcements {
    static constexpr std::uint32_t kType = 2;
    static constexpr const char* kName = "Announcements";
    std::uint32_t secondWord = 0;
    std::vector<std::string> texts;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.list(m.texts, 1, [](auto& g, auto& text) { g.str(text); });
    }
};

// ---- File update (channel 6) -------------------------------------------------

struct ManifestRequest {
    LOCKSTEP_TYPE_ONLY(1, "ManifestRequest");
};

struct FileRequest {
    LOCKSTEP_MESSAGE(2, "file request");
    std::string name;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.name, kMaxFileNameLength);
    }
};

// One whole file; the length field is the content's size.
struct FileData {
    LOCKSTEP_MESSAGE(3, "FileData");
    std::string name;
    Bytes content;
    template <typename F, typename M>
    static void fields(F& f, M& m) {
        f.u32(m.secondWord), f.str(m.name), f.blob(m.content);
    }
};

#undef LOCKSTEP_MESSAGE
#undef LOCKSTEP_TYPE_ONLY
