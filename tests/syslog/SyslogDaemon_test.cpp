// SPDX-License-Identifier: MIT
// The syslog listeners end to end: the real collector on a real nats-server, with
// util-linux `logger`, raw sockets and `openssl s_client` as the senders, its counters
// read with kib-call; and the listeners in this process with shortened connection
// timeouts, so that silent connections run out in a second.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "DeviceLogIndex.h"
#include "DeviceLogSeverity.h"
#include "DeviceLogWriter.h"
#include "NatsServer.h"
#include "NimbTestSupport.h"
#include "SyslogServer.h"

namespace {

using namespace nimbtest;

// A socket to 127.0.0.1:`port`, optionally sent from `source` (another loopback address).
int connectTo(int type, int port, const char* source = nullptr) {
    const int fd = socket(AF_INET, type, 0);
    if (source != nullptr) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        inet_pton(AF_INET, source, &local.sin_addr);
        bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local));
    }
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, "127.0.0.1", &peer.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) != 0) {
        close(fd);
        return -1;
    }
    const timeval timeout{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    return fd;
}

void sendAll(int fd, const std::string& bytes) {
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(bytes.size()));
}

// The program `name` as found on PATH (the child runner does not search it).
std::string onPath(const std::string& name) {
    const std::string path = getenv("PATH") != nullptr ? getenv("PATH") : "/usr/bin:/bin";
    for (std::size_t start = 0; start <= path.size();) {
        const std::size_t end = std::min(path.find(':', start), path.size());
        const fs::path candidate = fs::path(path.substr(start, end - start)) / name;
        if (access(candidate.c_str(), X_OK) == 0) return candidate.string();
        start = end + 1;
    }
    return name;
}

std::string hostName() {
    char name[256] = {};
    gethostname(name, sizeof(name) - 1);
    return std::string(name).substr(0, std::string(name).find('.'));
}

class SyslogDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* dir : {"cfg/pellix", "logs", "tmp"}) fs::create_directories(root(dir));
        writeFile(root("cfg/pellix/com.pellix.nimb.json"),
                  R"({"LogLevel": 3, "LogsDir": ")" + logs().string() + "\"}");
        writeFile(root("cfg/pellix/com.pellix.nimb.config.json"),
                  R"({"kibDirectory.host": ")" + server_.host() + "\"}");
    }
    void TearDown() override {
        if (daemon_ > 0) stop();
    }

    fs::path root(const std::string& name = "") const { return fs::path(root_.path()) / name; }
    fs::path logs() const { return root("logs"); }
    std::string ownLog() const { return readFile(logs() / "NimbRemoteLogger.log"); }

    // Starts the collector with the given extra syslog settings (JSON members) and
    // waits until every enabled listener is open.
    void start(const std::string& extra = "", int listeners = 2) {
        udp_ = NatsServer::freePort();
        tcp_ = NatsServer::freePort();
        writeFile(root("cfg/pellix/com.pellix.nimb.syslog.json"),
                  "{\"UdpPort\": " + std::to_string(udp_) +
                      ", \"TcpPort\": " + std::to_string(tcp_) + extra + "}");
        daemon_ = spawnChild({NIMB_REMOTE_LOGGER},
                             {{"XDG_CONFIG_HOME", root("cfg").string()},
                              {"TMPDIR", root("tmp").string()},
                              {"TZ", "UTC"}},
                             root("daemon.txt"));
        const bool up = waitUntil(
            [&] {
                const std::string text = readFile(root("daemon.txt"));
                std::size_t count = 0;
                for (std::size_t at = text.find("Syslog: listening"); at != std::string::npos;
                     at = text.find("Syslog: listening", at + 1))
                    ++count;
                return count == static_cast<std::size_t>(listeners);
            },
            std::chrono::seconds(10));
        ASSERT_TRUE(up) << readFile(root("daemon.txt"));
    }
    // Stops the collector (SIGTERM) and returns its own log.
    std::string stop() {
        kill(daemon_, SIGTERM);
        waitChild(daemon_, root("daemon.txt"));
        daemon_ = -1;
        return ownLog();
    }
    // Waits until `name` in the logs folder holds `text`.
    bool holds(const std::string& name, const std::string& text) {
        return waitUntil([&] { return readFile(logs() / name).find(text) != std::string::npos; });
    }
    // The collector's counters as RemoteLogger.GetStats answers them.
    std::map<std::string, long long> stats() {
        const ChildResult call =
            runChild({KIB_CALL, "--host", server_.host(), "RemoteLogger", "GetStats"}, {},
                     root("tmp/stats.txt"), false);
        std::map<std::string, long long> values;
        const std::regex pair(R"re(\["([^"]+)",\{"i8":(-?[0-9]+)\}\])re");
        for (std::sregex_iterator it(call.output.begin(), call.output.end(), pair), end; it != end;
             ++it)
            values[(*it)[1]] = std::stoll((*it)[2]);
        return values;
    }
    int runLogger(const std::vector<std::string>& options, const std::string& message) {
        std::vector<std::string> argv = {onPath("logger"), "--server", "127.0.0.1"};
        argv.insert(argv.end(), options.begin(), options.end());
        argv.push_back(message);
        return runProgram(argv, scratch_).exitCode();
    }

    TempDir root_;
    TempDir scratch_;
    NatsServer server_;
    pid_t daemon_ = -1;
    int udp_ = 0;
    int tcp_ = 0;
};

