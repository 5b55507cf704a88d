#pragma once
// A room's match and the relay that works on it: orders, step completion,
// the order-delay controller, checksums, desyncs and resync. The relay knows
// a room only as a MatchView (and its ID, for the log and the evidence files).

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <enet/enet.h>

#include "game/recording.h"
#include "platform/storage.h"
#include "protocol/messages.h"
#include "protocol/send.h"

// One simulation step lasts 1/20 s.
inline constexpr double STEP_SECONDS = 1.0 / 20.0;

// Caps of the two counters that DelayHold and DelayRequest raise.
inline constexpr std::int32_t kMaxDelayHold = 24;
inline constexpr std::int32_t kMaxLagReports = 24;

using SlotFlags = std::array<bool, kSlotCount>;

// The checksums reported for one step, per slot (0: none yet).
using ChecksumRecord = std::array<std::uint32_t, kSlotCount>;

// How far from the last completed step a step-done or checksum order may
// lie. Lockstep clients run at most the order delay (64 steps at most) ahead
// of the last completed step, so no real client comes near this; it bounds
// the step reports and checksum records a room keeps, whatever a client
// sends. Reports for steps further away are dropped, and records that fall
// further behind as the match goes on are pruned.
inline constexpr std::uint32_t kStepWindow = 4096;

// A room's match as the relay sees it: whose reports steps and checksums
// wait for (the players connected and caught up), and who is sent what the
// match relays.
struct MatchView {
    std::uint32_t roomId = 0;
    SlotFlags counted{};
    Audience audience;
};

// Lives as long as its room: orders are handled in a room before its match
// runs too, and nothing of it is reset at the start.
struct Match {
    std::uint32_t resyncStep = 0xFFFFFFFFu;  // orders for later steps are dropped
    std::uint32_t desyncCount = 0;
    // Resync evidence written for this room, in bytes.
    std::uint64_t evidenceBytes = 0;
    // Reports whose evidence found no room with the storage worker.
    std::uint64_t evidenceRefused = 0;
    std::uint32_t lastCompletedStep = 0;
    std::uint32_t maxOrderDelay = 0;
    std::uint32_t delayCooldown = 40;
    std::uint32_t delayTicks = 0;
    std::int32_t lagReports = 0;
    std::int32_t delayHold = 0;
    std::uint32_t orderDelay = 2;
    std::map<std::uint32_t, SlotFlags> stepReports;
    // When each pending step got its first report; kept only while the
    // metrics endpoint is on.
    std::map<std::uint32_t, std::uint64_t> stepFirstReportMicros;
    std::map<std::uint32_t, ChecksumRecord> checksumRecords;  // by step
    SlotFlags resyncPending{};
    // While the match is recorded (--record).
    std::unique_ptr<Recording> recording;
};

// ---- Relay (relay.cpp) ----
// A step at most kStepWindow from the last completed one, either way.
bool withinStepWindow(const Match& match, std::uint32_t step);
// Drops the entries of steps more than kStepWindow behind the last completed one.
template <typename Entries>
void pruneBehindStepWindow(const Match& match, Entries& entries) {
    if (match.lastCompletedStep <= kStepWindow) return;
    entries.erase(entries.begin(), entries.lower_bound(match.lastCompletedStep - kStepWindow));
}
// An order from the peer in senderSlot; packet is the order as it came, and
// received the loop's hold on the ENet packet it came in, if any.
void handleOrder(Match& match, const MatchView& view, std::uint32_t senderSlot, const Order& order,
                 ByteView packet, ENetPacket** received = nullptr);
// Records that slot finished step; announces the step to the audience once
// every counted player has. Slots outside 0..7 are ignored.
void markStepDone(Match& match, const MatchView& view, std::int32_t slot, std::uint32_t step);
// True when step has reports and every counted player has reported it.
bool isStepComplete(const Match& match, const SlotFlags& counted, std::uint32_t step);
void holdDelay(Match& match);
void requestLongerDelay(Match& match);

// ---- Order delay (delay.cpp) ----
// The controller ticks once per room work for a running match, and passes
// (looks at the players) on every kDelayTicksPerPass-th tick after the
// first.
inline constexpr std::uint32_t kDelayTicksPerPass = 15;
// `ticks` ticks at once, of which only the last may pass: a caller that
// visits a match only on its first tick and on its passes gives the
// kDelayTicksPerPass of a pass at once. Only a call that passes looks at
// the audience.
void adaptOrderDelay(Match& match, const Audience& audience, std::uint32_t ticks = 1);
bool orderDelayPasses(const Match& match);
// The match's next pass makes a decision, which may tell every player.
bool orderDelayDecidesNext(const Match& match);
// A decision tells each player in a datagram of its own, acknowledged by
// another: 64 of them cost the loop (and the clients' machines) about half a
// millisecond, where the 1,024 of 128 matches that started together, and so
// decide together, held every relay behind them for several. A room work
// makes the passes of at most this many notices and leaves the rest to the
// room works after it, 2 ms apart: at 1,024 players the last notice is
// about 30 ms late, less than a step.
inline constexpr std::size_t kDelayNoticesPerRoomWork = 64;
// The controller's view of a peer's round-trip time in milliseconds.
std::uint32_t peerRoundTripTime(const ENetPeer* peer);

// ---- Checksums and resync (checksum.cpp) ----
void handleChecksum(Match& match, const MatchView& view, std::uint32_t slot, std::uint32_t step,
                    std::uint32_t checksum);
// Logs, tells the players, stops orders beyond the next step and sends the
// resync order.
void declareDesync(Match& match, const MatchView& view, std::uint32_t step);
// Evidence files (written by the storage worker, within the share of owner,
// the reporting peer), then completion of the resync; packet is the report as
// it came (the record views it) and kept the same bytes held for the worker.
// Evidence past evidenceLimit bytes for the room (0: no limit), or past the
// peer's share of the worker, is relayed at once but not written.
void handleResyncReport(Storage& storage, Match& match, const MatchView& view, std::uint32_t slot,
                        const ResyncReport& report, ByteView packet, KeptBytes kept, std::uint64_t evidenceLimit,
                        Storage::Owner owner);
// "server_data/resyncs/room<id>_desync<count>": what a desync's evidence
// files are named after, as the recording names it (relative to the data root).
std::string evidenceStem(std::uint32_t roomId, std::uint32_t desyncCount);
// Data root + evidenceStem + "_peer<slot>".
std::string evidenceBaseName(std::uint32_t roomId, std::uint32_t desyncCount, std::size_t slot);
