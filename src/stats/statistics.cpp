#include "stats/statistics.h"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "lobby/room.h"
#include "log/log.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace {

// Steps per second for turning game lengths into durations.
constexpr float kStepsPerSecond = 20.0f;

// The way a default output stream writes a float: six significant digits,
// no trailing zeros.
std::string floatText(float value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

// Folds one more value into a mean of n values, in 32-bit floats.
float foldAverage(float average, std::uint32_t n, std::uint32_t value) {
    return (static_cast<float>(n) * average + static_cast<float>(value)) / static_cast<float>(n + 1);
}

// Steps to whole seconds: a float division truncated toward zero.
std::uint32_t stepsToSeconds(float steps) { return static_cast<std::uint32_t>(steps / kStepsPerSecond); }

}  // namespace

void resetStatistics(ServerStatistics& statistics) {
    statistics = ServerStatistics{};
    statistics.periodStart = unixNow();
}

void recordFinishedGame(ServerStatistics& s, const Room& room) {
    const std::uint32_t n = s.totalGames;
    const auto p = static_cast<std::uint32_t>(room.matchPlayerNames.size());
    const std::uint32_t length = room.match.lastCompletedStep;
    const std::uint32_t delay = room.match.maxOrderDelay;

    s.averagePlayers = foldAverage(s.averagePlayers, n, p);
    s.maxPlayers = std::max(s.maxPlayers, p);
    s.averageGameLength = foldAverage(s.averageGameLength, n, length);
    s.maxGameLength = std::max(s.maxGameLength, length);
    s.averageMaxOrderDelay = foldAverage(s.averageMaxOrderDelay, n, delay);
    s.maxMaxOrderDelay = std::max(s.maxMaxOrderDelay, delay);

    for (const std::string& name : room.matchPlayerNames) s.players[name] += 1;
    s.gameModes[room.settings.gameMode] += 1;
    const DatasetKey key{room.datasetChecksum, room.dataset};
    s.gamesPerDataset[key] += 1;
    s.totalGames += 1;
    if (room.match.desyncCount != 0) {
        s.desyncsPerDataset[key] += 1;
        s.desyncGames += 1;
    }
}

std::string formatDuration(std::uint32_t s) {
    const std::uint32_t days = s / 86400;
    const std::uint32_t hours = (s % 86400) / 3600;
    const std::uint32_t minutes = (s - (24 * days + hours) * 3600) / 60;
    const std::uint32_t secs = s % 60;
    std::string out;
    if (days > 0) out += std::to_string(days) + "d ";
    if (days > 0 || hours > 0) out += std::to_string(hours) + "h ";
    if (days > 0 || hours > 0 || minutes > 0) out += std::to_string(minutes) + "m ";
    out += std::to_string(secs) + "s";
    return out;
}

std::string formatStatistics(const ServerStatistics& s, std::int64_t now) {
    std::string out;
    // A clock set back since the period began reads as no time at all rather
    // than as a wrapped count of days.
    const std::int64_t elapsed = now > s.periodStart ? now - s.periodStart : 0;
    out += "Stat dump after " + formatDuration(static_cast<std::uint32_t>(elapsed)) + " running:\n";
    out += "    Total games: " + std::to_string(s.totalGames) + ", with " + std::to_string(s.desyncGames) +
           " desyncs\n";
    out += "    Games per dataset:\n";
    for (const auto& [key, games] : s.gamesPerDataset)
        out += "        " + key.second + "(" + std::to_string(key.first) + ") -> " + std::to_string(games) + "\n";
    out += "    Desyncs per dataset:\n";
    for (const auto& [key, games] : s.desyncsPerDataset)
        out += "        " + key.second + "(" + std::to_string(key.first) + ") -> " + std::to_string(games) + "\n";
    out += "    Gamemodes:\n";
    for (const auto& [mode, games] : s.gameModes)
        out += "        " + std::to_string(mode) + " -> " + std::to_string(games) + "\n";
    out += "    Players:\n";
    for (const auto& [name, games] : s.players) out += "        " + name + " -> " + std::to_string(games) + "\n";
    out += "\n";
    out += "    Average players: " + floatText(s.averagePlayers) + ", with max of " + std::to_string(s.maxPlayers) +
           "\n";
    out += "    Average game length: " + formatDuration(stepsToSeconds(s.averageGameLength)) + ", with max of " +
           formatDuration(stepsToSeconds(static_cast<float>(s.maxGameLength))) + "\n";
    out += "    Average max order delay: " + floatText(s.averageMaxOrderDelay) + ", with max of " +
           std::to_string(s.maxMaxOrderDelay) + "\n";
    return out;
}

void dumpStatistics(Storage& storage, ServerStatistics& statistics, const std::string& path, std::string firstLine) {
    std::string file = path + ".serverstats";
    std::string block = formatStatistics(statistics, unixNow());
    resetStatistics(statistics);
    const std::size_t size = block.size();
    // Appended in one piece, so that a reader (or a crash) never meets half a block.
    storage.submit(
        [file = std::move(file), block = std::move(block), firstLine = std::move(firstLine)]() -> Storage::Completion {
            bool written = appendToFile(file, block);
            return [file, written, firstLine] {
                if (!firstLine.empty()) logMessage(firstLine);
                logMessage((written ? "Dumped stats to " : "Failed to dump stats to ") + file);
            };
        },
        size);
}