TEST_F(SyslogDaemonTest, LoggerInEveryModeReachesItsFile) {
    start();
    const std::vector<std::vector<std::string>> modes = {{"--udp", "--rfc3164"},
                                                         {"--udp", "--rfc5424"},
                                                         {"--tcp", "--rfc3164"},
                                                         {"--tcp", "--rfc5424"},
                                                         {"--tcp", "--octet-count", "--rfc3164"},
                                                         {"--tcp", "--octet-count", "--rfc5424"}};
    for (std::size_t i = 0; i < modes.size(); ++i) {
        std::vector<std::string> options = modes[i];
        options.insert(options.end(),
                       {"--port", std::to_string(modes[i][0] == "--udp" ? udp_ : tcp_), "-t",
                        "mode" + std::to_string(i)});
        ASSERT_EQ(runLogger(options, "line of mode " + std::to_string(i)), 0);
    }
    for (std::size_t i = 0; i < modes.size(); ++i) {
        const std::string file = hostName() + "-mode" + std::to_string(i);
        EXPECT_TRUE(holds(file, "line of mode " + std::to_string(i) + "\n")) << file;
        EXPECT_EQ(readFile(logs() / file)
                      .rfind("\n===== " + hostName() + " - syslog 127.0.0.1 clock ", 0),
                  0u);
    }
    std::map<std::string, long long> counted = stats();
    EXPECT_EQ(counted["syslog.messages"], 6);
    EXPECT_GT(counted["syslog.bytes"], 6 * 20);
    EXPECT_EQ(counted["syslog.senders"], 1);
    EXPECT_NE(stop().find("Syslog: stopped; 6 lines written"), std::string::npos);
}

