#pragma once
// One service step: the periodic dump latch, every ready network event, then
// the per-step room work.

#include <cstdint>
#include <ctime>
#include <string>

#include <enet/enet.h>

#include "app/server.h"

// True when at least one connect, disconnect or receive event was handled.
bool serviceStep(Server& server);
// The periodic dump latch for the given local time.
void checkPeriodicDump(Server& server, const std::tm& local);
// Events handed over by ENet in one turn: enough for every peer of a busy
// server twice, few enough that a turn stays well under a step.
inline constexpr int kMaxEventsPerTurn = 4096;
// Events between two flushes of what the handlers queued for sending, about
// a millisecond of a busy drain.
inline constexpr int kEventsPerFlush = 64;
// The room work runs at most once per this many milliseconds of the loop.
inline constexpr int kRoomWorkPeriodMs = 2;
// The per-step room work after the events, unpaced (for tests and fuzzing),
// at `now` of the loop's clock.
void runRoomWork(Server& server, std::uint64_t now);
