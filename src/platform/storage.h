#pragma once
// Disk work off the loop. One worker thread runs jobs; what a job returns
// (its completion: the reply, the log line) goes back to the loop, which runs
// completions in the order the jobs finished when it polls. So the loop never
// waits for a disk.
//
// Every job has an owner: the server itself, or the peer whose message caused
// it. Each owner's jobs run in the order they came, so each peer's replies keep
// their order; the worker takes the owners in turn, a job each, so a peer with
// many large jobs queued delays another peer's one small job by at most one of
// its own. Work that clients cause is bounded per peer and for all peers
// together: past that, submit refuses it at once, and the caller answers the
// way a quota refusal answers. The server's own work (dumps, statistics,
// loading its files) is always taken: it is bounded by its own nature (a
// dump a minute, a file at start), never by what clients send. Nothing on the
// loop ever waits for room.
//
// Until start() is called every job runs at once on the caller's thread and
// its completion right after it: in-process tests and fuzzers see the disk
// work done when the handler returns, as if there were no worker.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unordered_map>

class Storage {
public:
    using Completion = std::function<void()>;
    using Job = std::function<Completion()>;
    // The server's own work is owner 0; a peer's is its connection number.
    using Owner = std::uint64_t;
    static constexpr Owner kServerWork = 0;

    // The share of one peer, and of all peers together. A report of the
    // largest size (32 MiB) fits a peer's share alone; a job bigger than the
    // share still goes in when its peer has nothing queued, so no message a
    // peer may send is refused for its size alone. All peers together hold at
    // most the total, so a disk slower than the clients costs memory up to
    // that bound and never more.
    struct Shares {
        std::size_t jobsPerPeer = 16;
        std::size_t bytesPerPeer = 64u * 1024 * 1024;
        std::size_t jobsTotal = 1024;
        std::size_t bytesTotal = 256u * 1024 * 1024;
    };

    Storage() = default;
    ~Storage();
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    void start();
    // Drains the queue, runs the last completions and joins the worker.
    void stop();

    // Queues a job that carries about `bytes` of data for owner. False, at
    // once and without running it, when a peer's job would go over its share
    // or the peers' total; the server's own work is always taken.
    bool submit(Job job, std::size_t bytes = 0, Owner owner = kServerWork);
    void setShares(const Shares& shares);
    // Called on the worker, under the queue's lock, each time a completion
    // is ready: it wakes the loop and must do nothing more. Set before start().
    std::function<void()> onDone;
    // Runs the completions of finished jobs; returns how many ran.
    std::size_t poll();
    // Waits until every queued job has finished, running completions.
    void drain();
    // Jobs queued or running, all owners together.
    std::size_t pending();

private:
    struct Entry {
        Job job;
        std::size_t bytes = 0;
    };
    struct OwnerQueue {
        std::deque<Entry> jobs;
        // Queued or running, and their bytes.
        std::size_t pending = 0;
        std::size_t bytes = 0;
    };
    void run();

    std::mutex mutex_;
    std::condition_variable workReady_;
    std::condition_variable doneOrIdle_;
    std::unordered_map<Owner, OwnerQueue> queues_;  // owners with work pending
    std::deque<Owner> turns_;                       // owners with jobs queued, in turn
    std::deque<Completion> done_;
    Shares shares_;
    std::size_t clientJobs_ = 0;
    std::size_t clientBytes_ = 0;
    std::size_t inFlight_ = 0;  // queued or running, all owners
    bool running_ = false;
    bool stopping_ = false;
    std::thread worker_;
};
