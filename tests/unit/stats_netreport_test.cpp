#include <gtest/gtest.h>

#include <cstring>

#include "stats/netreport.h"
#include "support/harness.h"

namespace {

std::vector<std::string> networkReport(std::uint32_t b, std::uint32_t r, std::uint32_t rp, std::uint32_t s,
                                       std::uint32_t sp) {
    auto amount = [](std::uint32_t v) {
        return std::to_string(v) + ", (" + std::to_string(v / 1024) + " kB, " + std::to_string(v / 1048576) + " MB)";
    };
    return {"",
            "Bytes received: " + amount(b),
            "",
            "Total received: " + amount(r),
            "In " + std::to_string(rp) + " packets",
            "",
            "Total send: " + amount(s),
            "In " + std::to_string(sp) + " packets",
            ""};
}

}  // namespace

TEST(NetworkReport, NineLinesWithUnitsRoundedDown) {
    Harness h;
    printNetworkReport(h.server);
    auto logs = h.takeLogs();
    EXPECT_EQ(logs, networkReport(0, 0, 0, 0, 0));
    EXPECT_EQ(logs[1], "Bytes received: 0, (0 kB, 0 MB)");

    h.server.bytesReceived = 1536;
    printNetworkReport(h.server);
    EXPECT_EQ(h.takeLogs()[1], "Bytes received: 1536, (1 kB, 0 MB)");
    h.server.bytesReceived = 1048575;
    printNetworkReport(h.server);
    EXPECT_EQ(h.takeLogs()[1], "Bytes received: 1048575, (1023 kB, 0 MB)");

    // The socket figures come from the host's own counters.
    ENetHost host;
    std::memset(&host, 0, sizeof host);
    host.totalReceivedData = 3u << 20;
    host.totalReceivedPackets = 17;
    host.totalSentData = 4294967295u;
    host.totalSentPackets = 9;
    h.server.host = &host;
    h.server.bytesReceived = 2048;
    printNetworkReport(h.server);
    h.server.host = nullptr;
    logs = h.takeLogs();
    EXPECT_EQ(logs, networkReport(2048, 3u << 20, 17, 4294967295u, 9));
    EXPECT_EQ(logs[3], "Total received: 3145728, (3072 kB, 3 MB)");
    EXPECT_EQ(logs[6], "Total send: 4294967295, (4194303 kB, 4095 MB)");
    EXPECT_TRUE(h.takeSent().empty());
}

TEST(LoadReport, OneLinePerRoomBetweenEmptyLines) {
    Harness h;
    printLoadReport(h.server);
    EXPECT_EQ(h.takeLogs(), (std::vector<std::string>{"", ""}));

    for (auto [id, net, cpu] : {std::tuple{7u, 3, 24}, std::tuple{2u, -1, 0}}) {
        auto room = std::make_unique<Room>();
        room->id = id;
        room->lagReports = net;
        room->delayHold = cpu;
        h.server.rooms.emplace(id, std::move(room));
    }
    printLoadReport(h.server);
    EXPECT_EQ(h.takeLogs(),
              (std::vector<std::string>{"", "Room 2 - Net: -1 - CPU: 0", "Room 7 - Net: 3 - CPU: 24", ""}));
}
