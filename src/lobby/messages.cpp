#include "lobby/messages.h"

namespace {

// Reads the type and the second header word; false when the type is not the
// expected one (the reader itself records a short packet).
bool readHeader(Reader& r, std::uint32_t type, std::uint32_t& secondWord) {
    std::uint32_t got = r.u32();
    secondWord = r.u32();
    return r.ok() && got == type;
}

template <typename T>
std::optional<T> finish(const Reader& r, T value) {
    if (!r.ok()) return std::nullopt;
    return value;
}

}  // namespace

// ---- PlayerSetup ----------------------------------------------------------

Bytes encodePlayerSetup(const PlayerSetup& s) {
    std::size_t length = 45 + s.playerName.size();
    for (const auto& pair : s.clientPairs) length += 5 + pair.second.size();
    for (const auto& text : s.clientStrings) length += 1 + text.size();
    Writer w(length);
    w.u32(lobby_type::kPlayerSetup).u32(s.secondWord).u32(s.slot).u32(s.ready).u32(s.playerTag);
    w.u32(s.startLocation).u32(s.clientValue1).u32(s.clientValue2).u32(s.clientValue3);
    w.str(s.playerName);
    w.u32(static_cast<std::uint32_t>(s.clientPairs.size()));
    for (const auto& [value, text] : s.clientPairs) w.u32(value).str(text);
    w.u32(static_cast<std::uint32_t>(s.clientStrings.size()));
    for (const auto& text : s.clientStrings) w.str(text);
    return w.take();
}

std::optional<PlayerSetup> decodePlayerSetup(ByteView bytes) {
    Reader r(bytes);
    PlayerSetup s;
    if (!readHeader(r, lobby_type::kPlayerSetup, s.secondWord)) return std::nullopt;
    s.slot = r.u32();
    s.ready = r.u32();
    s.playerTag = r.u32();
    s.startLocation = r.u32();
    s.clientValue1 = r.u32();
    s.clientValue2 = r.u32();
    s.clientValue3 = r.u32();
    s.playerName = r.str();
    std::uint32_t pairs = r.count(5);  // a word and at least a NUL each
    for (std::uint32_t i = 0; i < pairs && r.ok(); ++i) {
        std::uint32_t value = r.u32();
        std::string text = r.str();
        s.clientPairs.emplace_back(value, std::move(text));
    }
    std::uint32_t strings = r.count(1);
    for (std::uint32_t i = 0; i < strings && r.ok(); ++i) s.clientStrings.push_back(r.str());
    if (!r.ok()) return std::nullopt;
    s.bytes.assign(bytes.begin(), bytes.end());
    return s;
}

void rebuildPlayerSetup(PlayerSetup& setup) {
    setup.secondWord = 1;
    setup.bytes = encodePlayerSetup(setup);
}

std::unique_ptr<PlayerSetup> freshPlayerSetup(std::uint32_t slot) {
    auto setup = std::make_unique<PlayerSetup>();
    setup->slot = slot;
    rebuildPlayerSetup(*setup);
    return setup;
}

// ---- GameSettings ---------------------------------------------------------

Bytes encodeGameSettings(const GameSettings& s) {
    Writer w(25 + s.mapName.size());
    w.u32(lobby_type::kGameSettings).u32(s.secondWord).u32(s.gameMode).str(s.mapName);
    w.u32(s.startLocations).u32(s.settingsValue1).u32(s.settingsValue2);
    return w.take();
}

std::optional<GameSettings> decodeGameSettings(ByteView bytes) {
    Reader r(bytes);
    GameSettings s;
    if (!readHeader(r, lobby_type::kGameSettings, s.secondWord)) return std::nullopt;
    s.gameMode = r.u32();
    s.mapName = r.str();
    s.startLocations = r.u32();
    s.settingsValue1 = r.u32();
    s.settingsValue2 = r.u32();
    if (!r.ok()) return std::nullopt;
    s.bytes.assign(bytes.begin(), bytes.end());
    return s;
}

GameSettings defaultGameSettings() {
    GameSettings s;
    s.secondWord = 1;
    s.gameMode = 0;
    s.startLocations = 8;
    s.bytes = encodeGameSettings(s);
    return s;
}

// ---- Fixed-layout messages ------------------------------------------------

Bytes CreateRoom::encode() const {
    return Writer(21 + name.size() + dataset.size())
        .u32(kType)
        .u32(secondWord)
        .str(name)
        .str(dataset)
        .u32(datasetChecksum)
        .take();
}

std::optional<CreateRoom> CreateRoom::decode(ByteView bytes) {
    Reader r(bytes);
    CreateRoom m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.name = r.str();
    m.dataset = r.str();
    m.datasetChecksum = r.u32();
    return finish(r, std::move(m));
}

