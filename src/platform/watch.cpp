#include "platform/watch.h"

#include <sys/inotify.h>
#include <unistd.h>

DirectoryWatch::~DirectoryWatch() { close(); }

void DirectoryWatch::close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
}

bool DirectoryWatch::watch(const std::string& path) {
    close();
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) return false;
    // The directory itself going away ends the watch too (IN_IGNORED comes,
    // and changed() sees it as a change): the next look watches again.
    const std::uint32_t mask = IN_CREATE | IN_DELETE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_FROM | IN_MOVED_TO |
                               IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
    if (inotify_add_watch(fd_, path.c_str(), mask) < 0) {
        close();
        return false;
    }
    return true;
}

bool DirectoryWatch::changed() {
    if (fd_ < 0) return true;
    alignas(inotify_event) char buffer[4096];
    bool any = false;
    for (;;) {
        const ssize_t n = read(fd_, buffer, sizeof buffer);
        if (n <= 0) break;
        any = true;
        for (ssize_t at = 0; at < n;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            // The directory is gone or moved: what is watched now is nothing.
            if (event->mask & (IN_IGNORED | IN_DELETE_SELF | IN_MOVE_SELF)) close();
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            if (fd_ < 0) return true;
        }
    }
    return any;
}
