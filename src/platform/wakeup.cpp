#include "platform/wakeup.h"

#include <cerrno>
#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

Wakeup::Wakeup() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Wakeup::~Wakeup() {
    if (fd_ >= 0) close(fd_);
}

void Wakeup::signal() const {
    if (fd_ < 0) return;
    // Called from signal handlers too: errno is theirs to keep. A full
    // counter (never in practice) already means "wake up".
    const int saved = errno;
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(fd_, &one, sizeof one);
    errno = saved;
}

void Wakeup::clear() const {
    if (fd_ < 0) return;
    std::uint64_t count = 0;
    [[maybe_unused]] ssize_t n = read(fd_, &count, sizeof count);
}

bool waitForSocketOrWakeup(int socketFd, const Wakeup& wakeup, int timeoutMs, int otherFd) {
    pollfd fds[3] = {{socketFd, POLLIN, 0}, {wakeup.fd(), POLLIN, 0}, {otherFd, POLLIN, 0}};
    const int result = poll(fds, 3, timeoutMs);
    // Emptied whatever ended the wait: a signal interrupts the poll and
    // writes to the eventfd as well, and must not make two turns. Under load
    // the wait ends for a datagram thousands of times a second, and a read
    // of an empty eventfd is a system call in front of every one of them.
    if (result < 0 || (fds[1].revents & POLLIN) != 0) wakeup.clear();
    return result >= 0 || errno == EINTR;
}

void LoopInbox::post(std::function<void()> work) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        posted_.push_back(std::move(work));
    }
    wakeup_.signal();
}

std::size_t LoopInbox::run() {
    // Runs every turn and almost always finds nothing: an empty deque still
    // allocates, so it is made only when there is work.
    std::unique_lock<std::mutex> lock(mutex_);
    if (posted_.empty()) return 0;
    std::deque<std::function<void()>> ready;
    ready.swap(posted_);
    lock.unlock();
    for (auto& work : ready)
        if (work) work();
    return ready.size();
}
