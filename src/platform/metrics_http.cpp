#include "platform/metrics_http.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

// Debian's cpp-httplib is a compiled library: the CPPHTTPLIB_* limits were
// fixed when it was built, and defining them here would change nothing. The
// bounds are therefore enforced below, on the connection, where they hold
// whatever the library does with a request.
#include <httplib.h>

namespace {

using Clock = std::chrono::steady_clock;

bool served(const std::string& method) { return method == "GET" || method == "HEAD"; }

// Set on the accepting thread while it hands the server a connection that
// has no place: the server then closes it unread.
thread_local bool refusing = false;
// When the connection a worker is about to serve was accepted.
thread_local Clock::time_point acceptedAt;

// The library's own pool queues without bound. This one holds a fixed number
// of connections waiting; when they are all taken, the one that has waited
// longest is closed, for a client that holds its place while saying nothing
// would otherwise shut out every scraper. enqueue() cannot hand a job back,
// so a refused job is run at once with `refusing` set.
class BoundedQueue final : public httplib::TaskQueue {
public:
    // At least one place waits: a refusal makes room by closing the oldest.
    BoundedQueue(std::size_t workers, std::size_t waiting) : waiting_(std::max<std::size_t>(waiting, 1)) {
        for (std::size_t i = 0; i < workers; ++i) threads_.emplace_back([this] { work(); });
    }

    void enqueue(std::function<void()> job) override {
        std::function<void()> refused;
        {
            std::lock_guard lock(mutex_);
            if (jobs_.size() == waiting_) {
                refused = std::move(jobs_.front());
                jobs_.pop_front();
            }
            jobs_.push_back([job = std::move(job), at = Clock::now()] {
                acceptedAt = at;
                job();
            });
        }
        wake_.notify_one();
        if (refused) {
            refusing = true;
            refused();
            refusing = false;
        }
    }

    // Called once the server has stopped: the jobs still waiting only close
    // their sockets.
    void shutdown() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        wake_.notify_all();
        for (auto& t : threads_) t.join();
    }

private:
    void work() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lock(mutex_);
                wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
                if (jobs_.empty()) return;
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job();
        }
    }

    const std::size_t waiting_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::vector<std::thread> threads_;
};

// The numeric address and port of one end of the connection.
void nameOf(int (*get)(int, sockaddr*, socklen_t*), int sock, std::string& ip, int& port) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    char host[NI_MAXHOST], service[NI_MAXSERV];
    ip.clear();
    port = 0;
    if (get(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
        getnameinfo(reinterpret_cast<sockaddr*>(&address), length, host, sizeof host, service, sizeof service,
                    NI_NUMERICHOST | NI_NUMERICSERV) == 0) {
        ip = host;
        port = std::atoi(service);
    }
}

// One connection as the library reads and writes it. A client is silent from
// its last byte, and its first request from the moment it was accepted: time
// spent waiting for a worker counts, so that the clients that hold the
// workers while saying nothing are dropped together, not a few at a time.
// Every wait also ends at the request's deadline and when the endpoint stops;
// reading stops at the request's byte budget.
class Connection final : public httplib::Stream {
public:
    Connection(int sock, const MetricsEndpointLimits& limits, const std::atomic<socket_t>& listening,
               Clock::time_point accepted)
        : sock_(sock), limits_(limits), listening_(listening), heard_(accepted),
          deadline_(accepted + limits.requestTime) {}

    // Waits for the next request, then starts its byte count (and, after the
    // first, its clock).
    bool awaitRequest(bool first) {
        if (listening_ == INVALID_SOCKET) return false;
        if (!first) {
            heard_ = Clock::now();
            deadline_ = heard_ + limits_.keepAlive;
        }
        if (start_ == end_ && !wait(POLLIN, first ? limits_.readTimeout : limits_.keepAlive)) return false;
        if (!first) deadline_ = Clock::now() + limits_.requestTime;
        spent_ = 0;
        return true;
    }

    // True once a read came to nothing: silence, the deadline, the byte
    // budget or the client's end. The library still answers (400), but the
    // connection is not worth another request.
    bool broken() const { return broken_; }

    bool is_readable() const override { return start_ != end_ || wait(POLLIN, limits_.readTimeout); }
    bool is_writable() const override { return wait(POLLOUT, limits_.writeTimeout); }

    ssize_t read(char* ptr, std::size_t size) override {
        while (start_ == end_) {
            if (spent_ >= limits_.requestBytes || !wait(POLLIN, limits_.readTimeout)) {
                broken_ = true;
                return -1;
            }
            ssize_t n = recv(sock_, buffer_, std::min(sizeof buffer_, limits_.requestBytes - spent_), MSG_DONTWAIT);
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            if (n <= 0) {
                broken_ = true;
                return n;
            }
            start_ = 0;
            end_ = static_cast<std::size_t>(n);
            spent_ += end_;
        }
        const std::size_t n = std::min(size, end_ - start_);
        std::memcpy(ptr, buffer_ + start_, n);
        start_ += n;
        return static_cast<ssize_t>(n);
    }

