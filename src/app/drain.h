#pragma once
// Draining: a server about to go away (an operator's SIGTERM or key, a fleet
// scaling down) takes no new games, tells every player, lets the running
// matches end, and only then stops the orderly way. Off unless --drain.

#include <cstdint>
#include <string>

#include <enet/enet.h>

#include "app/drain_state.h"

struct Server;

// The console key that starts a drain (with --drain).
inline constexpr int kDrainKey = 'q';
// What a CreateRoom or JoinRoom gets during a drain: the text of a full
// room, which every client already shows as a refusal.
inline constexpr const char* kDrainRefusal = "Cannot join: room is already full!";

// Starts the drain once: refusals from now on, the notice to every player,
// /readyz answers 503.
void startDrain(Server& server, std::uint64_t nowMicros);
// The notice every player gets on the text channel.
std::string drainNotice(std::uint32_t seconds);
// Matches the drain waits for: rooms whose start has succeeded.
std::uint32_t matchesUnderWay(const Server& server);
// True, with its line logged, once an active drain has run its course: no
// match left, or the deadline passed.
bool drainFinished(const Server& server, std::uint64_t nowMicros);
// The loop's wait, cut short so that a drain's deadline is kept to the
// millisecond rather than to the end of an idle wait.
std::uint32_t drainWaitMillis(const Drain& drain, std::uint64_t nowMicros, std::uint32_t intervalMs);
// During a drain, a CreateRoom or JoinRoom from a peer in no room is refused
// (the refusal sent here); true when it was.
bool refusedByDrain(const Server& server, ENetPeer* peer);
