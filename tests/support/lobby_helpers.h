#pragma once
// Builders and expectations for lobby tests, in-process and end-to-end.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "lobby/messages.h"
#include "protocol/messages.h"
#include "protocol/send.h"
#include "support/harness.h"

namespace lobbytest {

struct SetupFields {
    std::uint32_t slot = 0;
    std::uint32_t ready = 0;
    std::uint32_t tag = 0;
    std::uint32_t location = 0;
    std::string name;
    std::uint32_t secondWord = 1;
    std::uint32_t clientValue3 = 0xFFFFFFFFu;
};

inline Bytes setup(const SetupFields& f) {
    PlayerSetup s;
    s.secondWord = f.secondWord;
    s.slot = f.slot;
    s.ready = f.ready;
    s.playerTag = f.tag;
    s.startLocation = f.location;
    s.clientValue3 = f.clientValue3;
    s.playerName = f.name;
    return encodePlayerSetup(s);
}

inline Bytes fresh(std::uint32_t slot) { return freshPlayerSetup(slot)->bytes; }
inline Bytes text(const std::string& t) { return encodeText(t); }
inline Bytes slotState(std::uint32_t slot, std::uint32_t closed) { return SlotState{1, slot, closed}.encode(); }
inline Bytes hostStatus(std::uint32_t isHost) { return HostStatus{1, isHost}.encode(); }
inline Bytes startGame() { return StartGame{}.encode(); }
inline Bytes createRoomMsg(const std::string& name, const std::string& dataset = "data", std::uint32_t sum = 77) {
    return CreateRoom{1, name, dataset, sum}.encode();
}
inline Bytes joinRoomMsg(std::uint32_t id) { return JoinRoom{1, id}.encode(); }
inline Bytes settingsMsg(std::uint32_t gameMode, const std::string& map, std::uint32_t locations) {
    GameSettings s;
    s.gameMode = gameMode;
    s.mapName = map;
    s.startLocations = locations;
    return encodeGameSettings(s);
}

// One expected packet: to whom, on which channel, which bytes.
struct Packet {
    ENetPeer* peer;
    std::uint8_t channel;
    Bytes data;
};

// Compares recorded packets with expected ones in order, naming the first
// difference.
inline ::testing::AssertionResult sameTraffic(const std::vector<SentPacket>& got, const std::vector<Packet>& want) {
    for (std::size_t i = 0; i < got.size() && i < want.size(); ++i) {
        if (got[i].peer != want[i].peer || got[i].channel != want[i].channel || got[i].data != want[i].data) {
            auto r = ::testing::AssertionFailure() << "packet " << i << " differs: channel " << int(got[i].channel)
                                                   << " vs " << int(want[i].channel) << ", peer "
                                                   << (got[i].peer == want[i].peer ? "same" : "different")
                                                   << ", bytes " << got[i].data.size() << " vs "
                                                   << want[i].data.size();
            return r;
        }
    }
    if (got.size() != want.size())
        return ::testing::AssertionFailure() << got.size() << " packets, expected " << want.size();
    return ::testing::AssertionSuccess();
}

}  // namespace lobbytest

namespace lobbytest {

// In-process shortcuts that go through the dispatcher like a client would;
// each clears what it caused from the harness.
inline void clear(Harness& h) {
    h.takeSent();
    h.takeLogs();
}
inline void createVia(Harness& h, std::size_t i, const std::string& name = "") {
    h.receive(i, kLobbyChannel, createRoomMsg(name));
    clear(h);
}
inline void joinVia(Harness& h, std::size_t i, std::uint32_t id) {
    h.receive(i, kLobbyChannel, joinRoomMsg(id));
    clear(h);
}
inline void setupVia(Harness& h, std::size_t i, const SetupFields& f) {
    h.receive(i, kLobbyChannel, setup(f));
    clear(h);
}

}  // namespace lobbytest
