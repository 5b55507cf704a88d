#include "platform/files.h"

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <system_error>

namespace fs = std::filesystem;

namespace {
std::string prefix = "../";
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

bool FileWriter::open(const std::string& path, bool keepExisting) {
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
    if (keepExisting) {
        if (std::FILE* old = std::fopen(path.c_str(), "rb")) {
            char buf[65536];
            std::size_t n;
            bool ok = true;
            while ((n = std::fread(buf, 1, sizeof buf, old)) > 0) ok = ok && std::fwrite(buf, 1, n, file_) == n;
            std::fclose(old);
            if (!ok) return false;
        }
    }
    path_ = path;
    return true;
}

void FileWriter::write(const void* data, std::size_t size) {
    if (file_ != nullptr && size > 0) std::fwrite(data, 1, size, file_);
}

bool FileWriter::commit() {
    if (file_ == nullptr) return false;
    bool ok = std::fflush(file_) == 0 && fsync(fileno(file_)) == 0;
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
