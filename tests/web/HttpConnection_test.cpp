// SPDX-License-Identifier: MIT
// nimb-web's HTTP layer against hostile and careless clients: a real nimb-web child,
// raw POSIX sockets and curl on loopback. Pipelined requests come back in order,
// "Connection: close" closes, heads and bodies that do not arrive in time are cut off,
// oversized bodies are refused from the head, and one address cannot take all
// connections. 127.0.0.2 stands for a second host (all of 127/8 is loopback).
#include <filesystem>

#include <unistd.h>

#include "WebTestSupport.h"

namespace {

using namespace webtest;
using namespace std::chrono_literals;
using nimbtest::writeFile;

const char* const kLog = "puck-7001122334455-system.log";

// A test's socket, closed at the end of its scope.
struct Fd {
    explicit Fd(int value) : fd(value) {}
    Fd(Fd&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
    operator int() const { return fd; }
    int fd = -1;
};

// A request head for GET `target`, `extra` header lines included.
std::string getHead(const std::string& target, const std::string& extra = "") {
    return "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extra + "\r\n";
}

class HttpConnectionTest : public WebFixture {
protected:
    // Sends `bytes` on a new connection and reads until the server closes it (10 s at most).
    std::string exchange(const std::string& bytes, bool* closed = nullptr) {
        Fd fd(connectTo(port_));
        EXPECT_TRUE(sendAll(fd, bytes));
        return readUntilClosed(fd, 10s, closed);
    }
};

TEST_F(HttpConnectionTest, PipelinedRequestsAreAnsweredInOrderAndConnectionCloseEnds) {
    writeFile(logs() / kLog, "first line\n");
    startWeb();

    // Worker-thread answers (log, crashes) and main-thread ones (404, the style sheet)
    // mixed on one connection: each in the order asked.
    bool closed = false;
    const std::string answers =
        exchange(getHead(std::string("/api/log?file=") + kLog) + getHead("/nothing") +
                     getHead("/api/crashes") + getHead("/app.css", "Connection: close\r\n"),
                 &closed);
    EXPECT_TRUE(closed) << "Connection: close ends the connection after its answer";
    EXPECT_EQ(statuses(answers), (std::vector<int>{200, 404, 200, 200})) << answers;
    const std::size_t log = answers.find("first line");
    const std::size_t missing = answers.find("not found");
    const std::size_t crashes = answers.find("\"crashes\"");
    const std::size_t style = answers.find(":root");
    EXPECT_LT(log, missing);
    EXPECT_LT(missing, crashes);
    EXPECT_LT(crashes, style);
    EXPECT_NE(style, std::string::npos);

    // Without "Connection: close" the connection stays for the next request.
    Fd fd(connectTo(port_));
    ASSERT_TRUE(sendAll(fd, getHead("/nothing")));
    const std::string first = readUntilClosed(fd, 500ms, &closed);
    EXPECT_FALSE(closed);
    EXPECT_EQ(statuses(first), std::vector<int>{404});
    ASSERT_TRUE(sendAll(fd, getHead("/app.css", "Connection: close\r\n")));
    const std::string second = readUntilClosed(fd, 10s, &closed);
    EXPECT_TRUE(closed);
    EXPECT_EQ(statuses(second), std::vector<int>{200});
    EXPECT_NE(second.find("Connection: close"), std::string::npos);

    // HTTP/1.0 without keep-alive closes too.
    EXPECT_EQ(statuses(exchange("GET /nothing HTTP/1.0\r\n\r\n", &closed)), std::vector<int>{404});
    EXPECT_TRUE(closed);

    // curl sees the same.
    const nimbtest::ChildResult curl = nimbtest::runChild(
        {"/bin/sh", "-c",
         "command -v curl >/dev/null || { echo no-curl; exit 0; }; curl -sS -v -o /dev/null "
         "-H 'Connection: close' http://127.0.0.1:" +
             std::to_string(port_) + "/app.css"},
        environment(), root() / "curl.txt", true, std::chrono::seconds(20));
    if (curl.output.find("no-curl") == std::string::npos) {
        EXPECT_NE(curl.output.find("< HTTP/1.1 200"), std::string::npos) << curl.output;
        EXPECT_NE(curl.output.find("< Connection: close"), std::string::npos) << curl.output;
    }
}

TEST_F(HttpConnectionTest, HeadsAndBodiesThatDoNotArriveInTimeAreCutOff) {
    setWebSetting("HeaderTimeout", 1);
    setWebSetting("BodyTimeout", 1);
    startWeb();

    bool closed = false;
    // Connected, nothing sent: closed without a word.
    Fd silent(connectTo(port_));
    EXPECT_EQ(readUntilClosed(silent, 10s, &closed), "");
    EXPECT_TRUE(closed);
    // Half a head, or a head and half its body: 408, then closed.
    EXPECT_EQ(statuses(exchange("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n", &closed)),
              std::vector<int>{408});
    EXPECT_TRUE(closed);
    EXPECT_EQ(statuses(exchange(getHead("/", "Content-Length: 100\r\n") + "only some", &closed)),
              std::vector<int>{408});
    EXPECT_TRUE(closed);

    // A head that trickles in, one byte at a time, is cut off all the same: the clock
    // runs from the start of the head, not from its last byte.
    Fd trickle(connectTo(port_));
    ASSERT_TRUE(sendAll(trickle, "GET / HTTP/1.1\r\nX-Slow: "));
    for (int i = 0; i < 100 && !readable(trickle); ++i) {
        if (!sendAll(trickle, "a")) break;
        ::usleep(100 * 1000);
    }
    EXPECT_EQ(statuses(readUntilClosed(trickle, 10s, &closed)), std::vector<int>{408});
    EXPECT_TRUE(closed);

    // A connection idle between requests goes the same way.
    Fd idle(connectTo(port_));
    ASSERT_TRUE(sendAll(idle, getHead("/nothing")));
    EXPECT_EQ(statuses(readUntilClosed(idle, 10s, &closed)), std::vector<int>{404});
    EXPECT_TRUE(closed);
}

TEST_F(HttpConnectionTest, OversizedBodiesAreRefusedFromTheHead) {
    setWebSetting("MaxBodySize", 1024);
    startWeb();

    // 200 MiB declared, none sent: the answer comes from the head alone.
    bool closed = false;
    const std::string big = exchange(
        "POST /api/devices HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 209715200\r\n\r\n",
        &closed);
    EXPECT_EQ(statuses(big), std::vector<int>{413}) << big;
    EXPECT_TRUE(closed);
    // A chunked body is counted as it comes.
    const std::string chunked = exchange(getHead("/", "Transfer-Encoding: chunked\r\n") +
                                             "800\r\n" + std::string(2048, 'x') + "\r\n0\r\n\r\n",
                                         &closed);
    EXPECT_EQ(statuses(chunked), std::vector<int>{413});
    EXPECT_TRUE(closed);
    // A body under the limit is read past (and dropped): the next request is answered.
    const std::string small =
        exchange(getHead("/nothing", "Content-Length: 100\r\n") + std::string(100, 'b') +
                     getHead("/app.css", "Connection: close\r\n"),
                 &closed);
    EXPECT_EQ(statuses(small), (std::vector<int>{404, 200}));
    // A malformed head is a 400.
    EXPECT_EQ(statuses(exchange("GET / HTTP/1.1\r\nBroken header\r\n\r\n")), std::vector<int>{400});
    // A head past 16 KiB is a 431.
    EXPECT_EQ(statuses(exchange(getHead("/", "X-Long: " + std::string(20000, 'l') + "\r\n"))),
              std::vector<int>{431});

    writeFile(root() / "body.bin", std::string(4096, 'z'));
    const nimbtest::ChildResult curl = nimbtest::runChild(
        {"/bin/sh", "-c",
         "command -v curl >/dev/null || { echo no-curl; exit 0; }; curl -sS -o /dev/null -w "
         "'status %{http_code}' --data-binary @" +
             (root() / "body.bin").string() + " http://127.0.0.1:" + std::to_string(port_) + "/"},
        environment(), root() / "curl.txt", true, std::chrono::seconds(20));
    if (curl.output.find("no-curl") == std::string::npos) {
        EXPECT_NE(curl.output.find("status 413"), std::string::npos) << curl.output;
    }
}

TEST_F(HttpConnectionTest, OneAddressCannotTakeEveryConnection) {
    setWebSetting("MaxConnectionsPerAddress", 4);
    setWebSetting("HeaderTimeout", 2);
    startWeb();

    std::vector<Fd> held;
    for (int i = 0; i < 4; ++i) {
        held.emplace_back(connectTo(port_, "127.0.0.2"));
        ASSERT_GE(held.back().fd, 0);
        ASSERT_TRUE(sendAll(held.back(), "GET / HTTP/1.1\r\n"));
    }
    // The fifth from that address is turned away at once...
    bool closed = false;
    Fd fifth(connectTo(port_, "127.0.0.2"));
    const std::string refused = readUntilClosed(fifth, 10s, &closed);
    EXPECT_TRUE(closed);
    EXPECT_TRUE(refused.empty() || statuses(refused) == std::vector<int>{503}) << refused;
    // ...while another address is served.
    EXPECT_EQ(request(port_, "/app.css").status, 200);
    // Once the header timeout has closed them, the address may connect again.
    for (const Fd& fd : held) {
        EXPECT_EQ(statuses(readUntilClosed(fd, 10s, &closed)), std::vector<int>{408});
        EXPECT_TRUE(closed);
    }
    bool served = false;
    for (int i = 0; i < 50 && !served; ++i) {  // the server counts the closes on its own time
        served = request(port_, "/app.css", {}, "GET", 10s, "127.0.0.2").status == 200;
        if (!served) ::usleep(100 * 1000);
    }
    EXPECT_TRUE(served);
}

}  // namespace
