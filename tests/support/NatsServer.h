// SPDX-License-Identifier: MIT
// NatsServer: a real nats-server on a free loopback port for one test (or suite),
// started in the constructor and stopped in the destructor; stop() and start() in
// between simulate an outage. Every wait is bounded.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

class NatsServer {
public:
    NatsServer();
    // A server started with `arguments` (a configuration file, cluster options) instead
    // of "-a 127.0.0.1 -p <port>"; `port` is the client port they make it listen on.
    NatsServer(int port, std::vector<std::string> arguments);
    NatsServer(const NatsServer&) = delete;
    NatsServer& operator=(const NatsServer&) = delete;
    ~NatsServer();

    // Starts the server on port() and waits (up to 5 s) until it accepts connections.
    bool start();
    // Stops it (SIGTERM, then SIGKILL after 3 s) and reaps it.
    void stop();
    // Kills it at once (SIGKILL), as a crash or power loss would, and reaps it.
    void kill();
    pid_t pid() const { return pid_; }

    int port() const { return port_; }
    std::string host() const { return "127.0.0.1:" + std::to_string(port_); }

    // A loopback port nobody listens on right now.
    static int freePort();

private:
    int port_ = 0;
    pid_t pid_ = -1;
    std::vector<std::string> arguments_;  // empty: the loopback defaults
};
