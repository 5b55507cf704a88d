#pragma once
// The gate in front of ENet. ENet hands every received datagram to the host's
// intercept hook before it reads it; a connect refused there never takes a
// peer slot, never gets an answer and costs one table look-up.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>

#include <enet/enet.h>

#include "admission/bans.h"
#include "admission/budgets.h"

// The connect ID of a datagram that ENet would take as a request for a new
// connection (addressed to no peer, its first command a whole CONNECT);
// nullopt for every other datagram and for anything that cannot be read, so
// that those reach ENet exactly as they came.
std::optional<std::uint32_t> connectIdOf(const std::uint8_t* data, std::size_t size);

enum class Refusal : std::uint8_t { none, banned, peersPerAddress, connectRate };

struct AddressRecord {
    Bucket connects;
    std::uint64_t loggedMicros = 0;
    bool logged = false;
};

// Addresses tracked for the connect rate and for logging at most once a
// minute. A record untouched for a minute holds nothing worth keeping (its
// bucket is full again, its log line may come again), so a full table
// forgets those; should it still be full, a new address is let through
// untracked (bans and the peers per address still apply) rather than the
// table growing or every new player being turned away: so many addresses in
// one minute are a spoofed flood, which a rate per address cannot stop.
inline constexpr std::size_t kMaxTrackedAddresses = 65536;

struct ConnectionGate {
    BanList bans;
    std::uint64_t maxPeersPerAddress = 0;
    std::uint64_t connectsPerMinute = 0;
    std::unordered_map<std::uint32_t, AddressRecord> addresses;
    std::uint64_t sweptMicros = 0;
};

bool isBanned(const ConnectionGate& gate, std::uint32_t addressHost);
// Whether a connect with connectID from `from` may reach ENet; a refusal is
// counted and logged. A repeat of the connect of a peer that ENet already
// holds passes uncounted: ENet ignores it anyway.
Refusal admitConnect(ConnectionGate& gate, const ENetHost& host, const ENetAddress& from, std::uint32_t connectID,
                     std::uint64_t nowMicros);
// Counts the refusal and logs it, once a minute per address at most.
void noteRefusal(ConnectionGate& gate, std::uint32_t addressHost, Refusal why, std::uint64_t nowMicros);
// ENet's hook has no place for our state, so the one gate is remembered here;
// nullptr takes it away.
void installConnectionGate(ENetHost* host, ConnectionGate* gate);
