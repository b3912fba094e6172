// SPDX-License-Identifier: MIT
// Alerts end to end: a real collector on a real bus, nimb-web, and real receivers on
// loopback (an HTTP hook and an SMTP server with STARTTLS and login). Rules and channels
// are set over the API, which takes JSON from its own pages only; the channel's secret
// is kept 0600 and never shown or logged; an acknowledged line reaches the hook; "send a
// test" reaches the mail server; lines written while nimb-web is down are notified when
// it is back, once, and a restarted collector's lines are notified too.
#include <string>

#include <signal.h>
#include <sys/stat.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "NotifyReceivers.h"
#include "WebTestSupport.h"

namespace {

using namespace std::chrono_literals;
using webtest::HttpResponse;

const char* const kSecret = "tok-S3CRET-9f";

class WebAlertsTest : public webtest::WebFixture {
protected:
    HttpResponse post(const std::string& target, const QJsonObject& json,
                      std::vector<std::string> headers = {"Content-Type: application/json"}) {
        return webtest::request(port_, target, headers, "POST", 10s, "",
                                QJsonDocument(json).toJson(QJsonDocument::Compact).toStdString());
    }
    static QJsonObject object(const HttpResponse& response) {
        return QJsonDocument::fromJson(QByteArray::fromStdString(response.body)).object();
    }
    void announce() {
        ASSERT_EQ(
            callCollector(
                "SetLogSource",
                R"(["00:11:22:33:44:55", "puck-7", "Living room", {"date":"2026-11-22T10:00:00Z"}, {"str[]":["system.log"]}])"),
            0);
    }
    void append(const std::string& text) {
        ASSERT_EQ(callCollector("AppendLog",
                                R"(["00:11:22:33:44:55", "system.log", ")" + text + R"(\n"])"),
                  0);
    }
    void stopWeb() {
        ::kill(web_, SIGTERM);
        const nimbtest::ChildResult ended = nimbtest::waitChild(web_, root() / "web.txt", 10s);
        web_ = -1;
        EXPECT_EQ(ended.exitCode(), 0) << ended.output;
        EXPECT_EQ(ended.output.find(kSecret), std::string::npos);
    }
};

TEST_F(WebAlertsTest, RulesSetOverTheApiNotifyRealReceiversAcrossRestarts) {
    nimbtest::NotifyReceivers receivers;
    ASSERT_TRUE(receivers.running());
    startCollector();
    startWeb();
    announce();

    // The hook, with a secret; only JSON from the console's own origin changes anything.
    const QJsonObject hook{{"name", "hook"},
                           {"kind", "webhook"},
                           {"url", QString::fromStdString(receivers.httpUrl())},
                           {"secret", kSecret}};
    EXPECT_EQ(post("/api/alerts/channel", hook, {"Content-Type: text/plain"}).status, 415);
    EXPECT_EQ(post("/api/alerts/channel", hook,
                   {"Content-Type: application/json", "Origin: http://evil.test"})
                  .status,
              403);
    EXPECT_EQ(webtest::request(port_, "/api/alerts/channel", {}, "DELETE").status, 405);
    HttpResponse saved = post("/api/alerts/channel", hook);
    ASSERT_EQ(saved.status, 200) << saved.body;
    const QString hookId = object(saved)["channel"].toObject()["id"].toString();
    EXPECT_TRUE(object(saved)["channel"].toObject()["hasSecret"].toBool());
    const QJsonObject bad{{"name", "x"}, {"kind", "webhook"}, {"url", "ftp://x.test"}};
    const HttpResponse refused = post("/api/alerts/channel", bad);
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(object(refused)["error"].toString(), "\"url\" must be a http:// or https:// address");

    const QJsonObject rule{{"name", "Crashes"},
                           {"text", "segfault"},
                           {"level", "error"},
                           {"quietMinutes", 0},
                           {"channels", QJsonArray{hookId}}};
    saved = post("/api/alerts/rule", rule);
    ASSERT_EQ(saved.status, 200) << saved.body;

    append("E/app: segfault in worker 1");
    append("I/app: segfault handler test passed");  // below the level
    ASSERT_TRUE(receivers.waitForRequests(1, 15s));
    nimbtest::ReceivedRequest first = receivers.requests().at(0);
    EXPECT_EQ(first.header("Authorization"), std::string("Bearer ") + kSecret);
    const QJsonObject notice =
        QJsonDocument::fromJson(QByteArray::fromStdString(first.body)).object();
    EXPECT_EQ(notice["lines"].toArray().at(0).toString(), "E/app: segfault in worker 1");
    EXPECT_EQ(notice["rule"].toString(), "Crashes");
    EXPECT_TRUE(notice["link"].toString().contains("#/log?file="));

    // Mail: "send a test" through a server that wants STARTTLS and a login.
    const QJsonObject mail{{"name", "mail"},
                           {"kind", "email"},
                           {"url", QString::fromStdString(receivers.smtpUrl())},
                           {"user", QString::fromStdString(receivers.options().user)},
                           {"secret", QString::fromStdString(receivers.options().password)},
                           {"from", "nimb@home.test"},
                           {"to", QJsonArray{"me@home.test"}},
                           {"caFile", QString::fromStdString(receivers.caFile())}};
    saved = post("/api/alerts/channel", mail);
    ASSERT_EQ(saved.status, 200) << saved.body;
    const QString mailId = object(saved)["channel"].toObject()["id"].toString();
    const HttpResponse tested = post("/api/alerts/test", QJsonObject{{"channel", mailId}});
    EXPECT_TRUE(object(tested)["ok"].toBool()) << tested.body;
    ASSERT_TRUE(receivers.waitForMails(1));
    EXPECT_TRUE(receivers.mails().at(0).tls);
    EXPECT_EQ(receivers.mails().at(0).login, receivers.options().user);

    // Secrets: 0600, never in an answer or the log.
    struct stat info {};
    ASSERT_EQ(::stat((root() / "cfg/pellix/alert-secrets").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    const HttpResponse listed = get("/api/alerts");
    EXPECT_EQ(listed.body.find(kSecret), std::string::npos);
    EXPECT_EQ(listed.body.find(receivers.options().password), std::string::npos);
    EXPECT_NE(listed.body.find("segfault in worker 1"), std::string::npos);  // fired list

    // nimb-web stops; a line comes meanwhile; it is notified once nimb-web is back, and
    // the first one is not sent again.
    stopWeb();
    append("E/app: segfault in worker 2");
    startWeb();
    ASSERT_TRUE(receivers.waitForRequests(2, 15s));
    std::this_thread::sleep_for(1s);
    ASSERT_EQ(receivers.requests().size(), 2u);
    EXPECT_NE(receivers.requests()[1].body.find("segfault in worker 2"), std::string::npos);

    // The collector restarts; its next line is notified as well.
    ::kill(collector_, SIGTERM);
    nimbtest::waitChild(collector_, root() / "collector.txt", 15s);
    collector_ = -1;
    nimbtest::fs::remove(root() / "collector.txt");  // "connected" is looked for in it
    startCollector();
    announce();
    append("E/app: segfault in worker 3");
    ASSERT_TRUE(receivers.waitForRequests(3, 15s));
    EXPECT_NE(receivers.requests()[2].body.find("segfault in worker 3"), std::string::npos);
    EXPECT_EQ(nimbtest::readFile(root() / "web.txt").find(kSecret), std::string::npos);
}

}  // namespace
