#include "platform/files.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <system_error>

namespace fs = std::filesystem;

namespace {
std::string prefix = "../";
// Whole-file writes and appends that failed, for the operators' metrics: a
// full or failing disk shows there before anyone reads the log.
std::atomic<std::uint64_t> writeFailures{0};
bool counted(bool ok) {
    if (!ok) writeFailures.fetch_add(1, std::memory_order_relaxed);
    return ok;
}
// Read once before any thread runs: umask() can only be read by setting it.
const mode_t processUmask = [] {
    mode_t m = umask(0);
    umask(m);
    return m;
}();
}

const std::string& dataRootPrefix() { return prefix; }
void setDataRootPrefix(std::string newPrefix) { prefix = std::move(newPrefix); }

namespace {
// 1: directory, 0: missing or not a directory, -1: the query failed.
int isDirectory(const char* path, std::string& errorText) {
    std::error_code ec;
    fs::file_status st = fs::status(path, ec);
    if (ec && st.type() != fs::file_type::not_found) {
        errorText = std::string("cannot query ") + path + ": " + ec.message();
        return -1;
    }
    return st.type() == fs::file_type::directory ? 1 : 0;
}
}  // namespace

bool chooseDataRoot(std::string& errorText) {
    int here = isDirectory("./server_data", errorText);
    if (here < 0) return false;
    if (here == 1) {
        prefix = "./";
        return true;
    }
    int parent = isDirectory("../server_data", errorText);
    if (parent < 0) return false;
    if (parent == 1) prefix = "../";
    return true;
}

bool prepareFilePath(const std::string& path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return true;
    std::string dir = path.substr(0, slash + 1);
    if (dir.empty()) return true;
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) return false;
    return fs::is_directory(dir, ec);
}

std::FILE* openFileForPath(const std::string& path, const char* mode) {
    if (!prepareFilePath(path)) return nullptr;
    return std::fopen(path.c_str(), mode);
}

FileWriter::~FileWriter() {
    if (file_ != nullptr) std::fclose(file_);
    if (!temp_.empty()) std::remove(temp_.c_str());
}

bool FileWriter::open(const std::string& path) {
    if (!prepareFilePath(path)) return false;
    std::error_code ec;
    if (fs::is_directory(path, ec)) return false;
    std::string pattern = path + ".tmpXXXXXX";
    int fd = mkstemp(pattern.data());
    if (fd < 0) return false;
    temp_ = pattern;
    file_ = fdopen(fd, "wb");
    if (file_ == nullptr) {
        ::close(fd);
        return false;
    }
    // Files made this way get the permissions fopen would have given them.
    fchmod(fd, 0666 & ~processUmask);
    path_ = path;
    failed_ = false;
    return true;
}

void FileWriter::write(const void* data, std::size_t size) {
    if (file_ == nullptr || size == 0) return;
    if (std::fwrite(data, 1, size, file_) != size) failed_ = true;
}

bool FileWriter::commit() { return counted(commitFile()); }

bool FileWriter::commitFile() {
    if (file_ == nullptr) return false;
    bool ok = !failed_ && std::fflush(file_) == 0 && fsync(fileno(file_)) == 0;
    ok = std::fclose(file_) == 0 && ok;
    file_ = nullptr;
    if (ok && std::rename(temp_.c_str(), path_.c_str()) == 0) {
        temp_.clear();
        return true;
    }
    std::remove(temp_.c_str());
    temp_.clear();
    return false;
}

std::uint64_t diskWriteFailures() { return writeFailures.load(std::memory_order_relaxed); }

namespace {
bool appendWhole(const std::string& path, std::string_view text) {
    if (!prepareFilePath(path)) return false;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    struct stat before {};
    bool ok = fstat(fd, &before) == 0;
    std::size_t done = 0;
    while (ok && done < text.size()) {
        ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) ok = false;
        else done += static_cast<std::size_t>(n);
    }
    ok = ok && fsync(fd) == 0;
    // What went in of a block that did not go in whole comes out again, so a
    // reader never meets half a block.
    if (!ok && done > 0) {
        if (ftruncate(fd, before.st_size) == 0) fsync(fd);
    }
    return ::close(fd) == 0 && ok;
}
}  // namespace

bool appendToFile(const std::string& path, std::string_view text) { return counted(appendWhole(path, text)); }

std::size_t removeLeftoverTemporaries(const std::string& directory, const std::vector<std::string>& skip) {
    std::size_t removed = 0;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string name = it->path().filename().string();
        if (it.depth() == 0 && it->is_directory(ec) && std::find(skip.begin(), skip.end(), name) != skip.end()) {
            it.disable_recursion_pending();
            continue;
        }
        const auto mark = name.rfind(".tmp");
        // Exactly the names FileWriter makes: ".tmp" and six characters of mkstemp's.
        if (mark == std::string::npos || mark + 10 != name.size() || !it->is_regular_file(ec)) continue;
        if (fs::remove(it->path(), ec)) ++removed;
    }
    return removed;
}

bool readSmallTextFile(const std::string& path, std::size_t maxBytes, std::string& text) {
    std::FILE* f = openFileForPath(path, "r");
    if (f == nullptr) return false;
    char buf[4096];
    std::size_t n;
    while (text.size() < maxBytes && (n = std::fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    std::fclose(f);
    if (text.size() > maxBytes) text.resize(maxBytes);
    return true;
}
