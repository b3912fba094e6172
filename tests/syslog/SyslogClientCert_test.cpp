// SPDX-License-Identifier: MIT
// Syslog over TLS with client certificates, end to end: nimb-bus-setup issues and
// revokes the certificates, the listeners run in this process with the settings that
// ask for them, and real TLS clients send: `openssl s_client` with and without a
// certificate, with one from another CA and with a revoked one, and rsyslog's own TLS
// forwarding (omfwd with the OpenSSL stream driver) where Debian's rsyslog-openssl is
// installed. The files and the index must name the certificate's holder, never the
// host name a message claims.

#include <cstdlib>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"
#include "NatsServer.h"
#include "NimbTestSupport.h"
#include "SyslogServer.h"

namespace {

using namespace nimbtest;

// The folder of the rsyslog module that forwards over TLS with OpenSSL; "" when missing.
std::string rsyslogOpenSslModule() {
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/usr/lib", error)) {
        if (fs::exists(entry.path() / "rsyslog/lmnsd_ossl.so"))
            return (entry.path() / "rsyslog").string();
    }
    return {};
}

// A TCP connection to 127.0.0.1:`port`; -1 when refused.
int connectLoopback(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&peer), sizeof(peer)) == 0) return fd;
    close(fd);
    return -1;
}

bool sendLine(int fd, const std::string& line) {
    return ::send(fd, line.data(), line.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(line.size());
}

class SyslogClientCertTest : public ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        fs::create_directory(logs());
        setSuiteSetting("LogsDir", logs().string());
        ownLog_ = boost::make_shared<CBBLog>("own.log", false, 1 << 20);
        ownLog_->setLogLevel(INFO);
        CBBLog::setLogger(ownLog_);
        ASSERT_EQ(setup({"init"}), 0);
        ASSERT_EQ(setup({"--syslog", "add-device", "kitchen"}), 0);
        ASSERT_EQ(setup({"add-device", "garage", "--syslog"}), 0);
        // A certificate for the same name from a CA of its own.
        ASSERT_EQ(openssl({"req", "-x509", "-newkey", "ec", "-pkeyopt",
                           "ec_paramgen_curve:prime256v1", "-nodes", "-days", "1", "-subj",
                           "/CN=Other CA", "-addext", "basicConstraints=critical,CA:TRUE",
                           "-keyout", path("other-ca.key"), "-out", path("other-ca.pem")}),
                  0);
        ASSERT_EQ(openssl({"req", "-new", "-newkey", "ec", "-pkeyopt",
                           "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=kitchen",
                           "-keyout", path("forged.key"), "-out", path("forged.csr")}),
                  0);
        ASSERT_EQ(openssl({"x509", "-req", "-in", path("forged.csr"), "-CA", path("other-ca.pem"),
                           "-CAkey", path("other-ca.key"), "-CAcreateserial", "-days", "1", "-out",
                           path("forged.pem")}),
                  0);
        settings_.tlsPort = NatsServer::freePort();
        settings_.tcpPort = NatsServer::freePort();
        settings_.certFile = bus("server.pem");
        settings_.keyFile = bus("server.key");
        settings_.clientCaFile = bus("ca.pem");
        settings_.clientsFile = bus("syslog-clients");
        settings_.maxLinesPerSecond = 0;
    }
    void TearDown() override {
        stop();
        ownLog_.reset();
        ConfigHomeTest::TearDown();
    }

    fs::path logs() const { return fs::path(dir_.path()) / "logs"; }
    std::string path(const std::string& name) const { return dir_ / name; }
    std::string bus(const std::string& name) const { return dir_ / ("bus/" + name); }
    std::string device(const std::string& name) const { return bus("devices/" + name); }

    // nimb-bus-setup on the test's folder; its exit code. It finds nimb-defaults on PATH.
    int setup(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), {NIMB_BUS_SETUP, "--dir", dir_ / "bus"});
        const std::string tools = fs::path(NIMB_DEFAULTS).parent_path().string();
        const char* inherited = getenv("PATH");
        return runChild(arguments,
                        {{"PATH", tools + ":" + (inherited != nullptr ? inherited : "/usr/bin")}},
                        path("setup.txt"))
            .exitCode();
    }
    int openssl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "/usr/bin/openssl");
        return runProgram(arguments, scratch_).exitCode();
    }

    void start() {
        std::string error;
        index_ = DeviceLogIndex::openForWriting(logs().string(), error);
        ASSERT_TRUE(index_) << error;
        DeviceLogWriter::Options options;
        options.logsDir = logs().string();
        options.index = index_;
        server_ = std::make_unique<SyslogServer>(settings_, counters_,
                                                 std::make_shared<DeviceLogWriter>(options));
        ASSERT_TRUE(server_->start());
    }
    // Stops the listeners, writes every file and commits the index.
    void stop() {
        server_.reset();
        index_.reset();
    }
    // What the listeners logged (ends the logger).
    std::string ownLog() {
        ownLog_.reset();
        return readFile(logs() / "own.log");
    }

    // Sends `message` (octet-counted) with `openssl s_client`, showing the certificate
    // `cert` and its key `key` unless they are empty; waits until the client has ended
    // and the listener has let its connection go. Returns the client's output.
    std::string send(const std::string& message, const std::string& cert = "",
                     const std::string& key = "") {
        writeFile(path("input.txt"), std::to_string(message.size()) + " " + message);
        std::string command = "(cat " + path("input.txt") +
                              "; sleep 1) | openssl s_client -quiet -no_ign_eof -connect "
                              "127.0.0.1:" +
                              std::to_string(settings_.tlsPort) + " -CAfile " + bus("ca.pem");
        if (!cert.empty()) command += " -cert " + cert + " -key " + key;
        const ChildResult client = runChild({"/bin/sh", "-c", command}, {}, path("client.txt"),
                                            true, std::chrono::seconds(20));
        EXPECT_TRUE(client.finished);
        EXPECT_TRUE(waitUntil([&] { return counters_.connections.load() == 0; }));
        return client.output;
    }
    bool linesWritten(std::uint64_t count) {
        return waitUntil([&] { return counters_.lines.load() == count; });
    }
    // The headers the index holds for `file`.
    std::vector<DeviceLogIndex::Piece> headersOf(const std::string& file) {
        std::string error;
        const auto index = DeviceLogIndex::openForReading(logs().string(), error);
        EXPECT_TRUE(index) << error;
        if (!index) return {};
        DeviceLogIndex::Query query;
        query.file = file;
        query.headersOnly = true;
        return index->query(query);
    }

    TempDir scratch_;
    boost::shared_ptr<CBBLog> ownLog_;
    SyslogSettings settings_;
    SyslogCounters counters_;
    std::shared_ptr<DeviceLogIndex> index_;
    std::unique_ptr<SyslogServer> server_;
};

