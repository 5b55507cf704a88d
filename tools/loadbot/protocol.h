#pragma once
// The client side of the wire format, as far as the load generator speaks it:
// the lobby requests that take a player into a running match, the probe
// orders whose bytes carry their own origin and send time, and the 12-byte
// step notice. Deliberately independent of the server's own wire code, so
// that the load generator checks the server against the protocol rather than
// against itself.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace loadbot {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kLobbyChannel = 0;
constexpr std::uint8_t kTextChannel = 1;
constexpr std::uint8_t kMatchControlChannel = 2;
constexpr std::uint8_t kOrderChannel = 3;
constexpr std::uint8_t kFileUpdateChannel = 6;
constexpr std::size_t kChannelCount = 7;

constexpr std::uint32_t kCreateRoom = 2;
constexpr std::uint32_t kJoinRoom = 3;
constexpr std::uint32_t kPlayerSetup = 5;
constexpr std::uint32_t kJoinAccepted = 6;
constexpr std::uint32_t kHostStatus = 8;
constexpr std::uint32_t kStartGame = 14;

std::uint32_t readU32(const std::uint8_t* p);
void putU32(Bytes& out, std::uint32_t value);
void putString(Bytes& out, const std::string& text);

Bytes createRoomMessage(const std::string& name, const std::string& dataset, std::uint32_t checksum);
Bytes joinRoomMessage(std::uint32_t roomId);
// A setup for the player's own slot: tag and start location left to the
// server (0), no client pairs and no client strings.
Bytes playerSetupMessage(std::uint32_t slot, bool ready, const std::string& name);
Bytes startGameMessage();
// The 12-byte short form: 1, step, slot.
Bytes stepDoneMessage(std::uint32_t step, std::uint32_t slot);

// FileRequest (2, 1, name) on the file update channel.
Bytes fileRequestMessage(const std::string& name);
// The content length of a FileData (3, 1, name, u32 length, content) for
// that name whose length matches the packet; nullopt otherwise.
std::optional<std::uint32_t> parseFileData(const std::uint8_t* data, std::size_t length, const std::string& name);

// The lobby messages the load generator reacts to; everything else on the
// lobby channel is `Other`.
struct LobbyMessage {
    enum class Kind { JoinAccepted, PlayerSetup, HostStatus, StartGame, Other, Malformed };
    Kind kind = Kind::Other;
    std::uint32_t type = 0;
    std::uint32_t slot = 0;    // JoinAccepted, PlayerSetup
    std::uint32_t roomId = 0;  // JoinAccepted
    std::uint32_t ready = 0;   // PlayerSetup
};
LobbyMessage parseLobbyMessage(const std::uint8_t* data, std::size_t length);

// An ordinary order in full form that says who sent it, in which room, for
// which step and when. Every other byte follows from those fields, so a
// receiver rebuilds the whole packet and compares it byte for byte.
struct Probe {
    std::uint32_t room = 0;  // the load generator's room index, not the server's ID
    std::uint32_t slot = 0;
    std::uint32_t step = 0;
    std::uint64_t sendNs = 0;
    std::uint32_t padding = 0;  // extra text bytes, to try larger orders
};
Bytes encodeProbe(const Probe& probe);

enum class ProbeCheck { Ok, Corrupt };
struct ProbeResult {
    ProbeCheck check = ProbeCheck::Corrupt;
    Probe probe;
};
// Corrupt when the bytes are not exactly what encodeProbe makes of the
// fields they carry.
ProbeResult checkProbe(const std::uint8_t* data, std::size_t length);

// A step notice: exactly 12 bytes, first word 1.
struct Notice {
    std::uint32_t step = 0;
    std::uint32_t slot = 0;
};
std::optional<Notice> parseNotice(const std::uint8_t* data, std::size_t length);

}  // namespace loadbot