Bytes JoinRoom::encode() const { return Writer(12).u32(kType).u32(secondWord).u32(roomId).take(); }

std::optional<JoinRoom> JoinRoom::decode(ByteView bytes) {
    Reader r(bytes);
    JoinRoom m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.roomId = r.u32();
    return finish(r, m);
}

Bytes JoinAccepted::encode() const {
    return Writer(16).u32(kType).u32(secondWord).u32(slot).u32(roomId).take();
}

std::optional<JoinAccepted> JoinAccepted::decode(ByteView bytes) {
    Reader r(bytes);
    JoinAccepted m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.slot = r.u32();
    m.roomId = r.u32();
    return finish(r, m);
}

Bytes SlotState::encode() const { return Writer(16).u32(kType).u32(secondWord).u32(slot).u32(closed).take(); }

std::optional<SlotState> SlotState::decode(ByteView bytes) {
    Reader r(bytes);
    SlotState m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.slot = r.u32();
    m.closed = r.u32();
    return finish(r, m);
}

Bytes SetHost::encode() const { return Writer(12).u32(kType).u32(secondWord).u32(slot).take(); }

std::optional<SetHost> SetHost::decode(ByteView bytes) {
    Reader r(bytes);
    SetHost m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.slot = r.u32();
    return finish(r, m);
}

Bytes HostStatus::encode() const { return Writer(12).u32(kType).u32(secondWord).u32(isHost).take(); }

std::optional<HostStatus> HostStatus::decode(ByteView bytes) {
    Reader r(bytes);
    HostStatus m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.isHost = r.u32();
    return finish(r, m);
}

Bytes Kick::encode() const { return Writer(12).u32(kType).u32(secondWord).u32(slot).take(); }

std::optional<Kick> Kick::decode(ByteView bytes) {
    Reader r(bytes);
    Kick m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.slot = r.u32();
    return finish(r, m);
}

Bytes Kicked::encode() const { return Writer(12).u32(kType).u32(secondWord).u32(value).take(); }

std::optional<Kicked> Kicked::decode(ByteView bytes) {
    Reader r(bytes);
    Kicked m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.value = r.u32();
    return finish(r, m);
}

Bytes RoomListRequest::encode() const { return Writer(12).u32(kType).u32(secondWord).u32(roomId).take(); }

std::optional<RoomListRequest> RoomListRequest::decode(ByteView bytes) {
    Reader r(bytes);
    RoomListRequest m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.roomId = r.u32();
    return finish(r, m);
}

Bytes RoomListEntry::encode() const {
    Writer w(30 + name.size() + dataset.size());
    w.u32(kType).u32(secondWord).u32(id).str(name).str(dataset);
    w.u32(datasetChecksum).u32(humans).u32(capacity).u32(open);
    return w.take();
}

std::optional<RoomListEntry> RoomListEntry::decode(ByteView bytes) {
    Reader r(bytes);
    RoomListEntry m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.id = r.u32();
    m.name = r.str();
    m.dataset = r.str();
    m.datasetChecksum = r.u32();
    m.humans = r.u32();
    m.capacity = r.u32();
    m.open = r.u32();
    return finish(r, std::move(m));
}

Bytes RoomPlayerNames::encode() const {
    std::size_t length = 12;
    for (const auto& n : names) length += n.size() + 1;
    Writer w(length);
    w.u32(kType).u32(secondWord).u32(static_cast<std::uint32_t>(names.size()));
    for (const auto& n : names) w.str(n);
    return w.take();
}

std::optional<RoomPlayerNames> RoomPlayerNames::decode(ByteView bytes) {
    Reader r(bytes);
    RoomPlayerNames m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    std::uint32_t count = r.count(1);
    for (std::uint32_t i = 0; i < count && r.ok(); ++i) m.names.push_back(r.str());
    return finish(r, std::move(m));
}

Bytes StartGame::encode() const { return Writer(8).u32(kType).u32(secondWord).take(); }

std::optional<StartGame> StartGame::decode(ByteView bytes) {
    Reader r(bytes);
    StartGame m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    return finish(r, m);
}

Bytes PlayerLeftMatch::encode() const { return Writer(12).u32(kType).u32(secondWord).u32(slot).take(); }

std::optional<PlayerLeftMatch> PlayerLeftMatch::decode(ByteView bytes) {
    Reader r(bytes);
    PlayerLeftMatch m;
    if (!readHeader(r, kType, m.secondWord)) return std::nullopt;
    m.slot = r.u32();
    return finish(r, m);
}