TEST_F(SyslogClientCertTest, RequiredCertificatesDecideWhoSendsAndTheNameItIsFiledUnder) {
    settings_.requireClientCert = true;
    start();
    const std::string kitchen = device("kitchen-syslog.pem");
    const std::string kitchenKey = device("kitchen-syslog.key");
    // Refused: no certificate (one from another CA: see the next test).
    send("<13>1 2026-11-24T10:00:00Z kitchen door - - - no certificate");
    // Taken, under the certificate's name whatever host name the message claims.
    send("<13>1 2026-11-24T10:00:01Z liar door - - - opened", kitchen, kitchenKey);
    ASSERT_TRUE(linesWritten(1));
    // A sender without certificate on the TCP port may not take a certificate holder's name.
    const int plain = connectLoopback(settings_.tcpPort);
    ASSERT_NE(plain, -1);
    EXPECT_TRUE(sendLine(plain, "<13>1 2026-11-24T10:00:02Z kitchen door - - - claimed\n"));
    close(plain);
    ASSERT_TRUE(linesWritten(2));
    // Revoked: garage's certificate works until revoke-device, then no more.
    const std::string garage = device("garage-syslog.pem");
    const std::string garageKey = device("garage-syslog.key");
    const fs::path kept = path("garage-kept.pem"), keptKey = path("garage-kept.key");
    fs::copy_file(garage, kept);
    fs::copy_file(garageKey, keptKey);
    send("<13>1 2026-11-24T10:00:03Z garage lift - - - before", garage, garageKey);
    ASSERT_TRUE(linesWritten(3));
    ASSERT_EQ(setup({"revoke-device", "garage"}), 0);
    EXPECT_FALSE(fs::exists(garage));
    EXPECT_FALSE(fs::exists(garageKey));
    send("<13>1 2026-11-24T10:00:04Z garage lift - - - after", kept, keptKey);
    send("<13>1 2026-11-24T10:00:05Z liar door - - - closed", kitchen, kitchenKey);
    ASSERT_TRUE(linesWritten(4));
    // Issued again under the same name: the new certificate works, the old one stays out.
    ASSERT_EQ(setup({"add-device", "garage", "--syslog"}), 0);
    send("<13>1 2026-11-24T10:00:06Z garage lift - - - old again", kept, keptKey);
    send("<13>1 2026-11-24T10:00:07Z garage lift - - - new", garage, garageKey);
    ASSERT_TRUE(linesWritten(5));
    EXPECT_EQ(counters_.refusedCertificates.load(), 2u);  // the old one, twice
    stop();

    const std::string door = readFile(logs() / "kitchen-door");
    EXPECT_EQ(door.rfind("\n===== kitchen - syslog 127.0.0.1 certified clock ", 0), 0u) << door;
    EXPECT_NE(door.find("liar door - - - opened\n"), std::string::npos);
    EXPECT_NE(door.find("liar door - - - closed\n"), std::string::npos);
    EXPECT_EQ(door.find("no certificate"), std::string::npos);
    EXPECT_EQ(door.find("claimed"), std::string::npos);
    EXPECT_FALSE(fs::exists(logs() / "liar-door"));
    EXPECT_NE(readFile(logs() / "127.0.0.1-door").find("kitchen door - - - claimed\n"),
              std::string::npos);
    const std::string lift = readFile(logs() / "garage-lift");
    EXPECT_NE(lift.find("before"), std::string::npos);
    EXPECT_EQ(lift.find("after"), std::string::npos);
    EXPECT_EQ(lift.find("old again"), std::string::npos);
    EXPECT_NE(lift.find("garage lift - - - new\n"), std::string::npos);
    const auto headers = headersOf("kitchen-door");
    ASSERT_FALSE(headers.empty());
    for (const auto& header : headers) {
        EXPECT_EQ(header.source.deviceId, "kitchen");
        EXPECT_EQ(header.source.displayName, "kitchen");
        EXPECT_EQ(header.source.account, "tls:kitchen");
        EXPECT_EQ(header.source.peer, "127.0.0.1");
    }
    for (const auto& header : headersOf("127.0.0.1-door")) EXPECT_EQ(header.source.account, "");
    const std::string log = ownLog();
    for (const char* reason :
         {"Syslog: TLS handshake with 127.0.0.1 failed: error:0A0000C7:SSL routines::peer did "
          "not return a certificate",
          "Syslog: refused the client certificate of 127.0.0.1: \"garage\" is not on the list "
          "of allowed clients",
          "refused host name \"kitchen\" from 127.0.0.1: it is the name of a sender with a "
          "client certificate; filed under the address"})
        EXPECT_NE(log.find(reason), std::string::npos) << reason << "\n" << log;
}

