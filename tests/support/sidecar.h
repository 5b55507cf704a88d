#pragma once
// A stand-in for the Agones SDK sidecar: an HTTP server on 127.0.0.1 that
// records every call and can be down, slow or answer with errors.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace httplib {
class Server;
}

struct SidecarRecord {
    std::string method;
    std::string path;
    std::string body;
};

class StandInSidecar {
public:
    // Listens on port (a free one when 0) at once, unless down.
    explicit StandInSidecar(std::uint16_t port = 0, bool down = false);
    ~StandInSidecar();
    StandInSidecar(const StandInSidecar&) = delete;
    StandInSidecar& operator=(const StandInSidecar&) = delete;

    void start();
    void stop();
    std::uint16_t port() const { return port_; }
    // Every answer waits this long first.
    void setDelay(std::chrono::milliseconds delay);
    // Every call is answered with this status (200 again with 200).
    void setStatus(int status);

    std::vector<SidecarRecord> calls() const;
    // "METHOD path" of every call, in order.
    std::vector<std::string> callNames() const;
    std::size_t count(const std::string& method, const std::string& path) const;
    // True once done() holds for the calls within the time-out.
    bool waitFor(const std::function<bool(const std::vector<SidecarRecord>&)>& done, int timeoutMs = 5000) const;

private:
    std::uint16_t port_;
    mutable std::mutex mutex_;
    std::vector<SidecarRecord> calls_;
    std::chrono::milliseconds delay_{0};
    int status_ = 200;
    std::unique_ptr<httplib::Server> server_;
    std::thread thread_;
};
