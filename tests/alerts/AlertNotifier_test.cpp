// SPDX-License-Identifier: MIT
// Notifications delivered to real receivers on loopback: the web hook's JSON, the
// ntfy-style headers, mail over STARTTLS and TLS with a login, and the failures.
#include "AlertNotifier.h"

#include <atomic>
#include <thread>

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "NatsServer.h"
#include "NotifyReceivers.h"

using nimbtest::NotifyReceivers;

namespace {

// Device text at its worst: quotes, line breaks, a header it would like to add, a bidi
// override, an escape sequence and bytes that are not UTF-8.
const std::string kHostile =
    "say \"hi\" \\ back\r\nX-Injected: yes\n\xE2\x80\xAE"
    "desrever\x1B[31m bad:\xFF\xFE end";

AlertMessage sampleMessage() {
    AlertMessage message;
    message.rule = "disk errors";
    message.title = "I/O error on sda";
    message.text =
        "kernel: I/O error, dev sda, sector 42\nkernel: I/O error, dev sda\n"
        "37 more matches";
    message.link = "https://console.home/logs?device=nas&line=17";
    message.severity = "error";
    message.matches = 39;
    message.firstTime = 1700000000;
    message.lastTime = 1700000060;
    message.lines = {"kernel: I/O error, dev sda, sector 42", "kernel: I/O error, dev sda"};
    return message;
}

AlertChannel channelOf(AlertChannel::Kind kind, const std::string& url,
                       const std::string& secret = {}) {
    AlertChannel channel;
    channel.kind = kind;
    channel.url = url;
    channel.secret = secret;
    return channel;
}

QString qs(const std::string& text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

}  // namespace

TEST(AlertNotifierHttp, WebhookSendsTheFieldsAndHostileTextIntact) {
    NotifyReceivers receivers;
    ASSERT_TRUE(receivers.running());
    AlertChannel channel =
        channelOf(AlertChannel::Kind::Webhook, receivers.httpUrl("/hooks/nas"), "tok-3f9a");
    AlertMessage message = sampleMessage();
    message.title = kHostile;
    message.lines.push_back(kHostile);
    message.test = true;

    const AlertSendResult result = AlertNotifier().send(channel, message);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_EQ(result.status, 200);
    ASSERT_TRUE(receivers.waitForRequests(1));
    const nimbtest::ReceivedRequest request = receivers.requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/hooks/nas");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.header("Authorization"), "Bearer tok-3f9a");
    EXPECT_FALSE(request.hasHeader("X-Injected"));

    QJsonParseError error{};
    const QJsonObject json =
        QJsonDocument::fromJson(QByteArray::fromStdString(request.body), &error).object();
    ASSERT_EQ(error.error, QJsonParseError::NoError) << request.body;
    // Everything arrives as sent; only the bytes that are not UTF-8 become U+FFFD.
    const QString hostile = json["title"].toString();
    EXPECT_EQ(hostile, qs(kHostile));
    EXPECT_TRUE(hostile.contains(QChar(0x202E)) && hostile.contains(QChar(0x1B)));
    EXPECT_TRUE(hostile.contains(QStringLiteral("\r\nX-Injected: yes\n")));
    EXPECT_EQ(hostile.count(QChar(0xFFFD)), 2);
    EXPECT_EQ(json["rule"].toString(), "disk errors");
    EXPECT_EQ(json["text"].toString(), qs(message.text));
    EXPECT_EQ(json["link"].toString(), qs(message.link));
    EXPECT_EQ(json["severity"].toString(), "error");
    EXPECT_EQ(json["matches"].toInteger(), 39);
    EXPECT_EQ(json["firstTime"].toString(), "2023-11-14T22:13:20Z");
    EXPECT_EQ(json["lastTime"].toString(), "2023-11-14T22:14:20Z");
    ASSERT_EQ(json["lines"].toArray().size(), 3);
    EXPECT_EQ(json["lines"].toArray()[2].toString(), hostile);
    EXPECT_TRUE(json["test"].toBool());

    // One notifier, several senders at once.
    const AlertNotifier shared;
    std::vector<std::thread> senders;
    std::atomic<int> delivered{0};
    for (int i = 0; i < 4; ++i) {
        senders.emplace_back([&] { delivered += shared.send(channel, sampleMessage()).ok; });
    }
    for (std::thread& sender : senders) sender.join();
    EXPECT_EQ(delivered.load(), 4);
    EXPECT_TRUE(receivers.waitForRequests(5));
}

TEST(AlertNotifierHttp, NtfyHeadersStayOnOneLine) {
    NotifyReceivers receivers;
    ASSERT_TRUE(receivers.running());
    AlertChannel channel = channelOf(AlertChannel::Kind::Ntfy, receivers.httpUrl("/nas-alerts"));
    channel.priority = 9;
    AlertMessage message = sampleMessage();
    message.title = "disk full\r\nX-Evil: yes";
    ASSERT_TRUE(AlertNotifier().send(channel, message).ok);
    message.title =
        "Überlauf ⚠ \xE2\x80\xAE"
        "sda";
    message.text = kHostile;
    message.test = true;
    ASSERT_TRUE(AlertNotifier().send(channel, message).ok);

    ASSERT_TRUE(receivers.waitForRequests(2));
    const auto requests = receivers.requests();
    const nimbtest::ReceivedRequest& plain = requests.at(0);
    EXPECT_EQ(plain.header("Title"), "disk full X-Evil: yes");
    EXPECT_FALSE(plain.hasHeader("X-Evil"));
    EXPECT_FALSE(plain.hasHeader("Authorization"));
    EXPECT_EQ(plain.header("Priority"), "5");
    EXPECT_EQ(plain.header("Tags"), "error");
    EXPECT_EQ(plain.header("Click"), message.link);
    EXPECT_EQ(plain.body, sampleMessage().text);
    EXPECT_EQ(plain.header("Content-Type"), "text/plain; charset=utf-8");

    // Not ASCII: an encoded-word, the bidi override dropped. The body is valid UTF-8.
    const nimbtest::ReceivedRequest& encoded = requests.at(1);
    const std::string title = encoded.header("Title");
    ASSERT_EQ(title.rfind("=?UTF-8?B?", 0), 0u) << title;
    EXPECT_EQ(QByteArray::fromBase64(QByteArray::fromStdString(title.substr(10, title.size() - 12)))
                  .toStdString(),
              "Überlauf ⚠ sda");
    EXPECT_EQ(encoded.header("Tags"), "error,test");
    EXPECT_EQ(qs(encoded.body), qs(kHostile));
    EXPECT_EQ(qs(encoded.body).toUtf8().toStdString(), encoded.body);
}

TEST(AlertNotifierHttp, FailuresAreClearAndNeverShowTheSecret) {
    NotifyReceivers receivers;
    ASSERT_TRUE(receivers.running());
    const std::string secret = "s3cr3t-T0ken";
    const AlertNotifier notifier(AlertNotifier::Options{std::chrono::milliseconds(700)});
    const auto failure = [&](const std::string& url, const std::string& caFile = {}) {
        AlertChannel channel = channelOf(AlertChannel::Kind::Webhook, url, secret);
        channel.caFile = caFile;
        const AlertSendResult result = notifier.send(channel, sampleMessage());
        EXPECT_FALSE(result.ok) << url;
        EXPECT_EQ(result.error.find(secret), std::string::npos) << result.error;
        EXPECT_EQ(result.error.find("pathtoken"), std::string::npos) << result.error;
        EXPECT_EQ(result.error.find('\n'), std::string::npos) << result.error;
        return result;
    };

    AlertSendResult result = failure(receivers.httpUrl("/pathtoken?status=503"));
    EXPECT_EQ(result.status, 503);
    EXPECT_NE(result.error.find("HTTP status 503"), std::string::npos) << result.error;
    result = failure(receivers.httpUrl("/pathtoken?status=302"));
    EXPECT_NE(result.error.find("redirects are not followed"), std::string::npos);
    result = failure(receivers.httpUrl("/pathtoken?delay=3000"));
    EXPECT_NE(result.error.find("no answer within 700 ms"), std::string::npos) << result.error;
    result = failure("http://127.0.0.1:" + std::to_string(NatsServer::freePort()) + "/pathtoken");
    EXPECT_NE(result.error.find("cannot connect"), std::string::npos) << result.error;
    result = failure(receivers.httpsUrl("/pathtoken"));
    EXPECT_NE(result.error.find("not trusted"), std::string::npos) << result.error;
    EXPECT_EQ(receivers.requests().size(), 3u);  // the TLS failure sent nothing

    // Refused before anything is sent: credentials in the URL, a scheme of another kind.
    const std::size_t before = receivers.requests().size();
    result = failure("http://admin:" + secret + "@127.0.0.1:1/pathtoken");
    EXPECT_NE(result.error.find("must not carry a user or password"), std::string::npos);
    result = failure("smtp://127.0.0.1:1/pathtoken");
    EXPECT_NE(result.error.find("http://"), std::string::npos) << result.error;
    EXPECT_EQ(receivers.requests().size(), before);

    // The receiver's own certificate, trusted for this channel, makes it work.
    AlertChannel trusted = channelOf(AlertChannel::Kind::Webhook, receivers.httpsUrl(), secret);
    trusted.caFile = receivers.caFile();
    result = notifier.send(trusted, sampleMessage());
    EXPECT_TRUE(result.ok) << result.error;
}

class AlertNotifierMail : public ::testing::Test {
protected:
    AlertChannel mailChannel(const std::string& url) const {
        AlertChannel channel =
            channelOf(AlertChannel::Kind::Email, url, receivers_.options().password);
        channel.user = receivers_.options().user;
        channel.from = "nimb@home.example";
        channel.to = {"ops@home.example", "owner@home.example"};
        channel.caFile = receivers_.caFile();
        return channel;
    }
    NotifyReceivers receivers_;
};

TEST_F(AlertNotifierMail, StartTlsAndImplicitTlsDeliverAProperMessage) {
    ASSERT_TRUE(receivers_.running());
    AlertMessage message = sampleMessage();
    message.title = "Überhitzung im Keller ⚠ Festplatte 98 °C\r\nBcc: victim@example.org";
    const std::string longLine(1500, 'x');
    message.text = "first line\n.a line that starts with a dot\n" + longLine + "\n" +
                   "tab\there, trailing space \nbidi \xE2\x80\xAE"
                   "desrever";
    const AlertSendResult result = AlertNotifier().send(mailChannel(receivers_.smtpUrl()), message);
    ASSERT_TRUE(result.ok) << result.error;
    message.test = true;
    ASSERT_TRUE(AlertNotifier().send(mailChannel(receivers_.smtpsUrl()), message).ok);

    ASSERT_TRUE(receivers_.waitForMails(2));
    const auto mails = receivers_.mails();
    const nimbtest::ReceivedMail& mail = mails.at(0);
    EXPECT_EQ(mail.server, "smtp");
    EXPECT_TRUE(mail.tls);
    EXPECT_EQ(mail.login, "alerts");
    EXPECT_EQ(mail.from, "nimb@home.example");
    EXPECT_EQ(mail.to, (std::vector<std::string>{"ops@home.example", "owner@home.example"}));
    EXPECT_TRUE(mail.defects.empty());
    EXPECT_EQ(mail.header("From"), "nimb@home.example");
    EXPECT_EQ(mail.header("To"), "ops@home.example, owner@home.example");
    EXPECT_EQ(mail.header("MIME-Version"), "1.0");
    EXPECT_EQ(mail.header("Content-Type"), "text/plain; charset=utf-8");
    EXPECT_FALSE(mail.header("Date").empty());
    EXPECT_EQ(mail.header("Message-ID").find('<'), 0u);
    EXPECT_TRUE(mail.header("Bcc").empty());
    EXPECT_EQ(mail.header("Subject").rfind("=?UTF-8?B?", 0), 0u);
    EXPECT_EQ(mail.subject, "Überhitzung im Keller ⚠ Festplatte 98 °C Bcc: victim@example.org");
    // The body, decoded by a real mail parser, holds the text line for line.
    for (const std::string& line :
         {std::string("first line\n.a line that starts with a dot\n" + longLine + "\n"),
          std::string("tab\there, trailing space \n"),
          std::string("\xE2\x80\xAE"
                      "desrever"),
          std::string("Rule: disk errors\n"),
          std::string("Open in the console: " + message.link)}) {
        EXPECT_NE(mail.text.find(line), std::string::npos) << line;
    }
    for (const std::string& sent : nimbtest::linesOf(mail.data)) {
        EXPECT_LE(sent.size(), 999u);  // 998 and the CR
    }

    EXPECT_EQ(mails.at(1).server, "smtps");
    EXPECT_TRUE(mails.at(1).tls);
    EXPECT_EQ(mails.at(1).login, "alerts");
    EXPECT_EQ(mails.at(1).subject.rfind("[test] Überhitzung", 0), 0u) << mails.at(1).subject;
}

TEST_F(AlertNotifierMail, RefusalsAreClear) {
    ASSERT_TRUE(receivers_.running());
    AlertChannel channel = mailChannel(receivers_.smtpUrl());
    channel.secret = "wrong-pass-91";
    AlertSendResult result = AlertNotifier().send(channel, sampleMessage());
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("login refused"), std::string::npos) << result.error;
    EXPECT_EQ(result.error.find("wrong-pass-91"), std::string::npos) << result.error;

    // No STARTTLS: nothing goes out in clear, the password least of all.
    result = AlertNotifier().send(mailChannel(receivers_.smtpPlainUrl()), sampleMessage());
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("does not offer STARTTLS"), std::string::npos) << result.error;

    channel = mailChannel(receivers_.smtpUrl());
    channel.caFile.clear();
    result = AlertNotifier().send(channel, sampleMessage());
    EXPECT_NE(result.error.find("not trusted"), std::string::npos) << result.error;

    channel = mailChannel(receivers_.smtpUrl());
    channel.to.push_back("victim@example.org>\r\nRCPT TO:<more@example.org");
    result = AlertNotifier().send(channel, sampleMessage());
    EXPECT_NE(result.error.find("recipient is not a plain mail address"), std::string::npos);
    EXPECT_TRUE(receivers_.mails().empty());
}