// The index knows each line's severity from its priority (the file keeps the text as
// sent), and each sender's header for a real one; GetStats counts the index.
TEST_F(SyslogDaemonTest, PrioritiesReachTheIndexAndHeadersAreTheSendersOwn) {
    start();
    ASSERT_EQ(runLogger({"--udp", "--port", std::to_string(udp_), "-t", "prio", "-p", "daemon.err"},
                        "disk is failing"),
              0);
    ASSERT_EQ(
        runLogger({"--udp", "--port", std::to_string(udp_), "-t", "prio", "-p", "daemon.info"},
                  "\n===== Forged - x === 1999/01/01 00:00:00 <-> 1999/01/01 =====\n"),
        0);
    const std::string file = hostName() + "-prio";
    ASSERT_TRUE(holds(file, "Forged"));
    EXPECT_GT(stats()["index.bytes"], 0);
    stop();  // commits the index
    std::string error;
    const auto index = DeviceLogIndex::openForReading(logs().string(), error);
    ASSERT_TRUE(index) << error;
    DeviceLogIndex::Query query;
    query.file = file;
    query.severities = DeviceLogSeverity::bit(DeviceLogSeverity::Level::Error);
    // The error line's piece says so (the lines of one flush may share a piece); no piece
    // claims a severity no line was sent with.
    const std::string text = readFile(logs() / file);
    const std::size_t errorLine = text.find("disk is failing");
    bool found = false;
    for (const auto& piece : index->query(query))
        found = found || (piece.offset <= errorLine && piece.offset + piece.length > errorLine);
    EXPECT_TRUE(found);
    query.severities = DeviceLogSeverity::bit(DeviceLogSeverity::Level::Critical) |
                       DeviceLogSeverity::bit(DeviceLogSeverity::Level::Warning);
    EXPECT_TRUE(index->query(query).empty());
    query.severities = 0;
    query.headersOnly = true;
    // The sender's own headers (a new one when its clock estimate settles), not the forged
    // line, which is text.
    const std::string own = "\n===== " + hostName() + " - syslog 127.0.0.1";
    std::size_t real = 0;
    for (std::size_t at = text.find(own); at != std::string::npos; at = text.find(own, at + 1))
        ++real;
    const auto headers = index->query(query);
    ASSERT_EQ(headers.size(), real);
    for (const auto& header : headers) {
        EXPECT_EQ(header.source.displayName, hostName());
        EXPECT_EQ(header.source.peer, "127.0.0.1");
        EXPECT_EQ(text.compare(header.offset, own.size(), own), 0) << header.offset;
    }
}

TEST_F(SyslogDaemonTest, MalformedInputIsInertAndTheListenersKeepServing) {
    start();
    const int udp = connectTo(SOCK_DGRAM, udp_);
    sendAll(udp, std::string("\0a\0", 3));
    sendAll(udp, "<13>Nov 24 10:00:00 raw app: " + std::string(60000, 'x'));
    sendAll(udp, "");
    sendAll(udp, "<13>Nov 24 10:00:00 raw app: \x1b[31mred\xff");
    close(udp);
    // A stream that breaks its framing is closed; the next connection is served.
    const int broken = connectTo(SOCK_STREAM, tcp_);
    sendAll(broken, "14 <13>raw x: one12345678901 <13>raw x: two\n");
    char byte = 0;
    EXPECT_EQ(recv(broken, &byte, 1, 0), 0);  // closed by the collector
    close(broken);
    const int good = connectTo(SOCK_STREAM, tcp_);
    sendAll(good, "<13>Nov 24 10:00:00 raw x: after\n<13>Nov 24 10:00:00 raw x: no newline");
    close(good);
    EXPECT_TRUE(holds("raw-x", "raw x: no newline\n"));
    EXPECT_TRUE(holds("raw-app", "[truncated: 51837 bytes cut]\n"));
    EXPECT_TRUE(holds("raw-app", "raw app: \\x1B[31mred\xEF\xBF\xBD\n"));
    EXPECT_NE(readFile(logs() / "127.0.0.1-syslog").find(" \\x00a\n"), std::string::npos);
    EXPECT_EQ(readFile(logs() / "raw-x").find("two"), std::string::npos);
    const std::string log = stop();
    EXPECT_NE(log.find("Syslog: closed the connection from 127.0.0.1: bad frame length"),
              std::string::npos);
}

