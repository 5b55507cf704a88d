#pragma once
// Rooms placed straight into a Harness's registry, for match tests that do
// not go through the lobby.

#include <cstdint>
#include <initializer_list>
#include <string>

#include "lobby/room.h"
#include "protocol/wire.h"
#include "support/harness.h"

// Room `id` whose slot i holds fake peer i (connected, with a setup record)
// for each listed i; running unless told otherwise. Logs and sent packets
// of the set-up are discarded.
Room& addMatchRoom(Harness& h, std::uint32_t id, std::initializer_list<std::size_t> humans, bool running = true);

// An ordinary full-form order.
Bytes fullOrder(std::uint32_t step, std::uint32_t argument, std::initializer_list<std::uint32_t> firstList,
                std::uint32_t orderType, std::initializer_list<std::uint32_t> secondList, const std::string& text,
                std::uint32_t messageType = 1);
// The checksum order of a step.
Bytes checksumOrder(std::uint32_t step, std::uint32_t checksum);
// A step-done order in the 12-byte short form.
Bytes stepDone(std::uint32_t step, std::uint32_t slot);
// The 46-byte resync order for a step.
Bytes resyncOrder(std::uint32_t step);
// Match control message 8.
Bytes resyncReport(const std::string& world, const std::string& log, std::uint32_t secondWord = 1);
