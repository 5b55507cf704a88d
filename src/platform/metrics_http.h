#pragma once
// The optional metrics endpoint: plain HTTP on its own thread, GET only.

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

// Starts serving on host:port; other paths get 404. False (with a reason)
// when it cannot bind.
bool startMetricsEndpoint(const std::string& host, std::uint16_t port, std::vector<HttpRoute> routes,
                          std::string& error);
void stopMetricsEndpoint();