    ssize_t write(const char* ptr, std::size_t size) override {
        if (!wait(POLLOUT, limits_.writeTimeout)) return -1;
        ssize_t n = send(sock_, ptr, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        return n >= 0 ? n : (errno == EAGAIN || errno == EINTR ? 0 : -1);
    }

    void get_remote_ip_and_port(std::string& ip, int& port) const override { nameOf(getpeername, sock_, ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { nameOf(getsockname, sock_, ip, port); }
    socket_t socket() const override { return sock_; }

private:
    // Bytes already there when it looks may have come at any time, so they
    // do not end a silence; bytes that come while it waits do. Polls in
    // short slices so that a stop is not held up by a silent client.
    bool wait(short events, std::chrono::seconds silence) const {
        pollfd p{sock_, events, 0};
        if (poll(&p, 1, 0) > 0) return true;
        const auto until = std::min((events == POLLIN ? heard_ : Clock::now()) + silence, deadline_);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now()).count();
            if (left <= 0 || listening_ == INVALID_SOCKET) return false;
            const int ready = poll(&p, 1, static_cast<int>(std::min<long long>(left, 200)));
            if (ready > 0) {
                if (events == POLLIN) heard_ = Clock::now();
                return true;
            }
            if (ready < 0 && errno != EINTR) return false;
        }
    }

    const int sock_;
    const MetricsEndpointLimits& limits_;
    const std::atomic<socket_t>& listening_;
    mutable Clock::time_point heard_;
    Clock::time_point deadline_;
    std::size_t spent_ = 0;
    bool broken_ = false;
    char buffer_[4096];
    std::size_t start_ = 0, end_ = 0;
};

class Endpoint final : public httplib::Server {
public:
    explicit Endpoint(const MetricsEndpointLimits& limits) : limits_(limits) {
        new_task_queue = [this] { return new BoundedQueue(limits_.workers, limits_.waiting); };
        // The library sets these on each socket and states them in its
        // Keep-Alive header; the connection below enforces them.
        set_read_timeout(limits_.readTimeout);
        set_write_timeout(limits_.writeTimeout);
        set_keep_alive_timeout(limits_.keepAlive.count());
        set_keep_alive_max_count(limits_.requestsPerConnection);
        set_payload_max_length(limits_.requestBytes);
        // Answered before any body is read.
        set_pre_routing_handler([](const httplib::Request& req, httplib::Response& res) {
            if (served(req.method)) return HandlerResponse::Unhandled;
            res.status = 405;
            res.set_header("Allow", "GET, HEAD");
            return HandlerResponse::Handled;
        });
    }

private:
    // The library hands each accepted socket to this (through the queue's
    // job, on the thread that runs it), so the connection is served here,
    // within the limits, instead of by the library's own loop.
    bool process_and_close_socket(socket_t sock) override {
        if (!refusing) {
            Connection connection(sock, limits_, svr_sock_, acceptedAt);
            for (std::size_t n = 0; n < limits_.requestsPerConnection; ++n) {
                if (!connection.awaitRequest(n == 0)) break;
                bool closed = false;
                // A refused request's body is left unread: the connection
                // cannot carry another request.
                auto closeIfRefused = [&closed](httplib::Request& req) {
                    if (served(req.method)) return;
                    req.headers.erase("Connection");
                    req.set_header("Connection", "close");
                    closed = true;
                };
                if (!process_request(connection, n + 1 == limits_.requestsPerConnection, closed, closeIfRefused) ||
                    closed || connection.broken())
                    break;
            }
        }
        ::shutdown(sock, SHUT_RDWR);
        ::close(sock);
        return true;
    }

    const MetricsEndpointLimits limits_;
};

std::unique_ptr<Endpoint> endpoint;
std::thread endpointThread;
}  // namespace

bool startMetricsEndpoint(const std::string& host, std::uint16_t port, std::vector<HttpRoute> routes,
                          std::string& error, const MetricsEndpointLimits& limits) {
    endpoint = std::make_unique<Endpoint>(limits);
    for (auto& route : routes)
        endpoint->Get(route.path, [answer = std::move(route.answer)](const httplib::Request&, httplib::Response& res) {
            HttpAnswer a = answer();
            res.status = a.status;
            res.set_content(a.body, a.contentType);
        });
    if (!endpoint->bind_to_port(host, port)) {
        error = "cannot listen for metrics on " + host + ":" + std::to_string(port);
        endpoint.reset();
        return false;
    }
    endpointThread = std::thread([] { endpoint->listen_after_bind(); });
    return true;
}

void stopMetricsEndpoint() {
    if (!endpoint) return;
    endpoint->stop();
    if (endpointThread.joinable()) endpointThread.join();
    endpoint.reset();
}
