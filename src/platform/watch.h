#pragma once
// Tells whether anything in one directory changed since the last look,
// without reading it: an entry added, removed, renamed, written or closed
// after writing. Looking costs one non-blocking read of a kernel queue.

#include <cstdint>
#include <string>

class DirectoryWatch {
public:
    DirectoryWatch() = default;
    ~DirectoryWatch();
    DirectoryWatch(const DirectoryWatch&) = delete;
    DirectoryWatch& operator=(const DirectoryWatch&) = delete;

    // Starts watching path (again); false when it cannot be watched (it does
    // not exist yet), in which case changed() keeps answering true.
    bool watch(const std::string& path);
    // True when something changed since the last call, or when nothing is
    // watched; empties the queue either way.
    bool changed();

private:
    void close();
    int fd_ = -1;
};
