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

std::int64_t realtimeNanos() {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

std::uint16_t wordAt(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] << 8 | p[1]); }

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
    for (std::int64_t at : pending_)
        if (nanos_.size() < kMaxSamples)
            nanos_.push_back(static_cast<std::uint32_t>(std::clamp<std::int64_t>(now - at, 0, 0xFFFFFFFF)));
    pending_.clear();
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
