#include "report.h"

#include <cstdio>
#include <sstream>

namespace loadbot {

namespace {

std::string number(double value, int decimals) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%.*f", decimals, value);
    return buffer;
}

std::string ms(std::uint64_t ns) {
    return number(static_cast<double>(ns) / 1e6, 3);
}

struct Derived {
    bool haveServer = false;
    double serverCpuSeconds = 0;
    double serverCpuPercent = 0;  // of one core
    bool haveMachine = false;
    double stealPercent = 0;
    double busyPercent = 0;  // of the whole machine
    double loadbotCpuPercent = 0;
};

Derived derive(const Result& r) {
    Derived d;
    if (r.serverStart && r.serverEnd && r.sampledSeconds > 0) {
        d.haveServer = true;
        d.serverCpuSeconds = static_cast<double>(r.serverEnd->cpuNs - r.serverStart->cpuNs) / 1e9;
        d.serverCpuPercent = 100.0 * d.serverCpuSeconds / r.sampledSeconds;
    }
    if (r.machineStart && r.machineEnd && r.machineEnd->total > r.machineStart->total) {
        d.haveMachine = true;
        double total = static_cast<double>(r.machineEnd->total - r.machineStart->total);
        d.stealPercent = 100.0 * static_cast<double>(r.machineEnd->steal - r.machineStart->steal) / total;
        d.busyPercent = 100.0 - 100.0 * static_cast<double>(r.machineEnd->idle - r.machineStart->idle) / total;
    }
    if (r.sampledSeconds > 0) d.loadbotCpuPercent = 100.0 * r.loadbotCpuSeconds / r.sampledSeconds;
    return d;
}

class Json {
public:
    Json& key(const char* name) {
        out_ << (first_ ? "{" : ",") << '"' << name << "\":";
        first_ = false;
        return *this;
    }
    Json& add(const char* name, const std::string& text) {
        key(name);
        out_ << '"' << jsonEscape(text) << '"';
        return *this;
    }
    Json& add(const char* name, const char* text) { return add(name, std::string(text)); }
    Json& raw(const char* name, const std::string& value) {
        key(name);
        out_ << value;
        return *this;
    }
    Json& add(const char* name, std::uint64_t value) { return raw(name, std::to_string(value)); }
    Json& add(const char* name, bool value) { return raw(name, value ? "true" : "false"); }
    std::string done() { return out_.str() + "}"; }

private:
    std::ostringstream out_;
    bool first_ = true;
};

void addCounts(Json& json, const char* prefix, std::uint64_t expected, const Counts& c) {
    std::string p = prefix;
    json.add((p + "_expected").c_str(), expected);
    json.add((p + "_received").c_str(), c.received);
    json.add((p + "_lost").c_str(), c.lost);
    json.add((p + "_duplicated").c_str(), c.duplicated);
    json.add((p + "_misrouted").c_str(), c.misrouted);
    json.add((p + "_corrupt").c_str(), c.corrupt);
}

void addLatency(Json& json, const char* prefix, const Histogram& h) {
    std::string p = prefix;
    json.raw((p + "_p50_ms").c_str(), ms(h.quantile(0.5)));
    json.raw((p + "_p99_ms").c_str(), ms(h.quantile(0.99)));
    json.raw((p + "_p999_ms").c_str(), ms(h.quantile(0.999)));
    json.raw((p + "_max_ms").c_str(), ms(h.max()));
}

}  // namespace

std::string jsonEscape(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            out.push_back('\\');
            out.push_back(static_cast<char>(c));
        } else if (c < 0x20) {
            char buffer[8];
            std::snprintf(buffer, sizeof buffer, "\\u%04x", c);
            out += buffer;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
    return out;
}

