#include "stats/netreport.h"

#include <cstdint>
#include <string>

#include "log/log.h"

namespace {

// "N, (K kB, M MB)": both units rounded down.
std::string amountText(std::uint32_t bytes) {
    return std::to_string(bytes) + ", (" + std::to_string(bytes >> 10) + " kB, " + std::to_string(bytes >> 20) +
           " MB)";
}

}  // namespace

void printNetworkReport(const ENetHost* host, std::uint32_t bytesReceived) {
    const std::uint32_t received = host ? host->totalReceivedData : 0;
    const std::uint32_t receivedPackets = host ? host->totalReceivedPackets : 0;
    const std::uint32_t sent = host ? host->totalSentData : 0;
    const std::uint32_t sentPackets = host ? host->totalSentPackets : 0;

    logMessage("");
    logMessage("Bytes received: " + amountText(bytesReceived));
    logMessage("");
    logMessage("Total received: " + amountText(received));
    logMessage("In " + std::to_string(receivedPackets) + " packets");
    logMessage("");
    logMessage("Total send: " + amountText(sent));
    logMessage("In " + std::to_string(sentPackets) + " packets");
    logMessage("");
}

void printLoadReport(const RoomRegistry& rooms) {
    logMessage("");
    for (const auto& [id, room] : rooms.byId)
        logMessage("Room " + std::to_string(room->id) + " - Net: " + std::to_string(room->match.lagReports) +
                   " - CPU: " + std::to_string(room->match.delayHold));
    logMessage("");
}