TEST_F(SyslogDaemonTest, HostileSendersWriteNothingOutsideTheLogsFolder) {
    fs::create_symlink(root("target.txt"), logs() / "planted-app");
    start();
    const int udp = connectTo(SOCK_DGRAM, udp_);
    for (const std::string& host :
         {std::string("../../escape"), std::string("/abs"), std::string("ctl\x07name"),
          std::string(300, 'n'), std::string("planted")})
        sendAll(udp, "<13>Nov 24 10:00:00 " + host + " app: hostile");
    sendAll(udp, "<13>Nov 24 10:00:00 fine app: still served");
    close(udp);
    EXPECT_TRUE(holds("fine-app", "still served"));
    EXPECT_TRUE(holds("127.0.0.1-app", "ctl\\x07name app: hostile"));
    const std::string log = stop();
    EXPECT_FALSE(fs::exists(root("target.txt")));
    std::set<std::string> outside;
    for (const auto& entry : fs::recursive_directory_iterator(root_.path())) {
        const std::string path = entry.path().string();
        if (path.rfind(logs().string(), 0) != 0 && path.rfind(root("cfg").string(), 0) != 0)
            outside.insert(entry.path().filename().string());
    }
    EXPECT_EQ(outside, (std::set<std::string>{"tmp", "daemon.txt"}));
    EXPECT_NE(log.find("Syslog: refused host name \"../../escape\" from 127.0.0.1: holds \"/\" or "
                       "\"\\\"; filed under the address"),
              std::string::npos);
    EXPECT_NE(log.find("Syslog: refused log file \"planted-app\": it exists and is not a plain "
                       "file; its lines are dropped"),
              std::string::npos);
    EXPECT_NE(log.find("1 refused files"), std::string::npos);
}

TEST_F(SyslogDaemonTest, TlsListenerTakesOctetCountedMessages) {
    const std::string cert = root("cert.pem").string();
    const std::string key = root("key.pem").string();
    ASSERT_EQ(runProgram({onPath("openssl"), "req", "-x509", "-newkey", "rsa:2048", "-nodes",
                          "-days", "1", "-subj", "/CN=localhost", "-keyout", key, "-out", cert},
                         scratch_)
                  .exitCode(),
              0);
    const int tls = NatsServer::freePort();
    start(", \"TlsPort\": " + std::to_string(tls) + ", \"CertFile\": \"" + cert +
              "\", \"KeyFile\": \"" + key + "\"",
          3);
    const std::string first = "<13>1 2026-11-24T10:00:00Z secure app - - - over tls";
    const std::string second = "<13>1 2026-11-24T10:00:01Z secure app - - - second";
    writeFile(root("tls-input.txt"), std::to_string(first.size()) + " " + first +
                                         std::to_string(second.size()) + " " + second);
    // s_client sends its input, then waits a little for the peer before it ends.
    const ChildResult client = runChild({onPath("sh"), "-c",
                                         "(cat " + root("tls-input.txt").string() +
                                             "; sleep 1) | openssl s_client -quiet -no_ign_eof "
                                             "-connect 127.0.0.1:" +
                                             std::to_string(tls)},
                                        {}, root("tmp/client.txt"), true, std::chrono::seconds(20));
    EXPECT_TRUE(client.finished);
    EXPECT_TRUE(holds("secure-app", "secure app - - - over tls\n"));
    EXPECT_TRUE(holds("secure-app", "secure app - - - second\n"));
    // A client that speaks plain text to the TLS port is turned away and logged.
    const int plain = connectTo(SOCK_STREAM, tls);
    sendAll(plain, "<13>Nov 24 10:00:00 plain app: not tls\n");
    char byte = 0;
    EXPECT_LE(recv(plain, &byte, 1, 0), 0);
    close(plain);
    EXPECT_NE(stop().find("Syslog: TLS handshake with 127.0.0.1 failed"), std::string::npos);
}

