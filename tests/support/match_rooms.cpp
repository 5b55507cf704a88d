#include "support/match_rooms.h"

#include <memory>

Room& addMatchRoom(Harness& h, std::uint32_t id, std::initializer_list<std::size_t> humans, bool running) {
    auto room = std::make_unique<Room>();
    room->id = id;
    room->running = running;
    room->open = !running;
    room->started = running;
    for (std::size_t i : humans) {
        if (h.server.peers.count(h.peer(i)) == 0) h.connect(i);
        room->slots[i].peer = h.peer(i);
        room->slots[i].info = std::make_unique<PlayerSetup>();
        room->slots[i].info->slot = static_cast<std::uint32_t>(i);
        room->slots[i].info->playerName = "P" + std::to_string(i);
    }
    Room& ref = *room;
    h.server.rooms.emplace(id, std::move(room));
    h.takeLogs();
    h.takeSent();
    return ref;
}

Bytes fullOrder(std::uint32_t step, std::uint32_t argument, std::initializer_list<std::uint32_t> firstList,
                std::uint32_t orderType, std::initializer_list<std::uint32_t> secondList, const std::string& text,
                std::uint32_t messageType) {
    Writer w;
    w.u32(messageType).u32(step).u32(argument);
    w.u32(static_cast<std::uint32_t>(firstList.size()));
    for (auto v : firstList) w.u32(v);
    w.u32(orderType);
    w.u32(static_cast<std::uint32_t>(secondList.size()));
    for (auto v : secondList) w.u32(v);
    w.u32(0x11111111).u32(0x22222222).u32(0x33333333).u32(0x44444444);  // params
    w.u32(0x55555555).u8(0x66).str(text);
    return w.take();
}

Bytes checksumOrder(std::uint32_t step, std::uint32_t checksum) { return fullOrder(step, checksum, {}, 901, {}, ""); }

Bytes stepDone(std::uint32_t step, std::uint32_t slot) { return words({1, step, slot}); }

Bytes resyncOrder(std::uint32_t step) {
    Writer w;
    for (auto v : {1u, step, 0xFFFFFFFFu, 0u, 902u, 0u, 0xFFFFFFFFu, 0xFFFFFFFFu, 0u, 0u, 0u}) w.u32(v);
    w.u8(0).u8(0);
    return w.take();
}

Bytes resyncReport(const std::string& world, const std::string& log, std::uint32_t secondWord) {
    Writer w;
    w.u32(8).u32(secondWord);
    w.blob(ByteView(reinterpret_cast<const std::uint8_t*>(world.data()), world.size()));
    w.blob(ByteView(reinterpret_cast<const std::uint8_t*>(log.data()), log.size()));
    return w.take();
}
