#include "support/server_process.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "support/files.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::uint16_t freeUdpPort() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
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
    if (options_.createServerData) fs::create_directories(root_ + "/server_data");
    port_ = freeUdpPort();
    if (options_.configText) {
        writeFile("settings/server.config", *options_.configText);
    } else if (options_.writeConfig) {
        std::string text = std::to_string(port_) + "\n" + options_.description.value_or("") + "\n" +
                           (options_.statistics ? "1" : "0") + "\n";
        writeFile("settings/server.config", text);
    }
}

ServerProcess::~ServerProcess() {
    if (pid_ > 0 && exitStatus_ < 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    if (stdinFd_ >= 0) close(stdinFd_);
    std::error_code ec;
    if (std::getenv("LOCKSTEP_KEEP_TEST_ROOTS") == nullptr) fs::remove_all(root_, ec);
}

void ServerProcess::launch() {
    int in[2];
    if (pipe(in) != 0) std::abort();
    pid_ = fork();
    if (pid_ == 0) {
        dup2(in[0], 0);
        close(in[0]);
        close(in[1]);
        int out = open((root_ + "/.stdout").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open((root_ + "/.stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        if (chdir(root_.c_str()) != 0) _exit(127);
        std::vector<std::string> argv = options_.wrapper;
        argv.push_back(LOCKSTEP_SERVER_BIN);
        for (const auto& a : options_.arguments) argv.push_back(a);
        std::vector<char*> cargv;
        for (auto& a : argv) cargv.push_back(a.data());
        cargv.push_back(nullptr);
        for (const auto& e : options_.environment) putenv(strdup(e.c_str()));
        execvp(cargv[0], cargv.data());
        _exit(127);
    }
    close(in[0]);
    stdinFd_ = in[1];
    signal(SIGPIPE, SIG_IGN);
}

bool ServerProcess::start(int timeoutMs) {
    launch();
    return waitForLog("Enet server created at ", timeoutMs);
}

void ServerProcess::sendKeys(const std::string& keys) {
    if (stdinFd_ >= 0 && write(stdinFd_, keys.data(), keys.size()) < 0) {
        // The server is gone; the test's own checks report it.
    }
}

void ServerProcess::closeInput() {
    if (stdinFd_ >= 0) close(stdinFd_);
    stdinFd_ = -1;
}

int ServerProcess::wait(int timeoutMs) {
    if (exitStatus_ >= 0) return exitStatus_;
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        int status = 0;
        pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitStatus_;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

int ServerProcess::stop(int signal, int timeoutMs) {
    if (exitStatus_ >= 0) return exitStatus_;
    kill(pid_, signal);
    return wait(timeoutMs);
}

bool ServerProcess::running() { return exitStatus_ < 0 && wait(0) < 0; }

std::string ServerProcess::log() const { return readWholeFile(root_ + "/server.log"); }
std::string ServerProcess::consoleOutput() const { return readWholeFile(root_ + "/.stdout"); }
std::string ServerProcess::consoleErrors() const { return readWholeFile(root_ + "/.stderr"); }

bool ServerProcess::waitForLog(const std::string& text, int timeoutMs) const {
    return waitForLogCount(text, 1, timeoutMs);
}

bool ServerProcess::waitForLogCount(const std::string& text, std::size_t count, int timeoutMs) const {
    auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (countOf(log(), text) >= count) return true;
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

std::string ServerProcess::readFile(const std::string& relative) const { return readWholeFile(root_ + "/" + relative); }

void ServerProcess::writeFile(const std::string& relative, const std::string& content) const {
    fs::path p = fs::path(root_) / relative;
    fs::create_directories(p.parent_path());
    std::ofstream out(p, std::ios::binary);
    out << content;
}