TEST_F(SyslogDaemonTest, BoundsOnConnectionsAndRateKeepOtherSendersServed) {
    start(", \"MaxConnections\": 2, \"MaxLinesPerSecond\": 20");
    const int first = connectTo(SOCK_STREAM, tcp_);
    const int second = connectTo(SOCK_STREAM, tcp_, "127.0.0.5");
    const int third = connectTo(SOCK_STREAM, tcp_, "127.0.0.6");
    char byte = 0;
    EXPECT_EQ(recv(third, &byte, 1, 0), 0);  // refused: closed at once
    for (int fd : {first, second, third}) close(fd);
    // A flood from 127.0.0.2 runs into its rate bound; a quiet sender on 127.0.0.3 is
    // served all the same.
    const int flood = connectTo(SOCK_DGRAM, udp_, "127.0.0.2");
    for (int i = 0; i < 500; ++i)
        sendAll(flood, "<13>Nov 24 10:00:00 flood app: " + std::to_string(i));
    const int quiet = connectTo(SOCK_DGRAM, udp_, "127.0.0.3");
    sendAll(quiet, "<13>Nov 24 10:00:00 quiet app: served");
    close(flood);
    close(quiet);
    EXPECT_TRUE(holds("quiet-app", "quiet app: served\n"));
    // Over TCP the sender is held back instead: every line arrives, later.
    const int stream = connectTo(SOCK_STREAM, tcp_, "127.0.0.4");
    std::string burst;
    for (int i = 0; i < 60; ++i)
        burst += "<13>Nov 24 10:00:00 steady app: " + std::to_string(i) + "\n";
    sendAll(stream, burst);
    close(stream);
    EXPECT_TRUE(holds("steady-app", "steady app: 59\n"));
    EXPECT_EQ(linesOf(readFile(logs() / "steady-app")).size(), 2u + 60u);
    std::map<std::string, long long> counted;
    EXPECT_TRUE(waitUntil([&] {
        counted = stats();
        return counted["syslog.connections"] == 0;
    })) << counted["syslog.connections"];
    EXPECT_EQ(counted["syslog.closed.cap"], 1);
    EXPECT_GT(counted["syslog.dropped.rate"], 0);
    EXPECT_GE(counted["syslog.heldBack"], 1);
    EXPECT_EQ(counted["syslog.senders"], 3);  // flood, quiet, steady
    EXPECT_EQ(counted["syslog.closed.idle"], 0);
    const std::string log = stop();
    EXPECT_NE(log.find("Syslog: too many connections: at most 2; refused one from 127.0.0.6"),
              std::string::npos);
    EXPECT_NE(log.find("Syslog: 127.0.0.2 sends more than 20 lines a second; datagrams dropped"),
              std::string::npos);
    EXPECT_EQ(log.find(" 0 connections held back"), std::string::npos);
    EXPECT_NE(log.find("1 refused connections"), std::string::npos);
    EXPECT_NE(log.find("Syslog: 127.0.0.4 sends more than 20 lines a second; reading from it "
                       "slowed down"),
              std::string::npos);
    const std::size_t written = linesOf(readFile(logs() / "flood-app")).size() - 2;
    EXPECT_GE(written, 40u);  // the burst allowance at least
    EXPECT_LT(written, 500u);
}

