#include "app/agones.h"

#include <cstdlib>

#include <httplib.h>

#include "app/server.h"
#include "log/log.h"

SidecarClient::SidecarClient(std::string host, std::uint16_t port, SidecarReport report)
    : host_(std::move(host)), port_(port), report_(std::move(report)) {
    worker_ = std::thread([this] { run(); });
}

SidecarClient::~SidecarClient() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    worker_.join();
}

void SidecarClient::post(SidecarCall call) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        Entry* same = nullptr;
        for (Entry& e : queue_)
            if (e.call.method == call.method && e.call.path == call.path) same = &e;
        if (same != nullptr) {
            same->call = std::move(call);
            same->version = ++versions_;
        } else {
            queue_.push_back(Entry{std::move(call), ++versions_});
        }
    }
    changed_.notify_all();
}

bool SidecarClient::flush(std::chrono::milliseconds bound) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, bound, [&] { return queue_.empty(); });
}

SidecarClient::Outcome SidecarClient::send(const SidecarCall& call) {
    httplib::Client http(host_, port_);
    http.set_connection_timeout(1);
    http.set_read_timeout(2);
    http.set_write_timeout(2);
    httplib::Result res = call.method == "PATCH" ? http.Patch(call.path, call.body, "application/json")
                          : call.method == "PUT" ? http.Put(call.path, call.body, "application/json")
                                                 : http.Post(call.path, call.body, "application/json");
    const std::string what = call.method + " " + call.path;
    auto failed = [&](const std::string& why, Outcome outcome) {
        if (failuresInRun_++ == 0)
            report_("Agones: " + what + " " + why +
                       (outcome == Outcome::retry ? "; calls are retried with back-off" : "; not retried") +
                       " (logged once until the sidecar answers again)");
        return outcome;
    };
    if (!res) return failed("reached no sidecar at " + host_ + ":" + std::to_string(port_) + " (" +
                                httplib::to_string(res.error()) + ")", Outcome::retry);
    if (res->status >= 500 || res->status == 429)
        return failed("answered " + std::to_string(res->status), Outcome::retry);
    if (res->status >= 300) return failed("refused with " + std::to_string(res->status), Outcome::refused);
    if (failuresInRun_ != 0) {
        report_("Agones: the sidecar answers again after " + std::to_string(failuresInRun_) + " failed calls");
        failuresInRun_ = 0;
    }
    return Outcome::done;
}

void SidecarClient::run() {
    std::chrono::milliseconds backOff = kFirstRetry;
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
        if (stopping_) return;
        const Entry entry = queue_.front();
        lock.unlock();
        const Outcome outcome = send(entry.call);
        lock.lock();
        if (outcome == Outcome::retry) {
            changed_.wait_for(lock, backOff, [&] { return stopping_; });
            backOff = std::min(backOff * 2, kLongestRetry);
            continue;
        }
        backOff = kFirstRetry;
        // A newer call to the same endpoint that came meanwhile stays.
        if (!queue_.empty() && queue_.front().version == entry.version) queue_.pop_front();
        changed_.notify_all();
    }
}

std::uint16_t sidecarPort() {
    const char* text = std::getenv("AGONES_SDK_HTTP_PORT");
    if (text == nullptr) return 9358;
    char* end = nullptr;
    const unsigned long port = std::strtoul(text, &end, 10);
    return end != text && *end == '\0' && port > 0 && port <= 65535 ? static_cast<std::uint16_t>(port) : 9358;
}

std::string counterBody(std::uint64_t count, std::uint64_t capacity) {
    // Int64 values travel as JSON strings in the gateway's mapping.
    return "{\"count\":\"" + std::to_string(count) + "\",\"capacity\":\"" + std::to_string(capacity) + "\"}";
}

// The sidecar listens on the pod's loopback. Its address, not the name
// "localhost", so that no name lookup stands between a health ping and the
// sidecar (a container without /etc/hosts resolves no "localhost").
Agones::Agones(std::uint16_t port, std::uint32_t healthSeconds, SidecarReport report)
    : port(port), client("127.0.0.1", port, std::move(report)), healthEvery(std::chrono::seconds(healthSeconds)) {}

void agonesReady(Agones& agones) {
    logMessage("Agones: the sidecar is at 127.0.0.1:" + std::to_string(agones.port));
    agones.client.post({"POST", "/ready", "{}"});
    agones.client.post({"PUT", "/metadata/label", "{\"key\":\"lockstep-version\",\"value\":\"" LOCKSTEP_VERSION "\"}"});
}

void agonesTurn(Agones& agones, const Server& server, std::chrono::steady_clock::time_point now) {
    if (now >= agones.nextHealth) {
        agones.client.post({"POST", "/health", "{}"});
        agones.nextHealth = now + agones.healthEvery;
    }
    if (now < agones.nextCounters) return;
    const std::uint64_t players = server.peers.size(), rooms = server.rooms.byId.size();
    if (players == agones.players && rooms == agones.rooms) return;
    if (players != agones.players)
        agones.client.post({"PATCH", std::string("/v1beta1/counters/") + kPlayersCounter,
                            counterBody(players, kMaxPeers)});
    if (rooms != agones.rooms)
        agones.client.post({"PATCH", std::string("/v1beta1/counters/") + kRoomsCounter,
                            counterBody(rooms, std::max(rooms, kRoomsCapacity))});
    agones.players = players;
    agones.rooms = rooms;
    agones.nextCounters = now + std::chrono::seconds(1);
}

void agonesShutdown(Agones& agones) {
    agones.client.post({"POST", "/shutdown", "{}"});
    if (!agones.client.flush(std::chrono::seconds(3)))
        logMessage("Agones: the sidecar has not taken every call; stopping without it");
}
