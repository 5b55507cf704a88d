#pragma once
// The churn soak: a population of clients that keep joining, playing,
// leaving, vanishing and sending junk, against one server, while the server's
// descriptors and memory are sampled.

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace soak {

struct Config {
    std::uint16_t port = 0;
    double seconds = 600;
    std::uint32_t peers = 1024;  // the server's peers at most, the probes included
    std::optional<pid_t> serverPid;
    std::uint32_t seed = 1;
    double stepRate = 4;            // steps per second in each running match
    std::uint32_t junkPerSecond = 0;  // 0: peers / 32
    double stallSeconds = 5;
    double sampleSeconds = 10;  // descriptor and memory samples
    // A run of seconds is all warm-up for the allocator, whose arenas and
    // ENet's buffers grow with the population: there only the descriptors
    // are judged and the resident memory is printed as a figure.
    bool judgeMemory = true;
};

struct Sample {
    double at = 0;  // seconds into the run
    std::uint64_t fds = 0;
    std::uint64_t rssKib = 0;
};

struct Result {
    std::uint64_t connects = 0;
    std::uint64_t connectFailures = 0;
    std::uint32_t peakServerPeers = 0;  // as the server's status reported them
    std::uint64_t roomsCreated = 0;
    std::uint64_t joins = 0;
    std::uint64_t joinRefusals = 0;
    std::uint64_t startRefusals = 0;
    std::uint64_t matchesStarted = 0;
    std::uint64_t matchesEnded = 0;
    std::uint64_t matchesRunningAtEnd = 0;
    std::uint64_t stepsSent = 0;
    std::uint64_t stepsCompleted = 0;
    std::uint64_t relaysReceived = 0;
    std::uint64_t leaves = 0;  // LeaveRoom and LeaveMatch
    std::uint64_t disconnects = 0;
    std::uint64_t timeoutsProvoked = 0;
    std::uint64_t serverDrops = 0;  // disconnects the client did not ask for
    std::uint64_t junkSent = 0;
    std::uint32_t junkKinds = 0;
    std::uint64_t stalledMatches = 0;
    std::uint64_t stalledStarts = 0;
    bool finalAnswer = false;
    std::vector<Sample> samples;
    std::optional<Sample> warm;  // the first sample at or after 20% of the run
    std::optional<Sample> last;
    std::string flatVerdict = "skipped";  // "flat", "growing" or "skipped"
    bool pass() const {
        return stalledMatches == 0 && stalledStarts == 0 && finalAnswer && flatVerdict != "growing";
    }
};

// Flat when the end is within +16 descriptors and, when memory is judged,
// +10% resident memory of the warm-up sample; "skipped" without two distinct
// samples.
std::string flatness(const std::optional<Sample>& warm, const std::optional<Sample>& last, bool judgeMemory = true);

// The slots players hold once a starting room has closed its gaps: the
// occupied slots keep their order and move down to 0, 1, 2, ...
std::vector<std::uint32_t> compactedSlots(const std::vector<std::uint32_t>& slots);

Result runSoak(const Config& config, const std::atomic<bool>& stop);

std::string resultJson(const Config& config, const Result& result);
std::string resultSummary(const Config& config, const Result& result);

}  // namespace soak
