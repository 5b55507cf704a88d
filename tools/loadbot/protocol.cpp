#include "protocol.h"

#include <cstring>

namespace loadbot {

namespace {

constexpr std::uint32_t kProbeMagic = 0x44414F4C;  // "LOAD" in memory; never the step-done marker
constexpr std::uint32_t kProbeOrderType = 7;       // not 901 or 902, which the server acts on
constexpr std::uint32_t kProbeFirstCount = 4;
constexpr std::uint32_t kProbeSecondCount = 2;
constexpr std::size_t kFixedOrderBytes = 46;

std::uint32_t fnv1a(const std::uint8_t* data, std::size_t length) {
    std::uint32_t hash = 2166136261u;
    for (std::size_t i = 0; i < length; ++i) {
        hash ^= data[i];
        hash *= 16777619u;
    }
    return hash;
}

std::string probeText(const Probe& probe) {
    std::string text =
        "r" + std::to_string(probe.room) + "s" + std::to_string(probe.slot) + "t" + std::to_string(probe.step);
    for (std::uint32_t i = 0; i < probe.padding; ++i) text.push_back(static_cast<char>('a' + (probe.step + i) % 26));
    return text;
}

}  // namespace

std::uint32_t readU32(const std::uint8_t* p) {
    return static_cast<std::uint32_t>(p[0]) | static_cast<std::uint32_t>(p[1]) << 8 |
           static_cast<std::uint32_t>(p[2]) << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

void putU32(Bytes& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

void putString(Bytes& out, const std::string& text) {
    out.insert(out.end(), text.begin(), text.end());
    out.push_back(0);
}

Bytes createRoomMessage(const std::string& name, const std::string& dataset, std::uint32_t checksum) {
    Bytes out;
    putU32(out, kCreateRoom);
    putU32(out, 1);
    putString(out, name);
    putString(out, dataset);
    putU32(out, checksum);
    return out;
}

Bytes joinRoomMessage(std::uint32_t roomId) {
    Bytes out;
    putU32(out, kJoinRoom);
    putU32(out, 1);
    putU32(out, roomId);
    return out;
}

Bytes playerSetupMessage(std::uint32_t slot, bool ready, const std::string& name) {
    Bytes out;
    putU32(out, kPlayerSetup);
    putU32(out, 1);
    putU32(out, slot);
    putU32(out, ready ? 1 : 0);
    for (int i = 0; i < 5; ++i) putU32(out, 0);  // tag, start location, three client values
    putString(out, name);
    putU32(out, 0);  // client pairs
    putU32(out, 0);  // client strings
    return out;
}

Bytes startGameMessage() {
    Bytes out;
    putU32(out, kStartGame);
    putU32(out, 1);
    return out;
}

Bytes stepDoneMessage(std::uint32_t step, std::uint32_t slot) {
    Bytes out;
    putU32(out, 1);
    putU32(out, step);
    putU32(out, slot);
    return out;
}

Bytes fileRequestMessage(const std::string& name) {
    Bytes out;
    putU32(out, 2);
    putU32(out, 1);
    putString(out, name);
    return out;
}

std::optional<std::uint32_t> parseFileData(const std::uint8_t* data, std::size_t length, const std::string& name) {
    std::size_t n = name.size();
    if (length < 13 + n || readU32(data) != 3 || std::memcmp(data + 8, name.data(), n) != 0 || data[8 + n] != 0)
        return std::nullopt;
    std::uint32_t size = readU32(data + 9 + n);
    if (length != 13 + n + size) return std::nullopt;
    return size;
}

LobbyMessage parseLobbyMessage(const std::uint8_t* data, std::size_t length) {
    LobbyMessage message;
    if (length < 8) {
        message.kind = LobbyMessage::Kind::Malformed;
        return message;
    }
    message.type = readU32(data);
    switch (message.type) {
        case kJoinAccepted:
            if (length < 16) break;
            message.kind = LobbyMessage::Kind::JoinAccepted;
            message.slot = readU32(data + 8);
            message.roomId = readU32(data + 12);
            return message;
        case kPlayerSetup:
            if (length < 16) break;
            message.kind = LobbyMessage::Kind::PlayerSetup;
            message.slot = readU32(data + 8);
            message.ready = readU32(data + 12);
            return message;
        case kHostStatus:
            message.kind = LobbyMessage::Kind::HostStatus;
            return message;
        case kStartGame:
            message.kind = LobbyMessage::Kind::StartGame;
            return message;
        default:
            message.kind = LobbyMessage::Kind::Other;
            return message;
    }
    message.kind = LobbyMessage::Kind::Malformed;
    return message;
}

Bytes encodeProbe(const Probe& probe) {
    std::string text = probeText(probe);
    Bytes out;
    out.reserve(kFixedOrderBytes + 4 * (kProbeFirstCount + kProbeSecondCount) + text.size());
    putU32(out, 1);
    putU32(out, probe.step);
    putU32(out, probe.slot);  // argument: passed on untouched by the relay
    putU32(out, kProbeFirstCount);
    putU32(out, kProbeMagic);
    putU32(out, probe.room);
    putU32(out, probe.slot);
    putU32(out, probe.step);
    putU32(out, kProbeOrderType);
    putU32(out, kProbeSecondCount);
    putU32(out, static_cast<std::uint32_t>(probe.sendNs));
    putU32(out, static_cast<std::uint32_t>(probe.sendNs >> 32));
    putU32(out, probe.room ^ 0xA5A5A5A5u);
    putU32(out, probe.step * 2654435761u);
    putU32(out, probe.slot + 1);
    putU32(out, static_cast<std::uint32_t>(text.size()));
    putU32(out, fnv1a(out.data(), out.size()));  // extraParam
    out.push_back(static_cast<std::uint8_t>(probe.step));
    putString(out, text);
    return out;
}

ProbeResult checkProbe(const std::uint8_t* data, std::size_t length) {
    ProbeResult result;
    // Fields at fixed offsets as encodeProbe lays them out; anything that
    // does not rebuild to the same bytes is corrupt.
    constexpr std::size_t kTextLengthOffset = 60;
    if (length < kTextLengthOffset + 4 || readU32(data + 16) != kProbeMagic) return result;
    Probe& probe = result.probe;
    probe.room = readU32(data + 20);
    probe.slot = readU32(data + 24);
    probe.step = readU32(data + 28);
    probe.sendNs = readU32(data + 40) | static_cast<std::uint64_t>(readU32(data + 44)) << 32;
    std::uint32_t textLength = readU32(data + kTextLengthOffset);
    Probe bare = probe;
    std::size_t baseLength = probeText(bare).size();
    if (textLength < baseLength || textLength > length) return result;
    probe.padding = textLength - static_cast<std::uint32_t>(baseLength);
    Bytes expected = encodeProbe(probe);
    if (expected.size() == length && std::memcmp(expected.data(), data, length) == 0) result.check = ProbeCheck::Ok;
    return result;
}

std::optional<Notice> parseNotice(const std::uint8_t* data, std::size_t length) {
    if (length != 12 || readU32(data) != 1) return std::nullopt;
    return Notice{readU32(data + 4), readU32(data + 8)};
}

}  // namespace loadbot
