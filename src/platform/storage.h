#pragma once
// Disk work off the loop. One worker thread runs jobs from a bounded queue in
// the order they came; what a job returns (its completion: the reply, the
// log line) goes back to the loop, which runs completions in the same order
// when it polls. So the loop never waits for a disk, and replies keep their
// order.
//
// Until start() is called every job runs at once on the caller's thread and
// its completion right after it: in-process tests and fuzzers see the disk
// work done when the handler returns, as if there were no worker.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

class Storage {
public:
    using Completion = std::function<void()>;
    using Job = std::function<Completion()>;

    // The queue holds at most this many jobs and this many bytes of their
    // data: enough for bursts of reports and dumps far beyond any real
    // traffic, small enough that a disk slower than the clients can never
    // make the server hold unbounded memory. A job bigger than the byte bound
    // alone still goes in when the queue is empty.
    static constexpr std::size_t kMaxJobs = 1024;
    static constexpr std::size_t kMaxBytes = 256u * 1024 * 1024;

    Storage() = default;
    ~Storage();
    Storage(const Storage&) = delete;
    Storage& operator=(const Storage&) = delete;

    void start();
    // Drains the queue, runs the last completions and joins the worker.
    void stop();

    // Queues a job that carries about `bytes` of data. When the queue is
    // full the caller waits for room (after calling onFull), rather than
    // dropping the work.
    void submit(Job job, std::size_t bytes = 0);
    // Called on the loop each time it has to wait for room.
    std::function<void()> onFull;
    // Called on the worker, under the queue's lock, each time a completion
    // is ready: it wakes the loop and must do nothing more. Set before start().
    std::function<void()> onDone;
    // Runs the completions of finished jobs; returns how many ran.
    std::size_t poll();
    // Waits until every queued job has finished, running completions.
    void drain();
    // Jobs queued or running, for the metrics.
    std::size_t pending();

private:
    struct Entry {
        Job job;
        std::size_t bytes = 0;
    };
    void run();

    std::mutex mutex_;
    std::condition_variable workReady_;
    std::condition_variable roomOrDone_;
    std::deque<Entry> jobs_;
    std::deque<Completion> done_;
    std::size_t queuedBytes_ = 0;
    std::size_t inFlight_ = 0;  // queued or running
    bool running_ = false;
    bool stopping_ = false;
    std::thread worker_;
};
