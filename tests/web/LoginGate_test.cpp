// SPDX-License-Identifier: MIT
// Password checks under attack, against a real nimb-web child: wrong passwords from one
// address hold that address only (another address logs in and reads while the first
// is held), and a request without credentials is refused from its head, its body unread.
// 127.0.0.2 stands for the attacking host (all of 127/8 is loopback).
#include <unistd.h>

#include <QByteArray>

#include "WebAuth.h"
#include "WebTestSupport.h"

namespace {

using namespace webtest;
using namespace std::chrono_literals;

const char* const kLog = "puck-7001122334455-system.log";

std::string basic(const std::string& pair) {
    return "Authorization: Basic " + QByteArray::fromStdString(pair).toBase64().toStdString();
}

class LoginGateTest : public WebFixture {
protected:
    void SetUp() override {
        WebFixture::SetUp();
        nimbtest::writeFile(logs() / kLog, "x\n");
        setWebSetting("User", "admin");
        setWebSetting("PasswordHash", WebAuth::hashSecret("s3cret").toStdString());
    }
};

TEST_F(LoginGateTest, WrongPasswordsHoldOnlyTheirOwnAddress) {
    // A minute's wait after the first failure: the held requests stay held for the test.
    setWebSetting("LoginDelay", 60000);
    setWebSetting("LoginDelayMax", 60000);
    startWeb();
    const std::string wrong = basic("admin:guess");
    const std::string right = basic("admin:s3cret");

    // The first failure from an address is answered at once...
    EXPECT_EQ(request(port_, "/api/devices", {wrong}, "GET", 10s, "127.0.0.2").status, 401);
    // ...the next ones wait, each connection in that address's line.
    std::vector<int> held;
    for (int i = 0; i < 20; ++i) {
        const int fd = connectTo(port_, "127.0.0.2");
        ASSERT_GE(fd, 0);
        held.push_back(fd);
        ASSERT_TRUE(sendAll(fd, "GET /api/devices HTTP/1.1\r\nHost: x\r\n" + wrong + "\r\n\r\n"));
    }
    // Meanwhile another address logs in (its first check), reads, and even fails once
    // without waiting.
    EXPECT_EQ(request(port_, "/api/devices", {right}).status, 200);
    EXPECT_EQ(request(port_, "/api/devices", {basic("admin:typo")}).status, 401);
    EXPECT_EQ(request(port_, std::string("/api/log?file=") + kLog, {right}).status, 200);
    // The slowed address is still held: not one of its requests has been answered.
    for (const int fd : held) EXPECT_FALSE(readable(fd)) << "answered before its wait";
    // Credentials that passed once pass at once, from any address.
    EXPECT_EQ(request(port_, "/api/devices", {right}, "GET", 10s, "127.0.0.2").status, 200);
    for (const int fd : held) ::close(fd);
}

TEST_F(LoginGateTest, RequestsWithoutCredentialsAreRefusedBeforeTheirBody) {
    startWeb();
    // A body is declared (under the limit) but never sent: the 401 comes from the head,
    // and the connection closes, as its body was not read.
    bool closed = false;
    const int fd = connectTo(port_);
    ASSERT_TRUE(
        sendAll(fd, "POST /api/devices HTTP/1.1\r\nHost: x\r\nContent-Length: 60000\r\n\r\n"));
    const std::string answer = readUntilClosed(fd, 10s, &closed);
    ::close(fd);
    EXPECT_EQ(statuses(answer), std::vector<int>{401}) << answer;
    EXPECT_TRUE(closed);
    EXPECT_NE(answer.find("Connection: close"), std::string::npos);
    // With credentials, a small body is read past and the request goes on (405: GET only).
    EXPECT_EQ(
        request(port_, "/api/devices", {basic("admin:s3cret"), "Content-Length: 0"}, "POST").status,
        405);
}

}  // namespace