// What a sender's disk queue delivers after the collector was down: the lines written
// during the outage (ten minutes of them here, one every five seconds) arrive together
// on the new connection. They keep their own stamps, and no header claims the sender's
// clock is off, before or after the live lines that follow.
TEST_F(SyslogDaemonTest, AQueueDeliveredAfterARestartKeepsItsTimes) {
    const auto now = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   std::chrono::system_clock::now().time_since_epoch())
            .count();
    };
    // "<13>1 2026-11-24T10:00:00.123Z relay app - - - <text>", stamped `ms`.
    const auto line = [](long long ms, const std::string& text) {
        const time_t seconds = static_cast<time_t>(ms / 1000);
        tm t{};
        gmtime_r(&seconds, &t);
        char stamp[48];
        std::snprintf(stamp, sizeof(stamp), "%04d-%02d-%02dT%02d:%02d:%02d.%03lldZ",
                      t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec,
                      ms % 1000);
        return std::string("<13>1 ") + stamp + " relay app - - - " + text + "\n";
    };
    start();
    int fd = connectTo(SOCK_STREAM, tcp_);
    for (int i = 0; i < 3; ++i) sendAll(fd, line(now(), "live " + std::to_string(i)));
    close(fd);
    ASSERT_TRUE(holds("relay-app", "live 2\n"));
    stop();
    fs::remove(root("daemon.txt"));  // start() counts the listeners announced in it
    start();
    const long long back = now();
    std::string queue;
    std::vector<std::string> queued;
    for (int i = 0; i < 120; ++i) {
        queued.push_back(line(back - 600 * 1000 + i * 5000, "queued " + std::to_string(i)));
        queue += queued.back();
    }
    fd = connectTo(SOCK_STREAM, tcp_);
    sendAll(fd, queue);
    sendAll(fd, line(now(), "live again"));
    close(fd);
    ASSERT_TRUE(holds("relay-app", "live again\n"));
    stop();
    const std::string text = readFile(logs() / "relay-app");
    for (const std::string& sent : queued)
        EXPECT_NE(text.find(sent.substr(6)), std::string::npos) << sent;  // without "<13>1 "
    const std::regex header(R"(\n===== relay - syslog 127\.0\.0\.1 clock ([^=]*) ===)");
    int headers = 0;
    for (std::sregex_iterator it(text.begin(), text.end(), header), end; it != end; ++it) {
        ++headers;
        const std::string clock = (*it)[1];
        EXPECT_TRUE(clock == "unknown" || std::regex_match(clock, std::regex("[+-][0-2] s")))
            << clock;
    }
    // One on each start, and one when the live line after the queue tells the clock.
    EXPECT_EQ(headers, 3) << text;
}

// The listeners in this process, with connection timeouts of a second or less.
class SyslogServerTest : public ConfigHomeTest {
protected:
    using Clock = std::chrono::steady_clock;

    void SetUp() override {
        ConfigHomeTest::SetUp();
        fs::create_directory(fs::path(dir_.path()) / "logs");
        setSuiteSetting("LogsDir", (fs::path(dir_.path()) / "logs").string());
        settings_.maxLinesPerSecond = 0;
    }
    void start() {
        DeviceLogWriter::Options options;
        options.logsDir = (fs::path(dir_.path()) / "logs").string();
        server_ = std::make_unique<SyslogServer>(settings_, counters_,
                                                 std::make_shared<DeviceLogWriter>(options));
        ASSERT_TRUE(server_->start());
    }
    void TearDown() override {
        server_.reset();
        ConfigHomeTest::TearDown();
    }
    // Waits until the server holds `count` connections.
    bool holding(std::uint64_t count) {
        return waitUntil([&] { return counters_.connections.load() == count; });
    }
    static long long msSince(Clock::time_point start) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
    }
    // Whether the server closed `fd` (end of stream or reset) within its receive timeout.
    static bool closedByServer(int fd) {
        char byte = 0;
        const ssize_t length = recv(fd, &byte, 1, 0);
        return length == 0 || (length < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
    }
    // Whether `fd` is open with nothing to read.
    static bool stillOpen(int fd) {
        char byte = 0;
        return recv(fd, &byte, 1, MSG_DONTWAIT) == -1 && errno == EAGAIN;
    }

    SyslogSettings settings_;
    SyslogCounters counters_;
    std::unique_ptr<SyslogServer> server_;
};

