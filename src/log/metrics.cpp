#include "log/metrics.h"

#include <chrono>
#include <cstdio>

#include "platform/files.h"
#include "platform/process.h"

MetricsCounters& metrics() {
    static MetricsCounters counters;
    return counters;
}

namespace {
std::atomic<bool> stepTiming{false};
}

void enableStepTiming() { stepTiming.store(true); }
bool stepTimingEnabled() { return stepTiming.load(std::memory_order_relaxed); }

std::uint64_t monotonicMicros() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

void Histogram::observe(double seconds) {
    std::size_t i = 0;
    while (i < bounds.size() && seconds > bounds[i]) ++i;
    counts[i].fetch_add(1, std::memory_order_relaxed);
    sumMicros.fetch_add(static_cast<std::uint64_t>(seconds * 1e6), std::memory_order_relaxed);
    count.fetch_add(1, std::memory_order_relaxed);
}

void observeStepCompletion(double seconds) { metrics().stepCompletion.observe(seconds); }

namespace {
const char* channelName(std::size_t c) {
    static const char* names[] = {"lobby", "text", "match_control", "order", "reports", "event_tracking", "file_update", "other"};
    return names[c];
}

void family(std::string& out, const char* name, const char* type, const char* help) {
    out += "# HELP ";
    out += name;
    out += ' ';
    out += help;
    out += "\n# TYPE ";
    out += name;
    out += ' ';
    out += type;
    out += '\n';
}

void sample(std::string& out, const std::string& name, std::uint64_t value) {
    out += name;
    out += ' ';
    out += std::to_string(value);
    out += '\n';
}

void perChannel(std::string& out, const char* name, const char* help,
                const std::array<std::atomic<std::uint64_t>, MetricsCounters::kChannels>& values) {
    family(out, name, "counter", help);
    for (std::size_t c = 0; c < values.size(); ++c)
        sample(out, std::string(name) + "{channel=\"" + std::to_string(c < 7 ? c : 255) + "\",name=\"" +
                        channelName(c) + "\"}",
               values[c].load(std::memory_order_relaxed));
}

std::string number(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

void histogram(std::string& out, const std::string& name, const char* help, const Histogram& h) {
    family(out, name.c_str(), "histogram", help);
    std::uint64_t cumulative = 0;
    for (std::size_t i = 0; i < h.bounds.size(); ++i) {
        cumulative += h.counts[i].load();
        sample(out, name + "_bucket{le=\"" + number(h.bounds[i]) + "\"}", cumulative);
    }
    cumulative += h.counts.back().load();
    sample(out, name + "_bucket{le=\"+Inf\"}", cumulative);
    out += name + "_sum " + number(static_cast<double>(h.sumMicros.load()) / 1e6) + "\n";
    sample(out, name + "_count", h.count.load());
}
}  // namespace

double loopTurnAgeSeconds(std::uint64_t nowMicros) {
    std::uint64_t last = metrics().lastTurnMicros.load(std::memory_order_relaxed);
    return nowMicros > last ? static_cast<double>(nowMicros - last) / 1e6 : 0.0;
}

HealthAnswer loopHealth(std::uint64_t nowMicros) {
    std::uint64_t last = metrics().lastTurnMicros.load(std::memory_order_relaxed);
    // The caller read its clock before this load: a turn that began in
    // between is newer than "now", and is as fresh as a turn can be.
    if (last != 0 && (last >= nowMicros || nowMicros - last <= kHealthyTurnAgeMicros)) return {200, "ok\n"};
    if (last == 0) return {503, "the main loop has not turned yet\n"};
    return {503, "the main loop last turned " + number(loopTurnAgeSeconds(nowMicros)) + " s ago\n"};
}

HealthAnswer readiness() {
    if (metrics().draining.load()) return {503, "draining\n"};
    if (metrics().listening.load()) return {200, "ready\n"};
    return {503, "not listening yet\n"};
}

std::string renderMetrics(std::int64_t nowUnix, std::uint64_t nowMicros) {
    auto& m = metrics();
    std::string out;
    out.reserve(4096);
    family(out, "lockstep_build_info", "gauge", "Always 1; the version of the running server is its label.");
    out += "lockstep_build_info{version=\"" LOCKSTEP_VERSION "\"} 1\n";
    family(out, "lockstep_peers_connected", "gauge", "Registered peers.");
    sample(out, "lockstep_peers_connected", m.peersConnected.load());
    family(out, "lockstep_rooms", "gauge", "Rooms in the registry.");
    sample(out, "lockstep_rooms", m.rooms.load());
    family(out, "lockstep_matches_running", "gauge", "Rooms whose match is running.");
    sample(out, "lockstep_matches_running", m.matchesRunning.load());
    family(out, "lockstep_storage_pending_jobs", "gauge", "Disk jobs queued or running on the storage worker.");
    sample(out, "lockstep_storage_pending_jobs", m.storagePending.load());
    family(out, "lockstep_disk_write_failures_total", "counter",
           "Files that could not be written or appended to whole (full or failing disk).");
    sample(out, "lockstep_disk_write_failures_total", diskWriteFailures());
    family(out, "lockstep_draining", "gauge", "1 while a drain runs: no new games, the server stops when the matches end.");
    sample(out, "lockstep_draining", m.draining.load() ? 1 : 0);
    family(out, "lockstep_download_bytes_in_flight", "gauge", "Update file bytes handed to the transport.");
    sample(out, "lockstep_download_bytes_in_flight", m.downloadBytesInFlight.load());
    family(out, "lockstep_chat_lines_dropped_total", "counter",
           "Lobby chat lines not sent to a recipient with too much queued.");
    sample(out, "lockstep_chat_lines_dropped_total", m.chatLinesDropped.load());
    family(out, "lockstep_recordings_written_total", "counter", "Matches recorded whole (--record).");
    sample(out, "lockstep_recordings_written_total", m.recordingsWritten.load());
    family(out, "lockstep_recording_bytes_total", "counter", "Bytes of recordings written.");
    sample(out, "lockstep_recording_bytes_total", m.recordingBytes.load());
    family(out, "lockstep_recordings_lost_total", "counter",
           "Recordings stopped short: the disk fell behind, a cap was reached or a write failed.");
    sample(out, "lockstep_recordings_lost_total", m.recordingsLost.load());
    family(out, "lockstep_rejoins_total", "counter", "Players back in their match after a lost connection (--rejoin).");
    sample(out, "lockstep_rejoins_total", m.rejoins.load());
    family(out, "lockstep_rejoins_refused_total", "counter",
           "Rejoins refused: a wrong, spent or expired token, or over the guessing budget.");
    sample(out, "lockstep_rejoins_refused_total", m.rejoinsRefused.load());
    family(out, "lockstep_catchup_bytes_total", "counter",
           "Bytes of matches' streams sent to rejoined players and spectators.");
    sample(out, "lockstep_catchup_bytes_total", m.catchUpBytes.load());
    perChannel(out, "lockstep_messages_received_total", "Packets received, by channel.", m.messagesIn);
    perChannel(out, "lockstep_received_bytes_total", "Packet bytes received, by channel.", m.bytesIn);
    perChannel(out, "lockstep_messages_sent_total", "Packets sent (one per recipient), by channel.", m.messagesOut);
    perChannel(out, "lockstep_sent_bytes_total", "Packet bytes sent (per recipient), by channel.", m.bytesOut);
    family(out, "lockstep_malformed_dropped_total", "counter", "Messages dropped because they could not be decoded.");
    sample(out, "lockstep_malformed_dropped_total", m.malformedDropped.load());
    family(out, "lockstep_unknown_dropped_total", "counter", "Messages dropped because their type is unknown.");
    sample(out, "lockstep_unknown_dropped_total", m.unknownDropped.load());
    family(out, "lockstep_budget_dropped_total", "counter", "Messages dropped over their sender's budget, by group.");
    static const char* const groups[] = {"lobby", "text", "orders", "reports", "events", "update"};
    for (std::size_t g = 0; g < m.budgetDrops.size(); ++g)
        sample(out, std::string("lockstep_budget_dropped_total{group=\"") + groups[g] + "\"}", m.budgetDrops[g].load());
    family(out, "lockstep_limit_fired_total", "counter",
           "Times a limit refused a connection, a message, a reply or a room, or cut off a peer, by the limit's name.");
    static const char* const limits[] = {"overbudget_disconnect_seconds", "max_outgoing_bytes_per_peer",
                                         "max_waiting_bytes_total", "connects_per_address_per_minute",
                                         "max_peers_per_address", "bans", "reports_bytes_per_day",
                                         "reports_per_peer_per_hour", "resync_bytes_per_room",
                                         "worker_jobs_per_peer", "reply_bytes_per_second",
                                         "lobby_chat_bytes_per_second", "max_rooms", "rooms_per_peer_per_minute",
                                         "download_stall_seconds", "download_requests_per_peer"};
    static_assert(std::size(limits) == static_cast<std::size_t>(LimitFired::count));
    for (std::size_t i = 0; i < std::size(limits); ++i)
        sample(out, std::string("lockstep_limit_fired_total{limit=\"") + limits[i] + "\"}", m.limitsFired[i].load());
    family(out, "lockstep_desyncs_total", "counter", "Desyncs declared.");
    sample(out, "lockstep_desyncs_total", m.desyncs.load());
    family(out, "lockstep_steps_completed_total", "counter", "Steps announced as completed.");
    sample(out, "lockstep_steps_completed_total", m.stepsCompleted.load());
    histogram(out, "lockstep_step_completion_seconds",
              "Time from the first step-done report of a step to its completion notice.", m.stepCompletion);
    histogram(out, "lockstep_loop_turn_seconds", "The main loop's own work per turn, the wait for traffic left out.",
              m.loopTurn);
    histogram(out, "lockstep_loop_turn_cpu_seconds", "The same turns in CPU time of the loop's thread.",
              m.loopTurnCpu);
    family(out, "lockstep_loop_wakeups_total", "counter", "Main loop iterations.");
    sample(out, "lockstep_loop_wakeups_total", m.loopWakeups.load());
    family(out, "lockstep_uptime_seconds", "gauge", "Seconds since the server started.");
    std::int64_t up = nowUnix - m.startUnix.load();
    sample(out, "lockstep_uptime_seconds", static_cast<std::uint64_t>(up > 0 ? up : 0));
    family(out, "lockstep_loop_last_turn_age_seconds", "gauge", "Seconds since the main loop last turned.");
    out += "lockstep_loop_last_turn_age_seconds " + number(loopTurnAgeSeconds(nowMicros)) + "\n";

    ProcessFigures p;
    if (readProcessFigures(p)) {
        family(out, "process_cpu_seconds_total", "counter", "Total user and system CPU time spent in seconds.");
        out += "process_cpu_seconds_total " + number(p.cpuSeconds) + "\n";
        family(out, "process_resident_memory_bytes", "gauge", "Resident memory size in bytes.");
        sample(out, "process_resident_memory_bytes", p.residentBytes);
        family(out, "process_virtual_memory_bytes", "gauge", "Virtual memory size in bytes.");
        sample(out, "process_virtual_memory_bytes", p.virtualBytes);
        family(out, "process_open_fds", "gauge", "Number of open file descriptors.");
        sample(out, "process_open_fds", p.openFds);
        family(out, "process_max_fds", "gauge", "Maximum number of open file descriptors.");
        sample(out, "process_max_fds", p.maxFds);
        family(out, "process_start_time_seconds", "gauge", "Start time of the process since unix epoch in seconds.");
        char start[32];
        std::snprintf(start, sizeof start, "%.2f", p.startTimeSeconds);
        out += std::string("process_start_time_seconds ") + start + "\n";
    }
    return out;
}
