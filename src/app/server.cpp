#include "app/server.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "admission/peer_record.h"
#include "admission/setting_lines.h"
#include "log/log.h"
#include "platform/clock.h"
#include "platform/files.h"
#include "protocol/send.h"
#include "stats/netreport.h"

namespace {

// The leading integer of a line: blanks skipped, an optional sign, then
// digits; no digits gives 0. Wraps like unsigned arithmetic so that only the
// low bits matter.
std::uint64_t leadingInteger(const std::string& line) {
    std::size_t i = 0;
    while (i < line.size() && std::isspace(static_cast<unsigned char>(line[i]))) ++i;
    bool negative = false;
    if (i < line.size() && (line[i] == '+' || line[i] == '-')) {
        negative = line[i] == '-';
        ++i;
    }
    std::uint64_t value = 0;
    while (i < line.size() && std::isdigit(static_cast<unsigned char>(line[i]))) {
        value = value * 10 + static_cast<std::uint64_t>(line[i] - '0');
        ++i;
    }
    return negative ? ~value + 1 : value;
}

}  // namespace

ServerConfig parseServerConfig(const std::string& text) {
    std::string lines[3];
    std::size_t pos = 0;
    for (int n = 0; n < 3 && pos < text.size(); ++n) {
        std::size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end == std::string::npos ? std::string::npos : end - pos);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        lines[n] = std::move(line);
        pos = end == std::string::npos ? text.size() : end + 1;
    }
    ServerConfig config;
    const std::uint64_t port = leadingInteger(lines[0]);
    config.port = static_cast<std::uint16_t>(port);
    if (port > 65535)
        config.warnings.push_back("settings/server.config: port " + lines[0].substr(0, 40) +
                                  " is above 65535; listening on " + std::to_string(config.port) + " (its low 16 bits)");
    config.description = lines[1];
    config.statisticsEnabled = leadingInteger(lines[2]) != 0;
    return config;
}

ServerConfig readServerConfig() {
    std::string text;
    if (!readSmallTextFile(dataRootPrefix() + "settings/server.config", 1024 * 1024, text)) {
        ServerConfig defaults;
        defaults.warnings.push_back("no settings/server.config in the data root " + dataRootPrefix() +
                                    "; using port " + std::to_string(kDefaultPort) + ", an empty description and no statistics");
        return defaults;
    }
    return parseServerConfig(text);
}

bool startServer(Server& server) {
    resetStatistics(server.statistics);
    logMessage("Server protocol version: " + std::to_string(kProtocolVersion));
    server.eventDumpArmed = true;
    server.bytesReceived = 0;
    ServerConfig config = readServerConfig();
    for (const auto& warning : config.warnings) std::fprintf(stderr, "lockstep-server: warning: %s\n", warning.c_str());
    server.serverDescription = config.description;
    server.statisticsEnabled = config.statisticsEnabled;
    server.rooms.nextRoomId = 1;
    server.rooms.recordings = &server.recordings;
    server.rooms.storage = &server.storage;
    server.recordings.serverVersion = LOCKSTEP_VERSION;

    ENetAddress address;
    address.host = ENET_HOST_ANY;
    address.port = config.port;
    server.host = enet_host_create(&address, kMaxPeers, kChannelCount, 0, 0);
    if (server.host == nullptr) {
        // Said where a service manager shows it: most often another instance
        // holds the port, and restarting will not help.
        std::fprintf(stderr, "lockstep-server: cannot open UDP port %u; is another server using it?\n",
                     static_cast<unsigned>(config.port));
        logError("|||| An error occurred while trying to create an ENet server host.\n");
        return false;
    }
    // A packet, once reassembled, is at most the largest message: 32 MiB
    // carries the largest update file and report that the protocol can
    // describe in practice.
    server.host->maximumPacketSize = kMaxPacketSize;
    applyLimits(server);
    installConnectionGate(server.host, &server.connections);
    logMessage("Enet server created at " + std::to_string(server.host->address.host) + ":" +
               std::to_string(server.host->address.port));
    if (std::size_t n = removeLeftoverTemporaries(dataRootPrefix() + "server_data", {"update_data", "announcements"}))
        logMessage("Removed " + std::to_string(n) + " temporary files left by an earlier run");
    recordEvent(server.events, 2, "__SERVER__", 0, "", 0, "", static_cast<std::uint32_t>(unixNow()));
    return true;
}