TEST_F(SyslogServerTest, IdleConnectionsGiveWayToNewSendersOnlyAtTheCap) {
    settings_.tcpPort = NatsServer::freePort();
    settings_.maxConnections = 3;
    settings_.idleTimeoutMs = 1500;
    start();
    // Each from an address of its own: one address may not take every slot.
    const int silent[2] = {connectTo(SOCK_STREAM, settings_.tcpPort, "127.0.0.2"),
                           connectTo(SOCK_STREAM, settings_.tcpPort, "127.0.0.3")};
    const int talker = connectTo(SOCK_STREAM, settings_.tcpPort, "127.0.0.4");
    ASSERT_TRUE(holding(3));
    const Clock::time_point full = Clock::now();
    // A sender retries every 100 ms, as a syslog daemon does: refused at first, it gets
    // the slot of a silent connection once that has been idle for the timeout.
    bool talked = false;
    int sender = -1;
    long long through = -1;
    for (int attempt = 0; attempt < 40 && through < 0; ++attempt) {
        if (!talked && msSince(full) >= 1200) {
            sendAll(talker, "<13>Nov 24 10:00:00 talker app: still here\n");
            talked = true;
        }
        const std::uint64_t refused = counters_.connectionsRefused.load();
        const int fd = connectTo(SOCK_STREAM, settings_.tcpPort);
        ASSERT_NE(fd, -1);
        ASSERT_TRUE(waitUntil([&] {
            return counters_.connectionsRefused.load() > refused || counters_.idleClosed.load() > 0;
        }));
        if (counters_.idleClosed.load() > 0) {
            through = msSince(full);
            sender = fd;
        } else {
            close(fd);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    }
    ASSERT_TRUE(talked);
    ASSERT_GE(through, 1400);
    EXPECT_LE(through, 1500 + 1000);
    EXPECT_GE(counters_.connectionsRefused.load(), 1u);
    EXPECT_EQ(counters_.idleClosed.load(), 1u);
    sendAll(sender, "<13>Nov 24 10:00:00 sender app: through\n");
    // A second newcomer takes the other silent slot; the talker and the sender keep theirs.
    const int second = connectTo(SOCK_STREAM, settings_.tcpPort);
    sendAll(second, "<13>Nov 24 10:00:00 second app: through\n");
    EXPECT_TRUE(waitUntil([&] { return counters_.lines.load() == 3; }));
    EXPECT_TRUE(closedByServer(silent[0]));
    EXPECT_TRUE(closedByServer(silent[1]));
    const std::uint64_t refused = counters_.connectionsRefused.load();
    const int third = connectTo(SOCK_STREAM, settings_.tcpPort);
    EXPECT_TRUE(closedByServer(third));
    EXPECT_EQ(counters_.connectionsRefused.load(), refused + 1);
    EXPECT_EQ(counters_.idleClosed.load(), 2u);
    EXPECT_TRUE(stillOpen(talker));
    sendAll(talker, "<13>Nov 24 10:00:00 talker app: again\n");
    EXPECT_TRUE(waitUntil([&] { return counters_.lines.load() == 4; }));
    for (int fd : {silent[0], silent[1], talker, sender, second, third}) close(fd);
}

// One address holding its share of idle connections neither keeps another address out
// nor gets one more; a share set at or above the total still leaves a slot free.
TEST_F(SyslogServerTest, OneAddressCannotTakeEverySlot) {
    const struct {
        int total;
        int perAddress;
        int held;  // what one address may hold
    } cases[] = {{6, 4, 4}, {3, 100, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.perAddress);
        settings_.tcpPort = NatsServer::freePort();
        settings_.maxConnections = c.total;
        settings_.maxConnectionsPerAddress = c.perAddress;
        counters_.connectionsRefused = 0;
        counters_.lines = 0;
        start();
        std::vector<int> idle;
        for (int i = 0; i < c.held; ++i) idle.push_back(connectTo(SOCK_STREAM, settings_.tcpPort));
        ASSERT_TRUE(holding(static_cast<std::uint64_t>(c.held)));
        const int extra = connectTo(SOCK_STREAM, settings_.tcpPort, "127.0.0.1");
        ASSERT_NE(extra, -1);
        EXPECT_TRUE(closedByServer(extra));
        EXPECT_EQ(counters_.connectionsRefused.load(), 1u);
        const int other = connectTo(SOCK_STREAM, settings_.tcpPort, "127.0.0.2");
        ASSERT_NE(other, -1);
        sendAll(other, "<13>Nov 24 10:00:00 other app: served\n");
        EXPECT_TRUE(waitUntil([&] { return counters_.lines.load() == 1; }));
        EXPECT_TRUE(stillOpen(other));
        for (const int fd : idle) EXPECT_TRUE(stillOpen(fd));
        // A slot given back is the address's again.
        close(idle.back());
        idle.pop_back();
        ASSERT_TRUE(holding(static_cast<std::uint64_t>(c.held)));
        const int again = connectTo(SOCK_STREAM, settings_.tcpPort);
        ASSERT_TRUE(holding(static_cast<std::uint64_t>(c.held + 1)));
        EXPECT_TRUE(stillOpen(again));
        EXPECT_EQ(counters_.connectionsRefused.load(), 1u);
        server_.reset();
        for (const int fd : idle) close(fd);
        for (const int fd : {extra, other, again}) close(fd);
    }
}

TEST_F(SyslogServerTest, TlsConnectionsMustFinishTheirHandshakeInTime) {
    TempDir scratch;
    const std::string cert = (fs::path(dir_.path()) / "cert.pem").string();
    const std::string key = (fs::path(dir_.path()) / "key.pem").string();
    ASSERT_EQ(runProgram({onPath("openssl"), "req", "-x509", "-newkey", "ec", "-pkeyopt",
                          "ec_paramgen_curve:prime256v1", "-nodes", "-days", "1", "-subj",
                          "/CN=localhost", "-keyout", key, "-out", cert},
                         scratch)
                  .exitCode(),
              0);
    settings_.tlsPort = NatsServer::freePort();
    settings_.certFile = cert;
    settings_.keyFile = key;
    settings_.maxConnections = 2;
    settings_.handshakeTimeoutMs = 400;
    start();
    // One client says nothing, the other stops inside its hello; together they fill the cap.
    const int silent = connectTo(SOCK_STREAM, settings_.tlsPort, "127.0.0.2");
    const int halfway = connectTo(SOCK_STREAM, settings_.tlsPort, "127.0.0.3");
    sendAll(halfway, std::string("\x16\x03\x01\x00", 4));
    ASSERT_TRUE(holding(2));
    const Clock::time_point full = Clock::now();
    EXPECT_TRUE(closedByServer(silent));
    EXPECT_TRUE(closedByServer(halfway));
    const long long closed = msSince(full);
    EXPECT_LE(closed, 400 + 1000);
    EXPECT_EQ(counters_.handshakeTimeouts.load(), 2u);
    EXPECT_TRUE(holding(0));
    close(silent);
    close(halfway);
    // A client that finishes its handshake stays beyond the timeout (s_client holds the
    // connection a second after its input).
    const std::string message = "<13>1 2026-11-24T10:00:00Z secure app - - - in time";
    writeFile(fs::path(dir_.path()) / "input.txt", std::to_string(message.size()) + " " + message);
    const ChildResult client =
        runChild({onPath("sh"), "-c",
                  "(cat " + (fs::path(dir_.path()) / "input.txt").string() +
                      "; sleep 1) | openssl s_client -quiet -no_ign_eof -connect 127.0.0.1:" +
                      std::to_string(settings_.tlsPort)},
                 {}, fs::path(dir_.path()) / "client.txt", true, std::chrono::seconds(20));
    EXPECT_TRUE(client.finished);
    EXPECT_TRUE(waitUntil([&] { return counters_.lines.load() == 1; }));
    EXPECT_EQ(counters_.handshakeTimeouts.load(), 2u);
}

// Each counter has its own name, and the bus protocol's GetStats table lists it.
TEST(SyslogCountersTest, EveryNamedCounterIsDistinctAndDocumented) {
    const std::string doc = readFile(fs::path(NIMB_SOURCE_DIR) / "docs/bus-protocol.md");
    std::set<std::string> names;
    std::vector<SyslogCounters::Counter> counters;
    for (const auto& [name, counter] : SyslogCounters::kNamed) {
        EXPECT_TRUE(names.insert(name).second) << name;
        EXPECT_EQ(std::count(counters.begin(), counters.end(), counter), 0) << name;
        counters.push_back(counter);
        EXPECT_NE(doc.find(std::string("| `") + name + "` |"), std::string::npos) << name;
    }
}

}  // namespace
