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

void Storage::submit(Job job, std::size_t bytes) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!running_) {
        lock.unlock();
        if (Completion done = job()) done();
        return;
    }
    auto full = [&] { return jobs_.size() >= kMaxJobs || (!jobs_.empty() && queuedBytes_ + bytes > kMaxBytes); };
    if (full()) {
        if (onFull) {
            lock.unlock();
            onFull();
            lock.lock();
        }
        roomOrDone_.wait(lock, [&] { return !full(); });
    }
    jobs_.push_back(Entry{std::move(job), bytes});
    queuedBytes_ += bytes;
    ++inFlight_;
    lock.unlock();
    workReady_.notify_one();
}

std::size_t Storage::poll() {
    std::deque<Completion> ready;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ready.swap(done_);
    }
    for (Completion& c : ready)
        if (c) c();
    return ready.size();
}

void Storage::drain() {
    for (;;) {
        poll();
        std::unique_lock<std::mutex> lock(mutex_);
        if (inFlight_ == 0 && done_.empty()) return;
        roomOrDone_.wait(lock, [&] { return !done_.empty() || inFlight_ == 0; });
    }
}

std::size_t Storage::pending() {
    std::lock_guard<std::mutex> lock(mutex_);
    return inFlight_;
}

void Storage::run() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        workReady_.wait(lock, [&] { return stopping_ || !jobs_.empty(); });
        if (jobs_.empty()) return;  // stopping, and nothing left
        Entry entry = std::move(jobs_.front());
        jobs_.pop_front();
        queuedBytes_ -= entry.bytes;
        lock.unlock();
        roomOrDone_.notify_all();
        Completion done = entry.job();
        entry = Entry{};  // the job's data goes before the next one is taken
        lock.lock();
        done_.push_back(std::move(done));
        if (onDone) onDone();
        --inFlight_;
        roomOrDone_.notify_all();
    }
}
