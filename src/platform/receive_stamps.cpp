#include "platform/receive_stamps.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include <enet/protocol.h>

namespace {

ReceiveStamps* installed = nullptr;

// Samples kept: minutes of a busy benchmark, and a bounded cost.
constexpr std::size_t kMaxSamples = 16u << 20;
// Slow batches traced: enough to see what the worst ones share.
constexpr std::size_t kSlowBatches = 12;

const char* markName(TurnMark what) {
    switch (what) {
        case TurnMark::waitBegin: return "wait";
        case TurnMark::waitEnd: return "woken";
        case TurnMark::turnBegin: return "turn";
        case TurnMark::flush: return "sent";
        case TurnMark::drainEnd: return "drained";
        case TurnMark::roomWorkBegin: return "rooms";
        case TurnMark::roomWorkEnd: return "rooms-done";
        case TurnMark::turnEnd: return "turn-done";
    }
    return "?";
}

std::int64_t realtimeNanos() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

std::uint16_t wordAt(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

// A span of nanoseconds as the 32 bits a sample keeps (4.29 s at most).
std::uint32_t nanos32(std::int64_t d) { return static_cast<std::uint32_t>(std::clamp<std::int64_t>(d, 0, 0xFFFFFFFF)); }

}  // namespace

void ReceiveStamps::install(ENetHost* host) {
    host_ = host;
    unhandled_.assign(host->peerCount, 0);
    nanos_.reserve(1u << 20);
    previous_ = host->intercept;
    installed = this;
    host->intercept = intercept;
    // The first request turns the kernel's stamping on; it has no stamp yet.
    timespec ts{};
    ioctl(static_cast<int>(host->socket), SIOCGSTAMPNS, &ts);
}

void ReceiveStamps::uninstall() {
    if (host_ != nullptr && host_->intercept == intercept) host_->intercept = previous_;
    if (installed == this) installed = nullptr;
    host_ = nullptr;
}

int ReceiveStamps::intercept(ENetHost* host, ENetEvent* event) {
    ReceiveStamps* self = installed;
    if (self == nullptr) return 0;
    self->stamp(host->receivedData, host->receivedDataLength);
    return self->previous_ != nullptr ? self->previous_(host, event) : 0;
}

void ReceiveStamps::stamp(const std::uint8_t* data, std::size_t size) {
    if (data == nullptr || size < 2) return;
    const unsigned header = wordAt(data);
    if ((header & ENET_PROTOCOL_HEADER_FLAG_COMPRESSED) != 0) return;
    const unsigned peer = header & ENET_PROTOCOL_MAXIMUM_PEER_ID;
    if (peer >= unhandled_.size() || unhandled_[peer] != 0) return;
    std::size_t at = (header & ENET_PROTOCOL_HEADER_FLAG_SENT_TIME) != 0 ? 4 : 2;
    if (host_->checksum != nullptr) at += 4;
    // The commands of the datagram, each a fixed part and, for the sends,
    // its data.
    while (at + sizeof(ENetProtocolCommandHeader) <= size) {
        const std::uint8_t command = data[at] & ENET_PROTOCOL_COMMAND_MASK;
        const std::size_t fixed = enet_protocol_command_size(command);
        if (fixed == 0 || at + fixed > size) return;
        std::size_t payload = 0;
        switch (command) {
            case ENET_PROTOCOL_COMMAND_SEND_RELIABLE:
                if (data[at + 1] == channel_) {
                    timespec ts{};
                    if (ioctl(static_cast<int>(host_->socket), SIOCGSTAMPNS, &ts) == 0)
                        unhandled_[peer] = static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
                    else
                        ++unstamped_;
                    return;
                }
                payload = wordAt(data + at + 4);
                break;
            case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE:
            case ENET_PROTOCOL_COMMAND_SEND_UNSEQUENCED:
            case ENET_PROTOCOL_COMMAND_SEND_FRAGMENT:
            case ENET_PROTOCOL_COMMAND_SEND_UNRELIABLE_FRAGMENT:
                payload = wordAt(data + at + 6);
                break;
            default:
                break;
        }
        at += fixed + payload;
    }
}

void ReceiveStamps::handled(std::uint8_t channel, ENetPeer* peer) {
    if (channel != channel_ || host_ == nullptr) return;
    const auto slot = static_cast<std::size_t>(peer - host_->peers);
    if (slot >= unhandled_.size() || unhandled_[slot] == 0) return;
    pending_.push_back(unhandled_[slot]);
    unhandled_[slot] = 0;
}

void ReceiveStamps::sent() {
    if (pending_.empty()) return;
    const std::int64_t now = realtimeNanos();
    std::int64_t oldest = now;
    for (std::int64_t at : pending_) {
        oldest = std::min(oldest, at);
        if (nanos_.size() < kMaxSamples)
            nanos_.push_back(nanos32(now - at));
    }
    marks_[nextMark_++ % marks_.size()] = Mark{now, static_cast<std::uint32_t>(pending_.size()), TurnMark::flush};
    traceBatch(now, oldest, pending_.size());
    pending_.clear();
}

void ReceiveStamps::mark(TurnMark what, std::uint32_t arg) {
    marks_[nextMark_++ % marks_.size()] = Mark{realtimeNanos(), arg, what};
}

void ReceiveStamps::traceBatch(std::int64_t now, std::int64_t oldest, std::size_t messages) {
    const std::int64_t worst = now - oldest;
    if (anatomies_.size() < kMaxSamples / 8) {
        Anatomy a;
        a.worst = nanos32(worst);
        // The marks of the window, oldest first, and the one before it: what
        // the loop was doing when the batch's first datagram came.
        const std::size_t count = std::min(nextMark_, marks_.size());
        std::size_t first = 1;
        while (first < count && marks_[(nextMark_ - first) % marks_.size()].at >= oldest) ++first;
        const Mark& before = marks_[(nextMark_ - first) % marks_.size()];
        a.arrived = before.what == TurnMark::waitBegin ? 0 : before.what == TurnMark::roomWorkBegin ? 1 : 2;
        std::int64_t roomsFrom = before.what == TurnMark::roomWorkBegin ? oldest : -1;
        std::int64_t turnAt = -1;
        for (std::size_t i = first - 1; i >= 1; --i) {
            const Mark& m = marks_[(nextMark_ - i) % marks_.size()];
            switch (m.what) {
                case TurnMark::waitEnd:
                    if (a.arrived == 0 && a.wake == 0) a.wake = nanos32(m.at - oldest);
                    break;
                case TurnMark::turnBegin:
                    if (turnAt < 0) turnAt = m.at;
                    break;
                case TurnMark::roomWorkBegin: roomsFrom = m.at; break;
                case TurnMark::roomWorkEnd:
                    if (roomsFrom >= 0) a.rooms += nanos32(m.at - roomsFrom);
                    roomsFrom = -1;
                    break;
                case TurnMark::drainEnd:
                    a.events = static_cast<std::uint16_t>(std::min<std::uint32_t>(0xFFFF, a.events + m.arg));
                    break;
                case TurnMark::flush:
                    if (i > 1) a.flushes = static_cast<std::uint8_t>(std::min(255, a.flushes + 1));
                    break;
                default: break;
            }
        }
        a.handling = nanos32(now - (turnAt < 0 ? oldest : turnAt));
        anatomies_.push_back(a);
    }
    auto least = std::min_element(slowest_.begin(), slowest_.end(),
                                  [](const Batch& a, const Batch& b) { return a.worst < b.worst; });
    if (slowest_.size() == kSlowBatches && least->worst >= worst) return;
    Batch batch{oldest, worst, messages, {}};
    // Back from the newest mark to the one before the oldest datagram came.
    const std::size_t count = std::min(nextMark_, marks_.size());
    for (std::size_t i = 1; i <= count; ++i) {
        const Mark& m = marks_[(nextMark_ - i) % marks_.size()];
        batch.marks.push_back(m);
        if (m.at < oldest) break;
    }
    std::reverse(batch.marks.begin(), batch.marks.end());
    if (slowest_.size() < kSlowBatches)
        slowest_.push_back(std::move(batch));
    else
        *least = std::move(batch);
}

std::vector<std::string> ReceiveStamps::anatomy() {
    std::sort(anatomies_.begin(), anatomies_.end(), [](const Anatomy& a, const Anatomy& b) { return a.worst > b.worst; });
    auto describe = [](const char* name, const Anatomy* from, std::size_t n) {
        if (n == 0) return std::string(name) + ": none";
        std::size_t slept = 0, inRooms = 0, withRooms = 0;
        double wake = 0, rooms = 0, handling = 0, events = 0, flushes = 0, worst = 0;
        std::vector<std::uint32_t> wakes;
        for (std::size_t i = 0; i < n; ++i) {
            const Anatomy& a = from[i];
            worst += a.worst;
            if (a.arrived == 0) {
                ++slept;
                wakes.push_back(a.wake);
            }
            inRooms += a.arrived == 1;
            withRooms += a.rooms != 0;
            rooms += a.rooms;
            handling += a.handling;
            events += a.events;
            flushes += a.flushes;
        }
        std::sort(wakes.begin(), wakes.end());
        for (std::uint32_t w : wakes) wake += w;
        char line[512];
        std::snprintf(line, sizeof line,
                      "%s: %zu batches, worst from %.1f us (mean %.1f us); arrived while the loop slept %.0f%% "
                      "(wake-up mean %.1f us, p50 %.1f us), during room work %.0f%%, while busy otherwise %.0f%%; "
                      "room work inside %.0f%% (mean %.1f us a batch); events handed over %.1f, hand-overs before its own %.2f; "
                      "turn to hand-over mean %.1f us",
                      name, n, from[n - 1].worst / 1000.0, worst / n / 1000.0, 100.0 * slept / n,
                      wakes.empty() ? 0.0 : wake / wakes.size() / 1000.0, wakes.empty() ? 0.0 : wakes[wakes.size() / 2] / 1000.0,
                      100.0 * inRooms / n, 100.0 * (n - slept - inRooms) / n, 100.0 * withRooms / n, rooms / n / 1000.0,
                      events / n, flushes / n, handling / n / 1000.0);
        return std::string(line);
    };
    const std::size_t n = anatomies_.size();
    return {describe("slowest 1%", anatomies_.data(), n / 100), describe("slowest 1-5%", anatomies_.data() + n / 100, n / 20 - n / 100),
            describe("all", anatomies_.data(), n)};
}

std::vector<std::string> ReceiveStamps::slowestBatches() {
    std::sort(slowest_.begin(), slowest_.end(), [](const Batch& a, const Batch& b) { return a.worst > b.worst; });
    std::vector<std::string> lines;
    for (const Batch& b : slowest_) {
        std::string line = std::to_string(b.worst / 1000) + " us, " + std::to_string(b.messages) + " messages:";
        for (const Mark& m : b.marks) {
            char part[64];
            std::snprintf(part, sizeof part, " %+lld %s", static_cast<long long>((m.at - b.oldest) / 1000), markName(m.what));
            line += part;
            if (m.arg != 0) line += "(" + std::to_string(m.arg) + ")";
        }
        lines.push_back(std::move(line));
    }
    return lines;
}

std::string ReceiveStamps::summary() {
    std::sort(nanos_.begin(), nanos_.end());
    auto at = [this](double q) {
        if (nanos_.empty()) return 0.0;
        return nanos_[std::min(nanos_.size() - 1, static_cast<std::size_t>(q * static_cast<double>(nanos_.size())))] / 1000.0;
    };
    char line[256];
    std::snprintf(line, sizeof line, "%zu messages, p50 %.1f us, p99 %.1f us, p99.9 %.1f us, max %.1f us, %llu unstamped",
                  nanos_.size(), at(0.5), at(0.99), at(0.999), nanos_.empty() ? 0.0 : nanos_.back() / 1000.0,
                  static_cast<unsigned long long>(unstamped_));
    return line;
}
