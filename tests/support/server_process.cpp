#include "support/server_process.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/files.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::uint16_t freePort(bool tcp) {
    int fd = socket(AF_INET, tcp ? SOCK_STREAM : SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

std::size_t countOf(const std::string& haystack, const std::string& needle) {
    std::size_t n = 0;
    for (std::size_t pos = haystack.find(needle); pos != std::string::npos; pos = haystack.find(needle, pos + 1)) ++n;
    return n;
}

ServerProcess::ServerProcess(ServerOptions options) : options_(std::move(options)) {
    char tmpl[] = "/tmp/lockstep-e2e-XXXXXX";
    root_ = mkdtemp(tmpl);
    fs::create_directories(root_ + "/server_data");
    fs::create_directories(root_ + "/" + options_.directory);
    port_ = options_.port != 0 ? options_.port : freePort();
    writeFile("settings/server.config", std::to_string(port_) + "\n" + options_.description + "\n" +
                                            (options_.statistics ? "1\n" : "0\n"));
}

ServerProcess::~ServerProcess() {
    if (pid_ > 0 && exitStatus_ < 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    closeInput();
    if (consoleFd_ >= 0) close(consoleFd_);
    std::error_code ec;
    if (std::getenv("LOCKSTEP_KEEP_TEST_ROOTS") == nullptr) fs::remove_all(root_, ec);
}

void ServerProcess::launch() {
    int in[2];
    if (pipe2(in, O_CLOEXEC) != 0) std::abort();
    int out[2] = {-1, -1};
    if (options_.console != Console::File && pipe2(out, O_CLOEXEC) != 0) std::abort();
    signal(SIGPIPE, SIG_IGN);
    pid_ = fork();
    if (pid_ == 0) {
        dup2(in[0], 0);
        dup2(out[1] >= 0 ? out[1] : open((root_ + "/.stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 1);
        dup2(open((root_ + "/.stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644), 2);
        if (chdir((root_ + "/" + options_.directory).c_str()) != 0) _exit(127);
        std::vector<char*> argv{options_.program.data()};
        for (auto& a : options_.arguments) argv.push_back(a.data());
        argv.push_back(nullptr);
        for (const auto& e : options_.environment) putenv(strdup(e.c_str()));
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(in[0]);
    stdinFd_ = in[1];
    if (out[1] >= 0) close(out[1]);
    if (options_.console == Console::Stalled) consoleFd_ = out[0];
    else if (out[0] >= 0) close(out[0]);
}

std::string ServerProcess::readConsolePipe() {
    std::string text;
    char buf[65536];
    for (ssize_t n; consoleFd_ >= 0 && (n = read(consoleFd_, buf, sizeof buf)) > 0;) text.append(buf, static_cast<std::size_t>(n));
    return text;
}

void ServerProcess::sendKeys(const std::string& keys) {
    // A failed write means the server is gone; the test's own checks say so.
    if (stdinFd_ >= 0 && write(stdinFd_, keys.data(), keys.size()) < 0) return;
}

void ServerProcess::closeInput() {
    if (stdinFd_ >= 0) close(stdinFd_);
    stdinFd_ = -1;
}

int ServerProcess::wait(int timeoutMs) {
    for (auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs); exitStatus_ < 0;) {
        int status = 0;
        if (waitpid(pid_, &status, WNOHANG) == pid_)
            exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        else if (Clock::now() >= deadline)
            break;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return exitStatus_;
}

int ServerProcess::stop(int signal, int timeoutMs) {
    if (exitStatus_ < 0) kill(pid_, signal);
    return wait(timeoutMs);
}

bool ServerProcess::waitForLog(const std::string& text, std::size_t count, int timeoutMs) const {
    for (auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs); countOf(log(), text) < count;) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string ServerProcess::readFile(const std::string& relative) const { return readWholeFile(root_ + "/" + relative); }

void ServerProcess::writeFile(const std::string& relative, const std::string& content) const {
    fs::path p = fs::path(root_) / relative;
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << content;
}
