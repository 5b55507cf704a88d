#pragma once
// The optional metrics endpoint: plain HTTP on its own thread, GET /metrics.

#include <cstdint>
#include <functional>
#include <string>

// Starts serving on host:port, each GET /metrics answered with what render
// returns (called on the endpoint's thread); false (with a reason) when it
// cannot bind.
bool startMetricsEndpoint(const std::string& host, std::uint16_t port, std::function<std::string()> render,
                          std::string& error);
void stopMetricsEndpoint();
