// SPDX-License-Identifier: MIT
// Shared by the web console's tests: a raw HTTP/1.1 client over a loopback socket
// (so that requests reach the server exactly as written, odd paths included), and a
// fixture that runs nimb-web (and, when asked, nats-server and the collector) as child
// processes with their own settings home, logs folder and dump folder.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sys/types.h>

#include <gtest/gtest.h>

#include "NatsServer.h"
#include "NimbTestSupport.h"

namespace webtest {

struct HttpResponse {
    int status = 0;                              // 0: no answer
    std::map<std::string, std::string> headers;  // names lower-cased
    std::string body;
    std::string header(const std::string& name) const;
};

// Sends "GET <target> HTTP/1.1" (or another method) with `extraHeaders` ("Name: value"
// lines) and `body` (with its Content-Length, when not empty), and reads one response
// with a Content-Length body. Bounded by `timeout`. From the loopback address `from`
// when given (e.g. "127.0.0.2", to stand for another host).
HttpResponse request(int port, const std::string& target,
                     const std::vector<std::string>& extraHeaders = {},
                     const std::string& method = "GET",
                     std::chrono::milliseconds timeout = std::chrono::seconds(10),
                     const std::string& from = "", const std::string& body = "");

// A connected TCP socket to 127.0.0.1:`port` from `from` (default 127.0.0.1); -1 on failure.
int connectTo(int port, const std::string& from = "");
// Writes all of `bytes`; false on failure.
bool sendAll(int fd, const std::string& bytes);
// Reads until the peer closes or `timeout` passes; `closed` tells which.
std::string readUntilClosed(int fd, std::chrono::milliseconds timeout, bool* closed = nullptr);
// Whether anything (bytes or the end) can be read from `fd` right now, without waiting.
bool readable(int fd);
// Every "HTTP/1.1 <status>" in `bytes`, in order (answers read back to back).
std::vector<int> statuses(const std::string& bytes);

// An open connection reading a server-sent event stream.
class EventStream {
public:
    EventStream(int port, const std::string& target);
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;
    ~EventStream();
    // Reads until everything received so far contains `text`; false after `timeout`.
    bool waitFor(const std::string& text,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5));
    const std::string& received() const { return received_; }

private:
    int fd_ = -1;
    std::string received_;
};

class WebFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    nimbtest::fs::path root() const { return nimbtest::fs::path(dir_.path()); }
    nimbtest::fs::path logs() const { return root() / "logs"; }
    nimbtest::fs::path dumps() const { return root() / "dumps"; }
    std::map<std::string, std::string> environment() const;
    // Writes a setting of nimb-web's key.
    void setWebSetting(const std::string& name, const std::string& value);
    void setWebSetting(const std::string& name, int value);

    // Starts nats-server and the collector; waits until the collector is on the bus. The
    // collector reads its counters into the Health series every second.
    void startCollector();
    // Stops the collector (SIGTERM) and waits for its end; nats-server runs on.
    void stopCollector();
    // Starts nimb-web on a free port of `address` with `args` added; waits until it serves.
    void startWeb(const std::vector<std::string>& args = {},
                  const std::string& address = "127.0.0.1");
    // Runs nimb-web to its end (for refusals): exit code and standard error.
    nimbtest::ChildResult runWeb(const std::vector<std::string>& args);
    // Runs kib-call RemoteLogger <service> <json> as the device "dev1"; its exit code.
    int callCollector(const std::string& service, const std::string& json);

    HttpResponse get(const std::string& target, const std::vector<std::string>& headers = {}) {
        return request(port_, target, headers);
    }

    // Set before starting a program: replaces or adds to environment()'s variables.
    std::map<std::string, std::string> extraEnvironment_;
    nimbtest::TempDir dir_;
    std::unique_ptr<NatsServer> nats_;
    pid_t collector_ = -1;
    pid_t web_ = -1;
    int port_ = 0;
};

}  // namespace webtest
