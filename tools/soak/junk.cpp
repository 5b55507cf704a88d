#include "junk.h"

namespace soak {

using loadbot::Bytes;
using loadbot::putString;
using loadbot::putU32;
using loadbot::readU32;

namespace {

Bytes words(std::initializer_list<std::uint32_t> values) {
    Bytes out;
    for (auto v : values) putU32(out, v);
    return out;
}

Bytes cut(Bytes bytes, std::size_t drop) {
    bytes.resize(bytes.size() > drop ? bytes.size() - drop : 0);
    return bytes;
}

Bytes withText(Bytes bytes, const std::string& text, bool terminated = true) {
    bytes.insert(bytes.end(), text.begin(), text.end());
    if (terminated) bytes.push_back(0);
    return bytes;
}

// A full-form ordinary order with empty lists and a short text: 46 bytes
// plus the text.
Bytes fullOrder(std::uint32_t firstCount, std::uint32_t secondCount) {
    Bytes out = words({1, 1, 0, firstCount, 7, secondCount, 0, 0, 0, 0, 0});
    out.push_back(0);  // flag
    putString(out, "junk");
    return out;
}

// PlayerSetup with the given client pair count and nothing after the name.
Bytes setupWithPairs(std::uint32_t pairs) {
    Bytes out = words({5, 1, 0, 1, 0, 0, 0, 0, 0});
    putString(out, "pairs");
    putU32(out, pairs);
    putU32(out, 0);
    return out;
}

}  // namespace

Bytes leaveRoomMessage() { return words({4, 1}); }
Bytes leaveMatchMessage() { return words({3, 1}); }
Bytes roomListRequestMessage(std::uint32_t roomId) { return words({10, 1, roomId}); }

bool parseServerStatus(const std::uint8_t* data, std::size_t length, StatusCounts& out) {
    if (length < 8 || readU32(data) != 1) return false;
    std::size_t at = 8;
    while (at < length && data[at] != 0) ++at;  // description
    if (at >= length || length - at - 1 < 20) return false;
    const std::uint8_t* p = data + at + 1;
    out.runningRooms = readU32(p);
    out.playersInRunning = readU32(p + 4);
    out.playersInOther = readU32(p + 8);
    out.playersInNoRoom = readU32(p + 12);
    return true;
}

std::vector<JunkPacket> junkCatalogue() {
    std::vector<JunkPacket> list;
    auto add = [&list](std::string kind, std::uint8_t channel, Bytes bytes, bool member = false) {
        list.push_back(JunkPacket{std::move(kind), channel, std::move(bytes), member});
    };

    // Too short for a message type, on every typed channel.
    for (std::uint8_t channel : {0, 2, 4, 5, 6})
        for (std::size_t n = 0; n < 4; ++n)
            add("short-ch" + std::to_string(channel) + "-" + std::to_string(n), channel, Bytes(n, 0x01));
    add("text-empty", 1, {});
    add("text-without-nul", 1, Bytes{'a', 'b', 'c'});
    for (std::size_t n : {0, 3, 4, 8, 11})
        add("order-short-" + std::to_string(n), 3, Bytes(n, 0x01), true);

    // Lobby messages cut short or pointing outside the eight slots.
    add("create-room-no-checksum", 0, cut(loadbot::createRoomMessage("junk", "junk", 1), 4));
    add("create-room-name-without-nul", 0, withText(words({2, 1}), "junk", false));
    add("join-room-truncated", 0, words({3, 1}));
    add("join-room-cut-in-id", 0, cut(loadbot::joinRoomMessage(1), 2));
    add("player-setup-truncated", 0, cut(loadbot::playerSetupMessage(0, true, "junk"), 5));
    add("player-setup-slot-8", 0, loadbot::playerSetupMessage(8, true, "junk"));
    add("player-setup-slot-max", 0, loadbot::playerSetupMessage(0xFFFFFFFFu, true, "junk"));
    add("player-setup-pairs-past-end", 0, setupWithPairs(0x10000000u));
    add("slot-state-slot-8", 0, words({7, 1, 8, 1}));
    add("slot-state-truncated", 0, words({7, 1, 0}));
    add("set-host-slot-8", 0, words({8, 1, 8}));
    add("set-host-truncated", 0, words({8, 1}));
    add("kick-slot-9", 0, words({9, 1, 9}));
    add("kick-slot-max", 0, words({9, 1, 0xFFFFFFFFu}));
    add("room-list-truncated", 0, words({10, 1}));
    add("game-settings-truncated", 0, withText(words({13, 1, 0}), "map", false));
    add("game-settings-cut-in-values", 0, cut(withText(words({13, 1, 0}), "map"), 0));
    add("lobby-unknown-type", 0, words({99, 1}));

    // Match control.
    add("resync-world-past-end", 2, withText(words({8, 1, 1000}), "0123456789", false), true);
    add("resync-log-past-end", 2, words({8, 1, 4, 0xDEADBEEF, 0xFFFFFFFFu}), true);
    add("resync-no-log", 2, words({8, 1, 0}), true);
    add("match-control-unknown-type", 2, words({77, 1}));

    // Orders whose lists or text run past the end.
    add("order-first-count-past-end", 3, fullOrder(0x40000000u, 0), true);
    add("order-first-count-two-over", 3, fullOrder(2, 0), true);
    add("order-second-count-past-end", 3, fullOrder(0, 0xFFFFFFFFu), true);
    add("order-text-without-nul", 3, cut(fullOrder(0, 0), 1), true);
    add("order-cut-in-params", 3, cut(fullOrder(0, 0), 20), true);

    // Reports.
    add("feedback-truncated", 4, withText(withText(withText(words({1, 1}), "p"), "c"), "d"));
    add("feedback-snapshot-past-end", 4,
        withText(withText(withText(withText(words({1, 1}), "p"), "c"), "d"), "e"));
    list.back().bytes.insert(list.back().bytes.end(), {0, 0, 0, 0x40, 'x', 'y'});
    add("determinism-snapshot-past-end", 4,
        withText(withText(withText(withText(words({3, 1}), "p"), "c"), "d"), "e"));
    putU32(list.back().bytes, 100);
    list.back().bytes.insert(list.back().bytes.end(), 10, 'z');
    add("report-unknown-type", 4, words({9, 1}));

    // Event tracking.
    add("track-event-truncated", 5, withText(withText(words({1, 1}), "name"), "data", false));
    add("track-event-no-type", 5, cut(withText(withText(words({1, 1}), "name"), "data"), 0));
    putU32(list.back().bytes, 7);  // checksum, then nothing
    add("event-unknown-type", 5, words({9, 1}));

    // File update.
    add("file-request-truncated", 6, withText(words({2, 1}), "abc", false));
    for (const char* name : {"../x", "/etc/passwd", "a/../../x", "a\\b", "C:x", ""})
        add(std::string("file-request-name:") + name, 6, loadbot::fileRequestMessage(name));
    add("file-data-from-client", 6, withText(words({3, 1}), "x"));
    add("file-update-unknown-type", 6, words({9, 1}));
    return list;
}

}  // namespace soak
