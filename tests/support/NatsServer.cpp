// SPDX-License-Identifier: MIT
#include "NatsServer.h"

#include <chrono>
#include <thread>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

bool accepts(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

NatsServer::NatsServer() {
    // A port found free may be taken before the server binds it; try a few.
    for (int attempt = 0; attempt < 5; ++attempt) {
        port_ = freePort();
        if (start()) return;
    }
}

NatsServer::NatsServer(int port, std::vector<std::string> arguments)
    : port_(port), arguments_(std::move(arguments)) {
    start();
}

NatsServer::~NatsServer() { stop(); }

void NatsServer::kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

int NatsServer::freePort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
    socklen_t size = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
    ::close(fd);
    return ntohs(address.sin_port);
}

bool NatsServer::start() {
    if (pid_ > 0) return true;
    std::vector<std::string> arguments = arguments_;
    if (arguments.empty()) arguments = {"-a", "127.0.0.1", "-p", std::to_string(port_)};
    std::vector<char*> argv{const_cast<char*>("nats-server")};
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        const int devnull = ::open("/dev/null", O_WRONLY);
        ::dup2(devnull, STDOUT_FILENO);
        ::dup2(devnull, STDERR_FILENO);
        // Debian installs the server in /usr/sbin; elsewhere it is on the PATH.
        for (const char* path : {"/usr/bin/nats-server", "/usr/sbin/nats-server"})
            ::execv(path, argv.data());
        ::execvp("nats-server", argv.data());
        ::_exit(127);
    }
    for (int i = 0; i < 100; ++i) {
        // Our server must be the one answering: if it died (port taken by another test
        // in the meantime) the caller's start() fails instead of sharing a stranger.
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return false;
        }
        if (accepts(port_)) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

void NatsServer::stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    for (int i = 0; i < 60; ++i) {
        if (::waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
}
