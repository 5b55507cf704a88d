#pragma once
// The optional metrics endpoint: plain HTTP on its own thread, GET only.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

struct HttpAnswer {
    int status = 200;
    std::string body;
    std::string contentType = "text/plain; charset=utf-8";
};

// One path and the function that answers it (called on the endpoint's thread).
struct HttpRoute {
    std::string path;
    std::function<HttpAnswer()> answer;
};

// What the endpoint may cost the process, whoever connects to it. It holds at
// most workers + waiting connections, plus its listening socket and the one
// connection being refused.
struct MetricsEndpointLimits {
    // Connections served at once: a scraper or a health probe asks one request
    // at a time, so four cover two collectors and a probe with room to spare.
    std::size_t workers = 4;
    // Connections accepted and waiting for a worker: a burst of scrapes fits;
    // beyond this it is a flood, and the connection that has waited longest
    // is closed at once to make room.
    std::size_t waiting = 16;
    // Bytes read for one request, request line, headers and any body together:
    // only GET is served, and a scraper's request is well under 1 KiB.
    std::size_t requestBytes = 64 * 1024;
    // Silence allowed while a request is read (for a connection's first
    // request counted from its acceptance, the wait for a worker included),
    // while an answer is not taken, and between two requests: scrapers send
    // at once and read at once.
    std::chrono::seconds readTimeout{5};
    std::chrono::seconds writeTimeout{5};
    std::chrono::seconds keepAlive{5};
    // One request must arrive and its answer leave within this, however
    // slowly it trickles: the timeouts above alone let a byte every few
    // seconds hold a worker for ever.
    std::chrono::seconds requestTime{10};
    // Requests on one connection before it is closed, so one client cannot
    // keep a worker to itself.
    std::size_t requestsPerConnection = 100;
};

// Starts serving on host:port; other paths get 404, methods other than GET
// and HEAD 405. False (with a reason) when it cannot bind.
bool startMetricsEndpoint(const std::string& host, std::uint16_t port, std::vector<HttpRoute> routes,
                          std::string& error, const MetricsEndpointLimits& limits = {});
void stopMetricsEndpoint();