TEST_F(SyslogClientCertTest, OptionalCertificatesNameTheirHoldersAndLeaveTheOthersBe) {
    start();
    send("<13>1 2026-11-24T10:00:00Z laptop app - - - without", "", "");
    send("<13>1 2026-11-24T10:00:01Z laptop app - - - with", device("kitchen-syslog.pem"),
         device("kitchen-syslog.key"));
    send("<13>1 2026-11-24T10:00:02Z laptop app - - - forged", path("forged.pem"),
         path("forged.key"));
    ASSERT_TRUE(linesWritten(2));
    stop();
    EXPECT_NE(readFile(logs() / "laptop-app").find("laptop app - - - without\n"),
              std::string::npos);
    EXPECT_NE(readFile(logs() / "kitchen-app").find("laptop app - - - with\n"), std::string::npos);
    for (const char* file : {"laptop-app", "kitchen-app"})
        EXPECT_EQ(readFile(logs() / file).find("forged"), std::string::npos);
    EXPECT_EQ(counters_.refusedCertificates.load(), 1u);
    EXPECT_NE(ownLog().find("Syslog: refused the client certificate of 127.0.0.1: unable to get "
                            "local issuer certificate"),
              std::string::npos);
}

TEST_F(SyslogClientCertTest, ClientSettingsWithoutTheirCaDoNotStart) {
    settings_.clientCaFile.clear();
    settings_.requireClientCert = true;
    DeviceLogWriter::Options options;
    options.logsDir = logs().string();
    const auto writer = std::make_shared<DeviceLogWriter>(options);
    EXPECT_FALSE(SyslogServer(settings_, counters_, writer).start());
    settings_.clientCaFile = path("missing-ca.pem");
    EXPECT_FALSE(SyslogServer(settings_, counters_, writer).start());
}

