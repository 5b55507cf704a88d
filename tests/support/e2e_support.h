#pragma once
// What the end-to-end tests and the tools' tests share: the server process,
// the ENet client, the file helpers, the standard headers they all use, and
// messages built with the plain Writer from the byte layouts rather than with
// the server's own codec.

#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/files.h"
#include "support/server_process.h"
#include "support/test_client.h"

namespace e2e {

inline Bytes words(std::initializer_list<std::uint32_t> values) {
    Writer w;
    for (auto v : values) w.u32(v);
    return w.take();
}
inline Bytes bytesOf(std::string_view s) { return Bytes(s.begin(), s.end()); }
inline Bytes text(std::string_view s) { return Writer().str(s).take(); }
// Word i of a message, or 0xFFFFFFFF when the message is shorter.
inline std::uint32_t wordAt(const Bytes& b, std::size_t i) {
    return b.size() >= 4 * i + 4 ? loadU32(b.data() + 4 * i) : 0xFFFFFFFFu;
}

inline Bytes createRoom(std::string_view name, std::string_view dataset = "data", std::uint32_t checksum = 77) {
    return Writer().u32(2).u32(1).str(name).str(dataset).u32(checksum).take();
}
// A PlayerSetup as the server builds a fresh one, but for ready, tag,
// location and name; client values 1 and 2 are 0, value 3 is 0xFFFFFFFF.
inline Bytes setup(std::uint32_t slot, std::uint32_t ready, std::string_view name = "", std::uint32_t tag = 0,
                   std::uint32_t location = 0) {
    return Writer().u32(5).u32(1).u32(slot).u32(ready).u32(tag).u32(location).u32(0).u32(0).u32(0xFFFFFFFFu).str(name)
        .u32(0).u32(0).take();
}
// An ordinary full-form order with distinct filler in its params, extra
// param and flag.
inline Bytes order(std::uint32_t step, std::uint32_t argument, std::uint32_t orderType, std::string_view text,
                   std::initializer_list<std::uint32_t> firstList = {},
                   std::initializer_list<std::uint32_t> secondList = {}) {
    Writer w;
    w.u32(1).u32(step).u32(argument).u32(static_cast<std::uint32_t>(firstList.size()));
    for (auto v : firstList) w.u32(v);
    w.u32(orderType).u32(static_cast<std::uint32_t>(secondList.size()));
    for (auto v : secondList) w.u32(v);
    return w.u32(0x11111111).u32(0x22222222).u32(0x33333333).u32(0x44444444).u32(0x55555555).u8(0x66).str(text).take();
}

// The raw text of a value in a flat JSON line, as the tools print them; ""
// when the key is absent. And the value as a number.
inline std::string jsonText(const std::string& json, const std::string& key) {
    auto at = json.find("\"" + key + "\":");
    if (at == std::string::npos) return "";
    at += key.size() + 3;
    return json.substr(at, json.find_first_of(",}", at) - at);
}
inline std::uint64_t jsonNumber(const std::string& json, const std::string& key) {
    EXPECT_NE(jsonText(json, key), "") << key;
    return std::strtoull(jsonText(json, key).c_str(), nullptr, 10);
}

// The next message on channel that satisfies match; the others on that
// channel are dropped.
inline std::optional<Bytes> awaitOn(TestClient& c, std::uint8_t channel, const std::function<bool(const Bytes&)>& match,
                                    int timeoutMs = 3000) {
    std::optional<Bytes> m;
    while ((m = c.nextOn(channel, timeoutMs)) && !match(*m)) {
    }
    return m;
}
// The next n messages on channel; fewer when one does not come in time.
inline std::vector<Bytes> take(TestClient& c, std::uint8_t channel, std::size_t n) {
    std::vector<Bytes> out;
    for (std::optional<Bytes> m; out.size() < n && (m = c.nextOn(channel, 3000));) out.push_back(std::move(*m));
    return out;
}

// A match brought to its go notice through the real lobby: the clients
// connect (those that are not connected yet: a client that spoke first, to
// ask for extensions, keeps its connection); the first creates a room with `create`, the others
// join it into slots 1, 2, ...; all set up ready under their names, the
// first asks for the start and all confirm. The room's ID, 0 on a failure.
inline std::uint32_t startMatch(std::uint16_t port, const std::vector<TestClient*>& clients,
                                const std::vector<std::string>& names, const Bytes& create = createRoom("duel")) {
    auto ofType = [](std::uint32_t type) { return [type](const Bytes& m) { return wordAt(m, 0) == type; }; };
    std::uint32_t room = 0;
    for (std::uint32_t i = 0; i < clients.size(); ++i) {
        if (!clients[i]->connected() && !clients[i]->connect(port)) return ADD_FAILURE() << "connect " << i, 0;
        clients[i]->send(0, i == 0 ? create : words({3, 1, room}));
        auto accepted = awaitOn(*clients[i], 0, ofType(6));
        if (!accepted || wordAt(*accepted, 2) != i) return ADD_FAILURE() << "join " << i, 0;
        room = wordAt(*accepted, 3);
    }
    for (std::uint32_t i = 0; i < clients.size(); ++i) clients[i]->send(0, setup(i, 1, names[i]));
    // Every ready setup has reached everyone before the start is asked for.
    for (TestClient* c : clients)
        for (std::size_t n = 0; n < clients.size(); ++n)
            if (!awaitOn(*c, 0, [](const Bytes& m) { return wordAt(m, 0) == 5 && wordAt(m, 3) == 1; }))
                return ADD_FAILURE() << "ready setups", 0;
    clients[0]->send(0, words({14, 1}));
    for (TestClient* c : clients) {
        if (!awaitOn(*c, 0, ofType(14))) return ADD_FAILURE() << "start notice", 0;
        c->send(0, words({14, 1}));
    }
    for (TestClient* c : clients)
        if (!awaitOn(*c, 0, ofType(14))) return ADD_FAILURE() << "go notice", 0;
    return room;
}

}  // namespace e2e
