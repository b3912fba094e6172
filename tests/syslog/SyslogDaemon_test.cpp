// SPDX-License-Identifier: MIT
// The syslog listeners end to end: the real collector on a real nats-server, with
// util-linux `logger`, raw sockets and `openssl s_client` as the senders.

#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "NatsServer.h"
#include "NimbTestSupport.h"
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

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
    EXPECT_NE(stop().find("Syslog: stopped; 6 lines written"), std::string::npos);
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
    const int second = connectTo(SOCK_STREAM, tcp_);
    const int third = connectTo(SOCK_STREAM, tcp_);
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
    const std::string log = stop();
    EXPECT_NE(log.find("Syslog: too many connections: at most 2; refused one from 127.0.0.1"),
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

}  // namespace
