#include "platform/metrics_http.h"

#include <memory>
#include <thread>

#include <httplib.h>


namespace {
std::unique_ptr<httplib::Server> endpoint;
std::thread endpointThread;
}  // namespace

bool startMetricsEndpoint(const std::string& host, std::uint16_t port, std::vector<HttpRoute> routes,
                          std::string& error) {
    endpoint = std::make_unique<httplib::Server>();
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
