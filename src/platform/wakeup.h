#pragma once
// Other threads hand the loop work and wake it at once. The loop waits on
// its socket and on one eventfd together; a post, a finished disk job or a
// signal writes to the eventfd, so the loop turns within a moment instead of
// at the end of an idle wait of up to the longest interval.

#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>

// One eventfd. signal() is a single write(2), safe in a signal handler and
// from any thread; clear() empties it on the loop.
class Wakeup {
public:
    Wakeup();
    ~Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    int fd() const { return fd_; }
    void signal() const;
    void clear() const;

private:
    int fd_ = -1;
};

// Waits until the socket has something to read, the wake-up is signalled,
// a signal interrupts, or timeoutMs pass; then empties the wake-up, so that
// one post or one signal makes one extra turn. A socket of -1 is not
// watched. Returns false when the wait itself failed (the caller then
// sleeps instead). A further descriptor (-1: none) ends the wait too when
// it has something to read.
bool waitForSocketOrWakeup(int socketFd, const Wakeup& wakeup, int timeoutMs, int otherFd = -1);

// Work handed to the loop: any thread posts, the loop runs what was posted,
// in order, at its next turn. Posts come only from the server's own threads,
// never on a client's behalf (the fleet client posts its few log lines), so
// the queue needs no bound of its own.
class LoopInbox {
public:
    void post(std::function<void()> work);
    // Runs everything posted so far; returns how many ran.
    std::size_t run();
    const Wakeup& wakeup() const { return wakeup_; }

private:
    std::mutex mutex_;
    std::deque<std::function<void()>> posted_;
    Wakeup wakeup_;
};
