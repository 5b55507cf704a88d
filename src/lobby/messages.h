#pragma once
// The lobby's messages, one record per kind, each with its encoder and its
// decoder side by side. Decoders read through the bounded Reader only: a
// message too short for its fields (or a string without its NUL) decodes to
// nullopt. Fields after the ones a record needs are not looked at.
//
// PlayerSetup and GameSettings live in room.h because the room keeps them;
// their codec is here.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lobby/room.h"
#include "protocol/wire.h"

namespace lobby_type {
inline constexpr std::uint32_t kServerStatus = 1;
inline constexpr std::uint32_t kCreateRoom = 2;
inline constexpr std::uint32_t kJoinRoom = 3;
inline constexpr std::uint32_t kLeaveRoom = 4;
inline constexpr std::uint32_t kPlayerSetup = 5;
inline constexpr std::uint32_t kJoinAccepted = 6;
inline constexpr std::uint32_t kSlotState = 7;
inline constexpr std::uint32_t kHost = 8;  // SetHost and HostStatus
inline constexpr std::uint32_t kKick = 9;  // Kick and Kicked
inline constexpr std::uint32_t kRoomListRequest = 10;
inline constexpr std::uint32_t kRoomListEntry = 11;
inline constexpr std::uint32_t kRoomPlayerNames = 12;
inline constexpr std::uint32_t kGameSettings = 13;
inline constexpr std::uint32_t kStartGame = 14;
}  // namespace lobby_type

// PlayerSetup (type 5). encode writes the record's own second header word;
// decode keeps the whole packet as the record's bytes.
Bytes encodePlayerSetup(const PlayerSetup& setup);
std::optional<PlayerSetup> decodePlayerSetup(ByteView bytes);
// Re-encodes a record the server changed; its second header word becomes 1.
void rebuildPlayerSetup(PlayerSetup& setup);
// The record of a slot a human has just taken or just left.
std::unique_ptr<PlayerSetup> freshPlayerSetup(std::uint32_t slot);

// GameSettings (type 13), with the same conventions.
Bytes encodeGameSettings(const GameSettings& settings);
std::optional<GameSettings> decodeGameSettings(ByteView bytes);
// What every new room starts with: 8 start locations, everything else 0.
GameSettings defaultGameSettings();

// CreateRoom (2), client to server.
struct CreateRoom {
    static constexpr std::uint32_t kType = lobby_type::kCreateRoom;
    std::uint32_t secondWord = 1;
    std::string name;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;

    Bytes encode() const;
    static std::optional<CreateRoom> decode(ByteView bytes);
};

// JoinRoom (3), client to server.
struct JoinRoom {
    static constexpr std::uint32_t kType = lobby_type::kJoinRoom;
    std::uint32_t secondWord = 1;
    std::uint32_t roomId = 0;

    Bytes encode() const;
    static std::optional<JoinRoom> decode(ByteView bytes);
};

// JoinAccepted (6), server to client.
struct JoinAccepted {
    static constexpr std::uint32_t kType = lobby_type::kJoinAccepted;
    std::uint32_t secondWord = 1;
    std::uint32_t slot = 0;
    std::uint32_t roomId = 0;

    Bytes encode() const;
    static std::optional<JoinAccepted> decode(ByteView bytes);
};

// SlotState (7), both ways.
struct SlotState {
    static constexpr std::uint32_t kType = lobby_type::kSlotState;
    std::uint32_t secondWord = 1;
    std::uint32_t slot = 0;
    std::uint32_t closed = 0;

    Bytes encode() const;
    static std::optional<SlotState> decode(ByteView bytes);
};

// SetHost (8), client to server.
struct SetHost {
    static constexpr std::uint32_t kType = lobby_type::kHost;
    std::uint32_t secondWord = 1;
    std::uint32_t slot = 0;

    Bytes encode() const;
    static std::optional<SetHost> decode(ByteView bytes);
};

// HostStatus (8), server to client: 1 = you are host, 0 = no longer.
struct HostStatus {
    static constexpr std::uint32_t kType = lobby_type::kHost;
    std::uint32_t secondWord = 1;
    std::uint32_t isHost = 0;

    Bytes encode() const;
    static std::optional<HostStatus> decode(ByteView bytes);
};

// Kick (9), client to server.
struct Kick {
    static constexpr std::uint32_t kType = lobby_type::kKick;
    std::uint32_t secondWord = 1;
    std::uint32_t slot = 0;

    Bytes encode() const;
    static std::optional<Kick> decode(ByteView bytes);
};

// Kicked (9), server to client; its one word is always 1.
struct Kicked {
    static constexpr std::uint32_t kType = lobby_type::kKick;
    std::uint32_t secondWord = 1;
    std::uint32_t value = 1;

    Bytes encode() const;
    static std::optional<Kicked> decode(ByteView bytes);
};

// RoomListRequest (10), client to server: the ID whose details are wanted.
struct RoomListRequest {
    static constexpr std::uint32_t kType = lobby_type::kRoomListRequest;
    std::uint32_t secondWord = 1;
    std::uint32_t roomId = 0;

    Bytes encode() const;
    static std::optional<RoomListRequest> decode(ByteView bytes);
};

// RoomListEntry (11), server to client, one per room.
struct RoomListEntry {
    static constexpr std::uint32_t kType = lobby_type::kRoomListEntry;
    std::uint32_t secondWord = 1;
    std::uint32_t id = 0;
    std::string name;
    std::string dataset;
    std::uint32_t datasetChecksum = 0;
    std::uint32_t humans = 0;
    std::uint32_t capacity = 0;
    std::uint32_t open = 0;

    Bytes encode() const;
    static std::optional<RoomListEntry> decode(ByteView bytes);
};

// RoomPlayerNames (12), server to client.
struct RoomPlayerNames {
    static constexpr std::uint32_t kType = lobby_type::kRoomPlayerNames;
    std::uint32_t secondWord = 1;
    std::vector<std::string> names;

    Bytes encode() const;
    static std::optional<RoomPlayerNames> decode(ByteView bytes);
};

// StartGame (14), both ways: header only.
struct StartGame {
    static constexpr std::uint32_t kType = lobby_type::kStartGame;
    std::uint32_t secondWord = 1;

    Bytes encode() const;
    static std::optional<StartGame> decode(ByteView bytes);
};

// PlayerLeftMatch (3 on the match control channel), server to client.
struct PlayerLeftMatch {
    static constexpr std::uint32_t kType = 3;
    std::uint32_t secondWord = 1;
    std::uint32_t slot = 0;

    Bytes encode() const;
    static std::optional<PlayerLeftMatch> decode(ByteView bytes);
};