TEST_F(SyslogClientCertTest, RsyslogForwardsOverTlsWithItsCertificate) {
    const std::string modules = rsyslogOpenSslModule();
    if (access("/usr/sbin/rsyslogd", X_OK) != 0 || modules.empty())
        GTEST_SKIP() << "rsyslogd with its OpenSSL stream driver (rsyslog-openssl) not installed";
    settings_.requireClientCert = true;
    start();
    const int input = NatsServer::freePort();
    fs::create_directory(path("rsyslog"));
    writeFile(path("rsyslog.conf"),
              "global(workDirectory=\"" + path("rsyslog") +
                  "\"\n"
                  "       DefaultNetstreamDriverCAFile=\"" +
                  bus("ca.pem") + "\"\n       DefaultNetstreamDriverCertFile=\"" +
                  device("kitchen-syslog.pem") + "\"\n       DefaultNetstreamDriverKeyFile=\"" +
                  device("kitchen-syslog.key") +
                  "\")\n"
                  "module(load=\"imtcp\")\n"
                  "input(type=\"imtcp\" address=\"127.0.0.1\" port=\"" +
                  std::to_string(input) +
                  "\")\n"
                  "*.* action(type=\"omfwd\" target=\"127.0.0.1\" port=\"" +
                  std::to_string(settings_.tlsPort) +
                  "\" protocol=\"tcp\"\n"
                  "           StreamDriver=\"ossl\" StreamDriverMode=\"1\"\n"
                  "           StreamDriverAuthMode=\"x509/name\" "
                  "StreamDriverPermittedPeers=\"localhost\"\n"
                  "           TCP_Framing=\"octet-counted\" "
                  "template=\"RSYSLOG_SyslogProtocol23Format\")\n");
    const pid_t rsyslog = spawnChild({"/usr/sbin/rsyslogd", "-n", "-f", path("rsyslog.conf"), "-i",
                                      path("rsyslog/pid"), "-M", modules},
                                     {}, path("rsyslogd.txt"));
    // rsyslog takes a plain TCP line on its own port and forwards it to the listener.
    bool sent = false;
    for (int attempt = 0; attempt < 100 && !sent; ++attempt) {
        const int fd = connectLoopback(input);
        if (fd != -1) {
            sent = sendLine(fd, "<13>Nov 24 10:00:00 liar pump: forwarded over tls\n");
            close(fd);
        } else {
            usleep(50 * 1000);
        }
    }
    const bool written = sent && linesWritten(1);
    kill(rsyslog, SIGTERM);
    waitChild(rsyslog, path("rsyslogd.txt"), std::chrono::seconds(10));
    ASSERT_TRUE(written) << readFile(path("rsyslogd.txt"));
    stop();
    EXPECT_NE(readFile(logs() / "kitchen-pump").find("forwarded over tls\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(logs() / "liar-pump"));
    const auto headers = headersOf("kitchen-pump");
    ASSERT_FALSE(headers.empty());
    EXPECT_EQ(headers.front().source.account, "tls:kitchen");
}

}  // namespace
