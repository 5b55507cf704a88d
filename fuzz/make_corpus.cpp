// Writes the seed corpora from the message encoders: each seed is a short
// exchange that reaches a state worth mutating (a room, a running match, a
// desync). Run it from the repository root: build/fuzz/fuzz_make_corpus fuzz/corpus

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "protocol/messages.h"

namespace fs = std::filesystem;

namespace {

// An exchange for fuzz_channel: a head byte (channel choice and sender),
// then the packet, packets separated by FE FE.
struct Exchange {
    std::vector<std::uint8_t> channels;
    Bytes bytes;
    void add(unsigned sender, std::uint8_t channel, const Bytes& packet) {
        std::size_t index = 0;
        while (channels[index] != channel) ++index;
        std::uint8_t head = 0;
        for (unsigned h = 0; h < 256; ++h)
            if (h % channels.size() == index && (h >> 4) % 3 == sender) {
                head = static_cast<std::uint8_t>(h);
                break;
            }
        if (!bytes.empty()) bytes.insert(bytes.end(), {0xFE, 0xFE});
        bytes.push_back(head);
        bytes.insert(bytes.end(), packet.begin(), packet.end());
    }
};

void write(const fs::path& dir, const std::string& name, const Bytes& bytes) {
    fs::create_directories(dir);
    std::ofstream(dir / name, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                      static_cast<std::streamsize>(bytes.size()));
}

Bytes setup(std::uint32_t slot, std::uint32_t ready, const std::string& name, std::uint32_t tag = 0,
            std::uint32_t location = 0) {
    PlayerSetup s;
    s.slot = slot;
    s.ready = ready;
    s.playerTag = tag;
    s.startLocation = location;
    s.playerName = name;
    s.clientPairs = {{7, "pair"}};
    s.clientStrings = {"one", "two"};
    return encode(s);
}

Bytes header(std::uint32_t type) { return Writer().u32(type).u32(1).take(); }

// Three players in room 1, all ready, the match running.
void startMatch(Exchange& e) {
    e.add(0, 0, encode(CreateRoom{.name = "", .dataset = "data", .datasetChecksum = 77}));
    e.add(1, 0, encode(JoinRoom{.roomId = 1}));
    e.add(2, 0, encode(JoinRoom{.roomId = 1}));
    e.add(0, 0, setup(0, 1, "ann"));
    e.add(1, 0, setup(1, 1, "bob", 2, 0));
    e.add(2, 0, setup(2, 1, "cy"));
    for (unsigned p : {0u, 0u, 1u, 2u}) e.add(p, 0, header(14));
}

Bytes order(std::uint32_t step, std::uint32_t argument, std::uint32_t type, bool stepDone) {
    static const Bytes oneTwoThree = Writer().u32(1).u32(2).u32(3).take();
    static const Bytes nine = Writer().u32(9).take();
    Order o;
    o.step = step;
    o.argument = argument;
    o.orderType = type;
    if (!stepDone) o.firstList = oneTwoThree;
    o.secondList = nine;
    o.text = "go";
    return serializeOrder(o);
}

}  // namespace

