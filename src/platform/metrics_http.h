#pragma once
// The optional metrics endpoint: plain HTTP on its own thread, GET /metrics.

#include <cstdint>
#include <string>

// Starts serving on host:port; false (with a reason) when it cannot bind.
bool startMetricsEndpoint(const std::string& host, std::uint16_t port, std::string& error);
void stopMetricsEndpoint();
