#include "platform/storage.h"

Storage::~Storage() { stop(); }

void Storage::start() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (running_) return;
    running_ = true;
    stopping_ = false;
    worker_ = std::thread([this] { run(); });
}

void Storage::stop() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!running_) return;
    }
    drain();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    workReady_.notify_all();
    worker_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
}

void Storage::setShares(const Shares& shares) {
    std::lock_guard<std::mutex> lock(mutex_);
    shares_ = shares;
}

bool Storage::submit(Job job, std::size_t bytes, Owner owner) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!running_) {
        lock.unlock();
        if (Completion done = job()) done();
        return true;
    }
    if (owner != kServerWork) {
        auto it = queues_.find(owner);
        const std::size_t jobs = it == queues_.end() ? 0 : it->second.pending;
        const std::size_t held = it == queues_.end() ? 0 : it->second.bytes;
        // A zero share switches that bound off.
        auto over = [](std::size_t limit, std::size_t value) { return limit != 0 && value > limit; };
        if (over(shares_.jobsPerPeer, jobs + 1) || over(shares_.jobsTotal, clientJobs_ + 1)) return false;
        if (jobs != 0 && (over(shares_.bytesPerPeer, held + bytes) || over(shares_.bytesTotal, clientBytes_ + bytes)))
            return false;
        if (jobs == 0 && clientJobs_ != 0 && over(shares_.bytesTotal, clientBytes_ + bytes)) return false;
        clientJobs_ += 1;
        clientBytes_ += bytes;
    }
    OwnerQueue& queue = queues_[owner];
    if (queue.jobs.empty()) turns_.push_back(owner);
    queue.jobs.push_back(Entry{std::move(job), bytes});
    queue.pending += 1;
    queue.bytes += bytes;
    ++inFlight_;
    lock.unlock();
    workReady_.notify_one();
    return true;
}

std::size_t Storage::poll() {
    // Every turn of the loop polls; an empty deque still allocates, so it
    // is made only when something is done.
    std::unique_lock<std::mutex> lock(mutex_);
    if (done_.empty()) return 0;
    std::deque<Completion> ready;
    ready.swap(done_);
    lock.unlock();
    for (Completion& c : ready)
        if (c) c();
    return ready.size();
}

void Storage::drain() {
    for (;;) {
        poll();
        std::unique_lock<std::mutex> lock(mutex_);
        if (inFlight_ == 0 && done_.empty()) return;
        doneOrIdle_.wait(lock, [&] { return !done_.empty() || inFlight_ == 0; });
    }
}

std::size_t Storage::pending() {
    std::lock_guard<std::mutex> lock(mutex_);
    return inFlight_;
}

void Storage::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        workReady_.wait(lock, [&] { return stopping_ || !turns_.empty(); });
        if (turns_.empty()) return;  // stopping, and nothing left
        const Owner owner = turns_.front();
        turns_.pop_front();
        OwnerQueue& queue = queues_.at(owner);
        Entry entry = std::move(queue.jobs.front());
        queue.jobs.pop_front();
        // Back at the end of the line: the others take their turn first.
        if (!queue.jobs.empty()) turns_.push_back(owner);
        lock.unlock();
        Completion done = entry.job();
        const std::size_t bytes = entry.bytes;
        entry = Entry{};  // the job's data goes before the next one is taken
        lock.lock();
        OwnerQueue& after = queues_.at(owner);
        after.pending -= 1;
        after.bytes -= bytes;
        if (after.pending == 0) queues_.erase(owner);
        if (owner != kServerWork) {
            clientJobs_ -= 1;
            clientBytes_ -= bytes;
        }
        done_.push_back(std::move(done));
        if (onDone) onDone();
        --inFlight_;
        doneOrIdle_.notify_all();
    }
}
