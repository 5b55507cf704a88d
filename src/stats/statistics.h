#pragma once
// Aggregated figures of the matches finished since the last dump.

#include <cstdint>
#include <map>
#include <string>
#include <utility>

#include "platform/storage.h"

struct Room;

// (datasetChecksum, dataset): ordered by checksum, then by name byte by byte.
using DatasetKey = std::pair<std::uint32_t, std::string>;

struct ServerStatistics {
    std::int64_t periodStart = 0;
    std::map<std::uint32_t, std::uint32_t> gameModes;
    std::map<DatasetKey, std::uint32_t> gamesPerDataset;
    std::map<DatasetKey, std::uint32_t> desyncsPerDataset;
    std::map<std::string, std::uint32_t> players;
    std::uint32_t totalGames = 0;
    std::uint32_t desyncGames = 0;
    float averagePlayers = 0;
    std::uint32_t maxPlayers = 0;
    float averageGameLength = 0;  // steps
    std::uint32_t maxGameLength = 0;
    float averageMaxOrderDelay = 0;  // steps
    std::uint32_t maxMaxOrderDelay = 0;
};

void resetStatistics(ServerStatistics& statistics);
void recordFinishedGame(ServerStatistics& statistics, const Room& room);
// The block a dump appends, with its first line measured up to now.
std::string formatStatistics(const ServerStatistics& statistics, std::int64_t now);
// Takes the block and resets; the storage worker appends it to
// path + ".serverstats" and the loop logs the outcome, after firstLine when
// one is given (so the lines of one dump stay together in the log).
void dumpStatistics(Storage& storage, ServerStatistics& statistics, const std::string& path,
                    std::string firstLine = {});
// "1d 2h 3m 4s", leading zero units left out: 0s, 1m 0s, 1h 0m 0s.
std::string formatDuration(std::uint32_t seconds);