int main(int argc, char** argv) {
    fs::path root = argc > 1 ? argv[1] : "fuzz/corpus";

    {
        Exchange e{{0, 1}};
        startMatch(e);
        write(root / "lobby", "match_start", e.bytes);
        Exchange f{{0, 1}};
        f.add(0, 0, encode(CreateRoom{.name = "Room", .dataset = "d", .datasetChecksum = 1}));
        f.add(1, 0, encode(RoomListRequest{.roomId = 1}));
        f.add(1, 0, encode(JoinRoom{.roomId = 1}));
        f.add(0, 0, encode(SlotState{.slot = 5, .closed = 1}));
        f.add(0, 0, encode(SetHost{.slot = 1}));
        f.add(1, 0, encode(Kick{.slot = 0}));
        GameSettings g;
        g.mapName = "map";
        g.startLocations = 2;
        f.add(1, 0, encode(g));
        f.add(1, 1, encode(Text{"hello"}));
        f.add(1, 0, header(4));
        write(root / "lobby", "room_traffic", f.bytes);
        Exchange x{{0, 1}};
        x.add(1, 0, encode(ExtensionsHello{.version = 1, .features = {"rejoin", "spectate"}}));
        startMatch(x);
        x.add(2, 0, encode(ExtensionsHello{.version = 7, .features = {}}));
        write(root / "lobby", "extensions_hello", x.bytes);
    }
    {
        Exchange e{{0, 2, 3}};
        startMatch(e);
        for (std::uint32_t step = 1; step <= 3; ++step)
            for (unsigned p = 0; p < 3; ++p) {
                e.add(p, 3, order(step, p, 5, false));
                e.add(p, 3, Writer().u32(1).u32(step).u32(p).take());
            }
        e.add(0, 3, order(4, 111, 901, false));
        e.add(1, 3, order(4, 222, 901, false));
        e.add(2, 3, order(4, 111, 901, false));
        e.add(0, 2, encode(ResyncReport{.world = ByteView(), .log = ByteView()}));
        e.add(1, 2, header(4));
        e.add(2, 2, header(5));
        e.add(2, 2, header(3));
        write(root / "match", "desync_and_resync", e.bytes);
    }
    {
        Exchange e{{4}};
        Bytes snapshot = Writer().bytes(Bytes{'C', 'O', 'M', 'B', 'O', 'S', 'A', 'V', 'E', 0})
                             .blob(Bytes{1, 2}).blob(Bytes{3}).blob(Bytes{}).blob(Bytes{4}).take();
        e.add(0, 4, Writer().u32(1).u32(1).str("ann").str("mail").str("data").str("it broke")
                        .blob(snapshot).blob(Bytes{0xFF, 0xD8}).take());
        e.add(1, 4, Writer().u32(3).u32(1).str("bob").str("").str("data").str("test").blob(Bytes{5, 6}).take());
        write(root / "reports", "both_reports", e.bytes);
    }
    {
        Exchange e{{5, 6}};
        e.add(0, 5, encode(TrackEvent{.playerName = "ann", .dataset = "data", .datasetChecksum = 3, .eventType = 101,
                               .additionalEventData = "x"}));
        e.add(1, 6, header(1));
        e.add(1, 6, Writer().u32(2).u32(1).str("dir/file.bin").take());
        e.add(2, 6, Writer().u32(2).u32(1).str("../settings/server.config").take());
        write(root / "events_update", "requests", e.bytes);
    }
    write(root / "config", "full", Bytes{'2', '0', '0', '0', '\r', '\n', 'S', '\n', '1', '\n'});
    {
        // connect 0..2, a room with a join, a step, a disconnect, time.
        Bytes s;
        for (std::uint8_t p = 0; p < 3; ++p) s.insert(s.end(), {0, p});
        auto packet = [&](std::uint8_t peer, std::uint8_t channel, const Bytes& b) {
            s.insert(s.end(), {2, peer, channel, static_cast<std::uint8_t>(b.size())});
            s.insert(s.end(), b.begin(), b.end());
        };
        packet(1, 0, encode(ExtensionsHello{.version = 1, .features = {"x"}}));
        packet(0, 0, encode(CreateRoom{.name = "r", .dataset = "d", .datasetChecksum = 1}));
        packet(1, 0, encode(JoinRoom{.roomId = 1}));
        packet(0, 0, setup(0, 1, "a"));
        packet(1, 0, setup(1, 1, "b"));
        packet(0, 0, header(14));
        s.insert(s.end(), {3, 0});
        packet(0, 0, header(14));
        packet(1, 0, header(14));
        s.insert(s.end(), {3, 1});
        packet(0, 3, Writer().u32(1).u32(1).u32(0).take());
        packet(1, 3, Writer().u32(1).u32(1).u32(1).take());
        s.insert(s.end(), {1, 1, 3, 200});
        write(root / "session", "match_and_leave", s);
    }
    std::printf("corpus written to %s\n", root.string().c_str());
    return 0;
}