void loadLimits(Server& server) {
    if (server.limitsFile.empty()) server.limitsFile = dataRootPrefix() + "settings/limits.conf";
    server.storage.submit([&server, path = server.limitsFile, named = server.limitsFileNamed]() -> Storage::Completion {
        std::string text;
        const bool read = readSmallTextFile(path, 1024 * 1024, text);
        return [&server, path, named, read, text = std::move(text)] {
            std::vector<std::string> problems;
            if (!read && named) problems.push_back(path + ": cannot be read; the default limits apply");
            server.limits = parseLimits(read ? text : std::string(), path, problems);
            reportProblems(problems);
            applyLimits(server);
        };
    });
}

void applyLimits(Server& server) {
    const Limits& l = server.limits;
    server.connections.maxPeersPerAddress = l.maxPeersPerAddress;
    server.connections.connectsPerMinute = l.connectsPerAddressPerMinute;
    setOutgoingLimit(l.maxOutgoingBytesPerPeer);
    server.downloads.maxInFlight = l.downloadBytesInFlight;
    server.downloads.maxInFlightPerAddress = l.downloadBytesInFlightPerAddress;
    server.downloads.stallMicros = l.downloadStallSeconds * 1'000'000;
    server.downloads.maxWaitingPerPeer = l.downloadRequestsPerPeer;
    server.announcements.maxBytes = l.announcementsMaxBytes;
    server.rooms.joinFailuresPerPeer = static_cast<std::uint32_t>(l.joinFailuresPerPeerPerMinute);
    server.rooms.joinFailuresPerRoom = static_cast<std::uint32_t>(l.joinFailuresPerRoomPerMinute);
    server.recordings.limits.maxFileBytes = l.recordingMaxBytes;
    server.recordings.limits.maxDirectoryBytes = l.recordingsMaxBytes;
    server.recordings.limits.maxPendingBytes = l.recordingPendingBytes;
    MatchAccess& access = server.rooms.access;
    access.snapshotWaitMicros = l.snapshotWaitMs * 1000;
    access.snapshotMaxBytes = l.snapshotMaxBytes;
    access.failuresPerAddress = static_cast<std::uint32_t>(l.rejoinFailuresPerAddressPerMinute);
    server.rooms.catchUps.limits.bytesInFlight = l.catchupBytesInFlight;
    server.rooms.catchUps.limits.queueBytes = l.catchupQueueBytes;
    Storage::Shares shares;
    shares.jobsPerPeer = l.workerJobsPerPeer;
    shares.bytesPerPeer = l.workerBytesPerPeer;
    server.storage.setShares(shares);
    if (server.host != nullptr)
        server.host->maximumWaitingData = l.maxWaitingBytesPerPeer != 0 ? l.maxWaitingBytesPerPeer : SIZE_MAX;
}

void stopServer(Server& server) {
    printNetworkReport(server.host, server.bytesReceived);
    if (server.statisticsEnabled) dumpStatistics(server.storage, server.statistics, "close");
    for (auto& [id, room] : server.rooms.byId) endRecording(server.storage, room->match.recording, 1, room->match.lastCompletedStep);
    // Every queued write lands, and is logged, before the rooms and peers go.
    server.storage.stop();
    server.rooms.places.clear();
    for (std::vector<Room*>& slot : server.rooms.delayWheel) slot.clear();
    server.rooms.newlyRunning.clear();
    server.rooms.passesDue.clear();
    server.rooms.byId.clear();
    for (ENetPeer* peer : server.peers) {
        delete recordOf(peer);
        peer->data = nullptr;
        enet_peer_disconnect(peer, 0);
    }
    if (server.host != nullptr) {
        installConnectionGate(server.host, nullptr);
        enet_host_flush(server.host);
        enet_host_destroy(server.host);
        server.host = nullptr;
        logMessage("Enet server destroyed");
    }
    server.peers.clear();
    server.events.clear();
    server.serverDescription.clear();
}