std::string jsonLine(const Config& config, const Result& r) {
    Derived d = derive(r);
    Json json;
    json.add("label", config.label)
        .add("mode", config.idle ? "idle" : "play")
        .add("rooms", std::uint64_t{config.rooms})
        .add("players", std::uint64_t{config.players})
        .raw("rate", number(config.rate, 3))
        .raw("seconds", number(config.seconds, 3))
        .add("threads", std::uint64_t{config.threads})
        .add("clients", std::uint64_t{r.clients})
        .add("setup_ok", r.setupOk)
        .add("setup_error", r.setupError)
        .raw("setup_s", number(r.setupSeconds, 3))
        .raw("window_s", number(r.windowSeconds, 3))
        .add("steps", r.stepsPerPlayer)
        .add("orders_sent", r.ordersSent);
    addCounts(json, "relays", r.relaysExpected, r.relays);
    addCounts(json, "notices", r.noticesExpected, r.notices);
    addLatency(json, "relay", r.relayLatency);
    addLatency(json, "step", r.stepLatency);
    json.raw("send_lag_p99_ms", ms(r.sendLag.quantile(0.99))).raw("send_lag_max_ms", ms(r.sendLag.max()));
    const std::string null = "null";
    json.raw("server_cpu_s", d.haveServer ? number(d.serverCpuSeconds, 3) : null)
        .raw("server_cpu_pct", d.haveServer ? number(d.serverCpuPercent, 2) : null)
        .raw("server_peak_rss_kib", r.serverEnd ? std::to_string(r.serverEnd->peakRssKib) : null)
        .raw("server_rss_kib", r.serverEnd ? std::to_string(r.serverEnd->rssKib) : null)
        .raw("server_rss_after_1min_kib",
             r.serverRssAfterFirstMinuteKib ? std::to_string(r.serverRssAfterFirstMinuteKib) : null)
        .raw("server_rss_max_after_1min_kib",
             r.serverRssMaxAfterFirstMinuteKib ? std::to_string(r.serverRssMaxAfterFirstMinuteKib) : null)
        .raw("server_ctx_voluntary",
             d.haveServer ? std::to_string(r.serverEnd->voluntarySwitches - r.serverStart->voluntarySwitches) : null)
        .raw(
            "server_ctx_involuntary",
            d.haveServer ? std::to_string(r.serverEnd->involuntarySwitches - r.serverStart->involuntarySwitches) : null)
        .raw("steal_pct", d.haveMachine ? number(d.stealPercent, 2) : null)
        .raw("machine_busy_pct", d.haveMachine ? number(d.busyPercent, 2) : null)
        .raw("loadbot_cpu_pct", number(d.loadbotCpuPercent, 2))
        .add("other_lobby", r.otherMessages[0])
        .add("other_text", r.otherMessages[1])
        .add("other_control", r.otherMessages[2])
        .add("first_text", r.firstText)
        .add("downloaders", std::uint64_t{config.downloaders})
        .add("downloads", r.downloads)
        .add("failed_downloads", r.failedDownloads)
        .raw(
            "download_mib_s",
            number(r.sampledSeconds > 0 ? static_cast<double>(r.downloadedBytes) / 1048576.0 / r.sampledSeconds : 0, 2))
        .add("dropped_connections", r.droppedConnections)
        .add("clean_disconnects", r.cleanDisconnects)
        .add("errors", r.errors());
    return json.done();
}

std::string summary(const Config& config, const Result& r) {
    Derived d = derive(r);
    std::ostringstream out;
    out << "loadbot: " << config.rooms << " rooms x " << config.players << " players";
    if (config.idle)
        out << ", idle for " << number(config.seconds, 1) << " s\n";
    else
        out << ", " << number(config.rate, 1) << " steps/s for " << number(config.seconds, 1) << " s\n";
    if (!r.setupOk) {
        out << "  set-up failed: " << r.setupError << "\n";
        return out.str();
    }
    out << "  set-up " << number(r.setupSeconds, 2) << " s; window " << number(r.windowSeconds, 2) << " s\n";
    if (!config.idle) {
        auto line = [&](const char* what, std::uint64_t expected, const Counts& c) {
            out << "  " << what << ": " << c.received << " of " << expected << "; lost " << c.lost << ", duplicated "
                << c.duplicated << ", misrouted " << c.misrouted << ", corrupt " << c.corrupt << "\n";
        };
        line("relays ", r.relaysExpected, r.relays);
        line("notices", r.noticesExpected, r.notices);
        auto latency = [&](const char* what, const Histogram& h) {
            out << "  " << what << " latency ms: p50 " << ms(h.quantile(0.5)) << "  p99 " << ms(h.quantile(0.99))
                << "  p99.9 " << ms(h.quantile(0.999)) << "  max " << ms(h.max()) << "\n";
        };
        latency("relay", r.relayLatency);
        latency("step ", r.stepLatency);
        out << "  sends behind schedule ms: p99 " << ms(r.sendLag.quantile(0.99)) << "  max " << ms(r.sendLag.max())
            << "\n";
    }
    if (d.haveServer)
        out << "  server: CPU " << number(d.serverCpuSeconds, 2) << " s (" << number(d.serverCpuPercent, 1)
            << " % of a core), peak RSS " << r.serverEnd->peakRssKib << " KiB, context switches "
            << (r.serverEnd->voluntarySwitches - r.serverStart->voluntarySwitches) << " voluntary / "
            << (r.serverEnd->involuntarySwitches - r.serverStart->involuntarySwitches) << " involuntary\n";
    if (r.serverRssAfterFirstMinuteKib)
        out << "  server RSS after the first minute " << r.serverRssAfterFirstMinuteKib << " KiB, largest later "
            << r.serverRssMaxAfterFirstMinuteKib << " KiB\n";
    if (d.haveMachine)
        out << "  machine: busy " << number(d.busyPercent, 1) << " %, steal " << number(d.stealPercent, 2)
            << " %; loadbot CPU " << number(d.loadbotCpuPercent, 1) << " % of a core\n";
    std::uint64_t others = r.otherMessages[0] + r.otherMessages[1] + r.otherMessages[2];
    if (others != 0)
        out << "  other messages during play: lobby " << r.otherMessages[0] << ", text " << r.otherMessages[1]
            << ", match control " << r.otherMessages[2] << "\n";
    if (config.downloaders > 0)
        out << "  downloads: " << r.downloads << " of " << config.downloadFile << " by " << config.downloaders
            << " clients (" << number(static_cast<double>(r.downloadedBytes) / 1048576.0, 1) << " MiB), "
            << r.failedDownloads << " failed\n";
    if (!r.firstText.empty()) out << "  first text: " << r.firstText << "\n";
    out << "  connections dropped " << r.droppedConnections << ", closed cleanly " << r.cleanDisconnects << "\n";
    out << "  errors: " << r.errors() << "\n";
    return out.str();
}

}  // namespace loadbot
