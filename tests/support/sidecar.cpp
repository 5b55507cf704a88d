#include "support/sidecar.h"

#include <httplib.h>

#include "support/server_process.h"

StandInSidecar::StandInSidecar(std::uint16_t port, bool down) : port_(port != 0 ? port : freePort(true)) {
    if (!down) start();
}

StandInSidecar::~StandInSidecar() { stop(); }

void StandInSidecar::start() {
    if (server_) return;
    server_ = std::make_unique<httplib::Server>();
    auto record = [this](const httplib::Request& req, httplib::Response& res) {
        std::chrono::milliseconds delay;
        int status;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            calls_.push_back(SidecarRecord{req.method, req.path, req.body});
            delay = delay_;
            status = status_;
        }
        std::this_thread::sleep_for(delay);
        res.status = status;
        res.set_content(status == 200 ? "{}" : "{\"error\":\"stand-in failing\"}", "application/json");
    };
    server_->Post(".*", record);
    server_->Put(".*", record);
    server_->Patch(".*", record);
    httplib::Server* s = server_.get();
    s->bind_to_port("127.0.0.1", port_);
    thread_ = std::thread([s] { s->listen_after_bind(); });
    // Bound already, so calls queue up; stop() needs the loop running.
    while (!s->is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

void StandInSidecar::stop() {
    if (!server_) return;
    server_->stop();
    thread_.join();
    server_.reset();
}

void StandInSidecar::setDelay(std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(mutex_);
    delay_ = delay;
}

void StandInSidecar::setStatus(int status) {
    std::lock_guard<std::mutex> lock(mutex_);
    status_ = status;
}

std::vector<SidecarRecord> StandInSidecar::calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
}

std::vector<std::string> StandInSidecar::callNames() const {
    std::vector<std::string> names;
    for (const SidecarRecord& r : calls()) names.push_back(r.method + " " + r.path);
    return names;
}

std::size_t StandInSidecar::count(const std::string& method, const std::string& path) const {
    std::size_t n = 0;
    for (const SidecarRecord& r : calls()) n += r.method == method && r.path == path;
    return n;
}

bool StandInSidecar::waitFor(const std::function<bool(const std::vector<SidecarRecord>&)>& done, int timeoutMs) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done(calls())) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}
