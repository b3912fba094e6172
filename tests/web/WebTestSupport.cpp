// SPDX-License-Identifier: MIT
#include "WebTestSupport.h"

#include <algorithm>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

namespace webtest {

namespace fs = nimbtest::fs;
using Clock = std::chrono::steady_clock;

namespace {

// Appends what arrives within `until` to `out`; false on end of stream or timeout.
bool readSome(int fd, std::string& out, Clock::time_point until) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    if (left.count() <= 0) return false;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
    char buffer[64 * 1024];
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n <= 0) return false;
    out.append(buffer, static_cast<std::size_t>(n));
    return true;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

int connectTo(int port, const std::string& from) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (!from.empty()) {
        sockaddr_in source{};
        source.sin_family = AF_INET;
        if (::inet_pton(AF_INET, from.c_str(), &source.sin_addr) != 1 ||
            ::bind(fd, reinterpret_cast<sockaddr*>(&source), sizeof source) != 0) {
            ::close(fd);
            return -1;
        }
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool sendAll(int fd, const std::string& bytes) {
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) return false;
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

std::string readUntilClosed(int fd, std::chrono::milliseconds timeout, bool* closed) {
    const Clock::time_point until = Clock::now() + timeout;
    std::string out;
    bool ended = false;
    char buffer[64 * 1024];
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        if (left.count() <= 0) break;
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            ended = true;  // the end, or a reset: closed either way
            break;
        }
        out.append(buffer, static_cast<std::size_t>(n));
    }
    if (closed != nullptr) *closed = ended;
    return out;
}

bool readable(int fd) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) > 0;
}

std::vector<int> statuses(const std::string& bytes) {
    std::vector<int> found;
    for (std::size_t at = bytes.find("HTTP/1.1 "); at != std::string::npos;
         at = bytes.find("HTTP/1.1 ", at + 1)) {
        found.push_back(std::atoi(bytes.substr(at + 9, 3).c_str()));
    }
    return found;
}

std::string HttpResponse::header(const std::string& name) const {
    const auto it = headers.find(lower(name));
    return it == headers.end() ? std::string() : it->second;
}

HttpResponse request(int port, const std::string& target,
                     const std::vector<std::string>& extraHeaders, const std::string& method,
                     std::chrono::milliseconds timeout, const std::string& from,
                     const std::string& body) {
    HttpResponse response;
    const int fd = connectTo(port, from);
    if (fd < 0) return response;
    std::string out = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    for (const std::string& h : extraHeaders) out += h + "\r\n";
    if (!body.empty()) out += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    out += "\r\n" + body;
    if (::write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) {
        ::close(fd);
        return response;
    }
    const Clock::time_point until = Clock::now() + timeout;
    std::string in;
    std::size_t headerEnd = std::string::npos;
    while ((headerEnd = in.find("\r\n\r\n")) == std::string::npos) {
        if (!readSome(fd, in, until)) {
            ::close(fd);
            return response;
        }
    }
    const std::string head = in.substr(0, headerEnd);
    response.status = std::atoi(head.substr(head.find(' ') + 1, 3).c_str());
    std::size_t at = head.find("\r\n");
    while (at != std::string::npos && at < head.size()) {
        const std::size_t next = head.find("\r\n", at + 2);
        const std::string line =
            head.substr(at + 2, next == std::string::npos ? std::string::npos : next - at - 2);
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos) {
            response.headers[lower(line.substr(0, colon))] =
                line.substr(line.find_first_not_of(' ', colon + 1));
        }
        at = next;
    }
    const std::size_t length =
        std::strtoull(response.header("Content-Length").c_str(), nullptr, 10);
    response.body = in.substr(headerEnd + 4);
    while (response.body.size() < length && readSome(fd, response.body, until)) {
    }
    ::close(fd);
    return response;
}

EventStream::EventStream(int port, const std::string& target) : fd_(connectTo(port)) {
    const std::string out =
        "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: text/event-stream\r\n\r\n";
    if (fd_ >= 0 && ::write(fd_, out.data(), out.size()) != static_cast<ssize_t>(out.size())) {
        ::close(fd_);
        fd_ = -1;
    }
}

EventStream::~EventStream() {
    if (fd_ >= 0) ::close(fd_);
}

bool EventStream::waitFor(const std::string& text, std::chrono::milliseconds timeout) {
    const Clock::time_point until = Clock::now() + timeout;
    while (received_.find(text) == std::string::npos) {
        if (fd_ < 0 || !readSome(fd_, received_, until)) return false;
    }
    return true;
}

void WebFixture::SetUp() {
    for (const char* folder : {"cfg/pellix", "logs", "dumps", "tmp"})
        fs::create_directories(root() / folder);
    nimbtest::writeFile(root() / "cfg/pellix/com.pellix.nimb.json",
                        R"({"LogLevel": 3, "LogsDir": ")" + logs().string() + "\"}");
}

