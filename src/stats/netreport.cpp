#include "stats/netreport.h"

#include <cstdint>
#include <string>

#include "core/server.h"
#include "log/log.h"

namespace {

// "N, (K kB, M MB)": both units rounded down.
std::string amountText(std::uint32_t bytes) {
    return std::to_string(bytes) + ", (" + std::to_string(bytes >> 10) + " kB, " + std::to_string(bytes >> 20) +
           " MB)";
}

}  // namespace

void printNetworkReport(Server& server) {
    // Without a host (in-process tests) the socket figures read as zero.
    const ENetHost* host = server.host;
    const std::uint32_t received = host ? host->totalReceivedData : 0;
    const std::uint32_t receivedPackets = host ? host->totalReceivedPackets : 0;
    const std::uint32_t sent = host ? host->totalSentData : 0;
    const std::uint32_t sentPackets = host ? host->totalSentPackets : 0;

    logMessage("");
    logMessage("Bytes received: " + amountText(server.bytesReceived));
    logMessage("");
    logMessage("Total received: " + amountText(received));
    logMessage("In " + std::to_string(receivedPackets) + " packets");
    logMessage("");
    logMessage("Total send: " + amountText(sent));
    logMessage("In " + std::to_string(sentPackets) + " packets");
    logMessage("");
}

void printLoadReport(Server& server) {
    logMessage("");
    for (const auto& [id, room] : server.rooms)
        logMessage("Room " + std::to_string(room->id) + " - Net: " + std::to_string(room->lagReports) +
                   " - CPU: " + std::to_string(room->delayHold));
    logMessage("");
}
