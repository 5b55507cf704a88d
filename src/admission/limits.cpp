#include "admission/limits.h"

#include <cctype>

#include "admission/setting_lines.h"

namespace {

struct Entry {
    std::string name;
    std::uint64_t Limits::*plain = nullptr;
    // For the rates of the message groups, which live in an array.
    int group = -1;
    bool burst = false;
    Rate Limits::*rate = nullptr;
};

std::vector<Entry> entries() {
    std::vector<Entry> e;
    for (std::size_t g = 0; g < kGroupCount; ++g) {
        e.push_back({std::string(kGroupNames[g]) + "_per_second", nullptr, static_cast<int>(g), false});
        e.push_back({std::string(kGroupNames[g]) + "_burst", nullptr, static_cast<int>(g), true});
    }
    e.push_back({"reports_bytes_per_second", nullptr, -1, false, &Limits::reportBytes});
    e.push_back({"reports_bytes_burst", nullptr, -1, true, &Limits::reportBytes});
    e.push_back({"update_bytes_per_second", nullptr, -1, false, &Limits::updateBytes});
    e.push_back({"update_bytes_burst", nullptr, -1, true, &Limits::updateBytes});
    e.push_back({"reply_bytes_per_second", nullptr, -1, false, &Limits::replyBytes});
    e.push_back({"reply_bytes_burst", nullptr, -1, true, &Limits::replyBytes});
    e.push_back({"lobby_chat_bytes_per_second", nullptr, -1, false, &Limits::lobbyChatBytes});
    e.push_back({"lobby_chat_bytes_burst", nullptr, -1, true, &Limits::lobbyChatBytes});
    const std::pair<const char*, std::uint64_t Limits::*> plain[] = {
        {"overbudget_disconnect_seconds", &Limits::overbudgetDisconnectSeconds},
        {"malformed_lines_per_peer", &Limits::malformedLinesPerPeer},
        {"max_outgoing_bytes_per_peer", &Limits::maxOutgoingBytesPerPeer},
        {"max_waiting_bytes_per_peer", &Limits::maxWaitingBytesPerPeer},
        {"max_waiting_bytes_total", &Limits::maxWaitingBytesTotal},
        {"address_budget_multiple", &Limits::addressBudgetMultiple},
        {"chat_drop_queued_bytes", &Limits::chatDropQueuedBytes},
        {"max_rooms", &Limits::maxRooms},
        {"join_failures_per_peer_per_minute", &Limits::joinFailuresPerPeerPerMinute},
        {"join_failures_per_room_per_minute", &Limits::joinFailuresPerRoomPerMinute},
        {"rooms_per_peer_per_minute", &Limits::roomsPerPeerPerMinute},
        {"rooms_per_address_per_minute", &Limits::roomsPerAddressPerMinute},
        {"download_bytes_in_flight", &Limits::downloadBytesInFlight},
        {"download_bytes_in_flight_per_address", &Limits::downloadBytesInFlightPerAddress},
        {"download_stall_seconds", &Limits::downloadStallSeconds},
        {"download_requests_per_peer", &Limits::downloadRequestsPerPeer},
        {"worker_jobs_per_peer", &Limits::workerJobsPerPeer},
        {"worker_bytes_per_peer", &Limits::workerBytesPerPeer},
        {"announcements_max_bytes", &Limits::announcementsMaxBytes},
        {"recording_max_bytes", &Limits::recordingMaxBytes},
        {"recordings_max_bytes", &Limits::recordingsMaxBytes},
        {"recording_pending_bytes", &Limits::recordingPendingBytes},
        {"snapshot_wait_ms", &Limits::snapshotWaitMs},
        {"snapshot_max_bytes", &Limits::snapshotMaxBytes},
        {"catchup_bytes_in_flight", &Limits::catchupBytesInFlight},
        {"catchup_queue_bytes", &Limits::catchupQueueBytes},
        {"rejoin_failures_per_address_per_minute", &Limits::rejoinFailuresPerAddressPerMinute},
        {"max_peers_per_address", &Limits::maxPeersPerAddress},
        {"connects_per_address_per_minute", &Limits::connectsPerAddressPerMinute},
        {"reports_bytes_per_day", &Limits::reportsBytesPerDay},
        {"reports_per_peer_per_hour", &Limits::reportsPerPeerPerHour},
        {"resync_bytes_per_room", &Limits::resyncBytesPerRoom},
        {"metrics_workers", &Limits::metricsWorkers},
        {"metrics_waiting_connections", &Limits::metricsWaitingConnections},
        {"metrics_request_bytes", &Limits::metricsRequestBytes},
        {"metrics_timeout_seconds", &Limits::metricsTimeoutSeconds},
        {"metrics_request_seconds", &Limits::metricsRequestSeconds},
        {"metrics_requests_per_connection", &Limits::metricsRequestsPerConnection},
    };
    for (const auto& [name, field] : plain) e.push_back({name, field});
    return e;
}

std::uint64_t& fieldOf(Limits& limits, const Entry& e) {
    if (e.plain != nullptr) return limits.*e.plain;
    Rate& r = e.rate != nullptr ? limits.*e.rate : limits.messages[static_cast<std::size_t>(e.group)];
    return e.burst ? r.burst : r.perSecond;
}


// Digits, then optionally KiB, MiB or GiB (blanks between allowed); false on
// anything else or on a value that does not fit.
bool parseValue(const std::string& text, std::uint64_t& out) {
    std::size_t i = 0;
    std::uint64_t v = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
        std::uint64_t d = static_cast<std::uint64_t>(text[i] - '0');
        if (v > (UINT64_MAX - d) / 10) return false;
        v = v * 10 + d;
        ++i;
    }
    if (i == 0) return false;
    std::string unit = trim(text.substr(i));
    std::uint64_t scale = 1;
    if (unit == "KiB") scale = 1024;
    else if (unit == "MiB") scale = kMiB;
    else if (unit == "GiB") scale = 1024 * kMiB;
    else if (!unit.empty()) return false;
    if (v > UINT64_MAX / scale) return false;
    out = v * scale;
    return true;
}

}  // namespace

std::vector<std::string> limitNames() {
    std::vector<std::string> names;
    for (const Entry& e : entries()) names.push_back(e.name);
    return names;
}

Limits parseLimits(const std::string& text, const std::string& fileName, std::vector<std::string>& problems) {
    Limits limits;
    const std::vector<Entry> known = entries();
    for (const auto& [lineNumber, line] : settingLines(text)) {
        const std::string where = fileName + " line " + std::to_string(lineNumber) + ": ";
        std::size_t eq = line.find('=');
        if (eq == std::string::npos) {
            problems.push_back(where + "not \"name = value\"; line ignored");
            continue;
        }
        const std::string name = trim(line.substr(0, eq));
        const std::string valueText = trim(line.substr(eq + 1));
        const Entry* entry = nullptr;
        for (const Entry& e : known)
            if (e.name == name) entry = &e;
        if (entry == nullptr) {
            problems.push_back(where + "unknown limit \"" + name + "\"; line ignored");
            continue;
        }
        std::uint64_t value = 0;
        if (!parseValue(valueText, value)) {
            problems.push_back(where + "bad value \"" + valueText + "\" for " + name + "; line ignored");
            continue;
        }
        fieldOf(limits, *entry) = value;
    }
    return limits;
}