void WebFixture::TearDown() {
    if (web_ > 0) {
        // nimb-web ends in order on SIGTERM; in a sanitizer build its report would be here.
        ::kill(web_, SIGTERM);
        const nimbtest::ChildResult web =
            nimbtest::waitChild(web_, root() / "web.txt", std::chrono::seconds(10));
        web_ = -1;
        EXPECT_EQ(web.exitCode(), 0) << web.output;
        EXPECT_EQ(web.output.find("Sanitizer"), std::string::npos) << web.output;
        EXPECT_EQ(web.output.find("runtime error"), std::string::npos) << web.output;
    }
    stopCollector();
    nats_.reset();
}

void WebFixture::stopCollector() {
    if (collector_ <= 0) return;
    ::kill(collector_, SIGTERM);
    nimbtest::waitChild(collector_, root() / "collector.txt", std::chrono::seconds(10));
    collector_ = -1;
    // Kept apart, so that a start afterwards waits for its own "connected".
    fs::rename(root() / "collector.txt", root() / "collector.stopped.txt");
}

std::map<std::string, std::string> WebFixture::environment() const {
    std::map<std::string, std::string> env = {{"XDG_CONFIG_HOME", (root() / "cfg").string()},
                                              {"XDG_STATE_HOME", (root() / "state").string()},
                                              {"TMPDIR", (root() / "tmp").string()}};
    for (const auto& [name, value] : extraEnvironment_) env[name] = value;
    return env;
}

void WebFixture::setWebSetting(const std::string& name, const std::string& value) {
    const fs::path file = root() / "cfg/pellix/com.pellix.nimb.web.json";
    std::string json = fs::exists(file) ? nimbtest::readFile(file) : "{}";
    json.pop_back();  // the closing brace
    json += (json.size() > 1 ? ", \"" : "\"") + name + "\": \"" + value + "\"}";
    nimbtest::writeFile(file, json);
}

void WebFixture::setWebSetting(const std::string& name, int value) {
    const fs::path file = root() / "cfg/pellix/com.pellix.nimb.web.json";
    std::string json = fs::exists(file) ? nimbtest::readFile(file) : "{}";
    json.pop_back();  // the closing brace
    json += (json.size() > 1 ? ", \"" : "\"") + name + "\": " + std::to_string(value) + "}";
    nimbtest::writeFile(file, json);
}

void WebFixture::startCollector() {
    nats_ = std::make_unique<NatsServer>();
    // Counters read into the Health series every second, so that pages and tests see
    // them without waiting for a minute.
    nimbtest::writeFile(
        root() / "cfg/pellix/com.pellix.nimb.config.json",
        R"({"HealthSampleSeconds": 1, "kibDirectory.host": ")" + nats_->host() + "\"}");
    collector_ =
        nimbtest::spawnChild({NIMB_REMOTE_LOGGER}, environment(), root() / "collector.txt");
    const bool connected = nimbtest::waitUntil(
        [&] {
            return nimbtest::readFile(root() / "collector.txt").find("connected") !=
                   std::string::npos;
        },
        std::chrono::seconds(10));
    ASSERT_TRUE(connected) << nimbtest::readFile(root() / "collector.txt");
}

void WebFixture::startWeb(const std::vector<std::string>& args, const std::string& address) {
    port_ = NatsServer::freePort();
    std::vector<std::string> argv = {
        NIMB_WEB,        "--listen",      address + ":" + std::to_string(port_),
        "--logs-dir",    logs().string(), "--dump-dir",
        dumps().string()};
    argv.insert(argv.end(), args.begin(), args.end());
    web_ = nimbtest::spawnChild(argv, environment(), root() / "web.txt");
    const bool serving = nimbtest::waitUntil(
        [&] { return nimbtest::readFile(root() / "web.txt").find("serving") != std::string::npos; },
        std::chrono::seconds(10));
    ASSERT_TRUE(serving) << nimbtest::readFile(root() / "web.txt");
}

nimbtest::ChildResult WebFixture::runWeb(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {NIMB_WEB};
    argv.insert(argv.end(), args.begin(), args.end());
    return nimbtest::runChild(argv, environment(), root() / "run.txt", true,
                              std::chrono::seconds(20));
}

int WebFixture::callCollector(const std::string& service, const std::string& json) {
    const nimbtest::ChildResult run = nimbtest::runChild(
        {KIB_CALL, "--host", nats_->host(), "--name", "dev1", "RemoteLogger", service, json},
        environment(), root() / "call.txt");
    return run.exitCode();
}

}  // namespace webtest
