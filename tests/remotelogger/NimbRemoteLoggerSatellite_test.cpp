// SPDX-License-Identifier: MIT
// The bus service handlers, called directly without a bus: request checks and their
// messages, both SetLogSource layouts, the file-name hardening and the source bound;
// then connect() on a real bus: the settings it reads and the lines it logs.

#include "NimbRemoteLoggerSatellite.h"

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <time.h>
#include <unistd.h>

#include <QDateTime>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "CRegistry.h"
#include "KibException.h"
#include "NatsServer.h"
#include "NimbTestSupport.h"
#include "TestValues.h"
#include "VUtil.h"

namespace {

using namespace testvalues;
using Values = std::vector<KibVariantHolder>;

constexpr long kDeviceTime = 1795341600;  // 2026-11-22 10:00:00 UTC

KibVariantHolder date(long seconds) { return r8(VT_DATE, VUtil::TimeToDate(seconds)); }

template <typename... T>
KibVariantHolder request(T&&... elements) {
    Values values;
    (values.push_back(std::forward<T>(elements)), ...);
    return variants(std::move(values));
}

struct AddLogCall {
    QString macAddr, deviceId, satName, displayName;
    QDateTime puckTime;
    QString logName;
};

class SatelliteTest : public ::testing::Test {
protected:
    SatelliteTest() {
        QObject::connect(&satellite, &NimbRemoteLoggerSatellite::addLog,
                         [this](QString mac, QString device, QString sat, QString name,
                                QDateTime time, QString log) {
                             added.push_back({mac, device, sat, name, time, log});
                         });
        QObject::connect(&satellite, &NimbRemoteLoggerSatellite::appendLog,
                         [this](QString, QString, QString content) {
                             appended.push_back(content.toStdString());
                         });
    }

    // A handler call followed by the main thread's delivery of what it queued.
    int setLogSource(const KibVariantHolder& in) {
        const int status = satellite.KibServiceSetLogSource("dev1", in.get(), nullptr);
        satellite.deliverQueuedCalls();
        return status;
    }
    int appendLog(const KibVariantHolder& in) {
        const int status = satellite.KibServiceAppendLog("dev1", in.get(), nullptr);
        satellite.deliverQueuedCalls();
        return status;
    }

    // The message of the KibInvalidParameterException `call` throws ("" if none).
    static std::string failure(const std::function<void()>& call) {
        try {
            call();
        } catch (const KibInvalidParameterException& e) {
            return e.message();
        }
        return "";
    }

    NimbRemoteLoggerSatellite satellite{nullptr};
    std::vector<AddLogCall> added;
    std::vector<std::string> appended;
};

TEST_F(SatelliteTest, FourElementLayoutUsesPuckAndFiveElementLayoutTheDeviceId) {
    EXPECT_EQ(setLogSource(request(str("00:11"), str("Kitchen"), date(kDeviceTime), strings({}))),
              0);  // an empty list is fine and announces nothing
    EXPECT_EQ(setLogSource(request(str("00:11"), str("Kitchen"), date(kDeviceTime),
                                   strings({"system.log"}))),
              0);
    EXPECT_EQ(setLogSource(request(str("00:22"), str("puck-7"), str("Hall"), date(kDeviceTime),
                                   strings({"a", "/b/c", "d"}), i4(99))),
              0);
    ASSERT_EQ(added.size(), 4u);
    EXPECT_EQ(added[0].deviceId, "puck");
    EXPECT_EQ(added[0].displayName, "Kitchen");
    EXPECT_EQ(added[0].logName, "system.log");
    std::vector<QString> logs;
    for (size_t i = 1; i < added.size(); ++i) {
        const AddLogCall& call = added[i];
        EXPECT_EQ(call.macAddr, "00:22");
        EXPECT_EQ(call.deviceId, "puck-7");
        EXPECT_EQ(call.satName, "dev1");
        EXPECT_EQ(call.displayName, "Hall");
        logs.push_back(call.logName);
    }
    EXPECT_EQ(logs, (std::vector<QString>{"a", "/b/c", "d"}));
    for (const AddLogCall& call : added) {
        EXPECT_EQ(call.puckTime.timeSpec(), Qt::UTC);
        EXPECT_EQ(call.puckTime.toSecsSinceEpoch(), kDeviceTime);
    }
}

// Names that would leave the logs folder are refused whole, before any log is announced.
TEST_F(SatelliteTest, RequestChecksAndUnsafeNamesFailWithTheirMessages) {
    const std::string longName(260, 'x');
    const std::string macNear(240, 'a');
    // 83 bytes that are not UTF-8 arrive as 83 replacement characters (249 bytes).
    const std::string malformed(83, '\xff');
    auto named = [](const std::string& mac, const std::string& device,
                    std::vector<const char*> logs = {"l"}) {
        return request(str(mac), str(device), str("n"), date(kDeviceTime), strings(logs));
    };
    const struct {
        bool setLogSource;
        KibVariantHolder in;
        const char* message;
    } cases[] = {
        {true, i4(1), "SetLogSource: invalid parameter"},
        {true, request(str("m"), str("n"), date(0)), "SetLogSource: invalid parameter"},
        {true, request(i4(3), i4(3), date(0), strings({})),
         "SetLogSource: invalid addr: checkType failed, got 3, expected 8"},
        {true, request(str("m"), i4(3), str("n"), date(0), strings({})),
         "SetLogSource: invalid device id"},
        {true, request(str("m"), i4(3), date(0), strings({})), "SetLogSource: invalid name"},
        {true, request(str("m"), str("n"), i4(3), strings({})), "SetLogSource: invalid time"},
        {true, request(str("m"), str("n"), date(0), str("x")), "SetLogSource: invalid log list"},
        {true, request(str("m"), str("n"), date(0), request(str("x"))),
         "SetLogSource: invalid log list"},
        {true, request(str("m"), str("n"), r8(VT_DATE, 1e12), strings({})),
         "SetLogSource: invalid time: date outside the years 1 to 9999"},
        {false, request(str("m"), str("l")), "AppendLog: invalid parameter"},
        {false, request(i4(3), i4(3), i4(3)), "AppendLog: invalid addr"},
        {false, request(str("m"), i4(3), i4(3)), "AppendLog: invalid log"},
        {false, request(str("m"), str("l"), i4(3)), "AppendLog: invalid content"},
        {false, request(str("m"), str("l"), str("c"), r8(VT_DATE, 1e12)),
         "AppendLog: invalid time: date outside the years 1 to 9999"},
        {true, named("00/11", "puck"), "SetLogSource: invalid addr: holds"},
        {true, named("00\\11", "puck"), "SetLogSource: invalid addr: holds"},
        {true, named("00:11", "../x"), "SetLogSource: invalid device id: holds"},
        {true, named("00:11", "..\\x"), "SetLogSource: invalid device id: holds"},
        {true, named(longName, "puck"),
         "SetLogSource: invalid addr: file name longer than 250 bytes"},
        {true, named(malformed, "puck"),
         "SetLogSource: invalid device id: file name longer than 250"},
        {true, named(macNear, std::string(10, 'd')), "SetLogSource: invalid device id: file name"},
        {true, named(macNear, "puck", {"ok", longName.c_str()}),
         "SetLogSource: invalid log name: file name"},
        // Hidden files, control characters and NUL bytes never reach a file name.
        {true, named("00:11", ".."), "SetLogSource: invalid device id: starts with \".\""},
        {true, named(":.11", ""), "SetLogSource: invalid addr: starts with \".\""},
        {true, named("00:11", "a\nb"), "SetLogSource: invalid device id: holds a control"},
        {true, named("00\x1b[2J", "puck"), "SetLogSource: invalid addr: holds a control"},
        {true, named(std::string("00\0evil", 7), "puck"),
         "SetLogSource: invalid addr: holds a control character"},
        {true, named("00:11", std::string("puck\0x", 6)),
         "SetLogSource: invalid device id: holds a control character"},
        {true, named("00:11", "d", {"ok", "x\ry"}),
         "SetLogSource: invalid log name: holds a control character"},
        // Replies a device author meets, passed on from the value helpers without a prefix.
        {false, request(str("m"), str("l"), str("c"), str("now")), "Element is not a date"},
        {true, request(str("m"), str("n"), date(0), typed<BSTR>(VT_BSTR, {}, 1)),
         "Array is not zero indexed! (VUtil::GetArrayLength)"},
    };
    for (const auto& c : cases) {
        const std::string message =
            failure([&] { c.setLogSource ? setLogSource(c.in) : appendLog(c.in); });
        EXPECT_EQ(message.rfind(c.message, 0), 0u) << c.message << " / got: " << message;
    }
    EXPECT_TRUE(added.empty());
    EXPECT_TRUE(appended.empty());
    // Path components in a log name are fine: only the last one names the file.
    EXPECT_EQ(setLogSource(named("00:11", "d", {"../../etc/passwd", "dir/", ".."})), 0);
    EXPECT_EQ(added.size(), 3u);
}

// A display name or caller holding line breaks cannot forge a second header line (with
// another device's clock tie) in the file: control characters arrive escaped.
TEST_F(SatelliteTest, HeaderStringsArriveWithControlCharactersEscaped) {
    const std::string forged =
        "Hall\n===== Kitchen - dev2 === 2000/01/01 00:00:00 <-> 2000/01/01 00:00:00 =====\r\n";
    EXPECT_EQ(
        satellite.KibServiceSetLogSource(
            "sat\x1b[1m\tx",
            request(str("00:11"), str(forged), date(kDeviceTime), strings({"l"})).get(), nullptr),
        0);
    EXPECT_EQ(satellite.KibServiceSetLogSource("plain",
                                               request(str("00:11"), str(std::string("a\0b", 3)),
                                                       date(kDeviceTime), strings({"l"}))
                                                   .get(),
                                               nullptr),
              0);
    satellite.deliverQueuedCalls();
    ASSERT_EQ(added.size(), 2u);
    EXPECT_EQ(added[0].displayName,
              "Hall\\n===== Kitchen - dev2 === 2000/01/01 00:00:00 <-> 2000/01/01 00:00:00 "
              "=====\\r\\n");
    EXPECT_EQ(added[0].satName, "sat\\x1b[1m\\tx");
    EXPECT_EQ(added[1].displayName, "a\\0b");
    EXPECT_EQ(added[1].satName, "plain");
}

TEST_F(SatelliteTest, AppendLogConvertsTimestampsOnlyWithDeviceTime) {
    const std::string content = "2000/01/01 00:00:00 caf\xc3\xa9\nJan  5 07:08:09 second\n";
    EXPECT_EQ(appendLog(request(str("00:11"), str("system.log"), str(content))), 0);
    EXPECT_EQ(appendLog(request(str("00:11"), str("system.log"), str(""))), 0);
    // Nothing is dropped: a NUL becomes U+FFFD like a byte that is not UTF-8, also when
    // timestamps are converted.
    const std::string odd("a\0b\xff c\n", 7);
    EXPECT_EQ(appendLog(request(str("00:11"), str("l"), str(odd))), 0);
    EXPECT_EQ(appendLog(request(str("00:11"), str("l"), str(odd), date(kDeviceTime))), 0);
    // A device clock 26 years behind: the stamp it wrote "now" comes out near the present.
    EXPECT_EQ(appendLog(request(str("00:11"), str("l"), str("2000/01/01 00:00:00 boot\n"),
                                date(946684800))),
              0);
    ASSERT_EQ(appended.size(), 5u);
    EXPECT_EQ(appended[0], content);
    EXPECT_EQ(appended[1], "");
    EXPECT_EQ(appended[2],
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD c\n");
    EXPECT_EQ(appended[3], appended[2]);
    const QString year = QString::number(QDateTime::currentDateTime().date().year());
    EXPECT_EQ(appended[4].rfind(year.toStdString() + "/", 0), 0u) << appended[4];
    EXPECT_EQ(appended[4].substr(19), " boot\n");
}

// A device whose clock equals the server's, read while its milliseconds are 500 or more:
// its stamps stay where they are (the offset is rounded from both clocks to the
// millisecond, not from a device time rounded up and a server time cut down).
TEST_F(SatelliteTest, ClockOffsetIsRoundedFromMillisecondTimes) {
    const std::string content = "2000/01/01 00:00:00 boot\n";
    timespec now{};
    for (int i = 0; i < 200; ++i) {  // at most about 1 s until the milliseconds reach 500-899
        clock_gettime(CLOCK_REALTIME, &now);
        if (now.tv_nsec >= 500000000 && now.tv_nsec < 900000000) break;
        usleep(5000);
    }
    ASSERT_GE(now.tv_nsec, 500000000);
    const double deviceNow =
        VUtil::TimeToDate(now.tv_sec) + static_cast<double>(now.tv_nsec / 1000000) / 86400000.0;
    EXPECT_EQ(appendLog(request(str("00:11"), str("l"), str(content), r8(VT_DATE, deviceNow))), 0);
    ASSERT_EQ(appended.size(), 1u);
    EXPECT_EQ(appended[0], satellite.convertLog(content, 1000, 1000));  // moved by 0 s
}

TEST_F(SatelliteTest, LogSlotsAreBoundedPerDeviceAndTheIdlestGivesItsSlotUp) {
    satellite.setMaxLogSources(3, 2);
    std::vector<std::string> closed;
    QObject::connect(&satellite, &NimbRemoteLoggerSatellite::closeLog,
                     [&](QString id) { closed.push_back(id.toStdString()); });
    auto announce = [&](const char* mac, std::vector<const char*> logs) {
        return failure(
            [&] { setLogSource(request(str(mac), str("n"), date(kDeviceTime), strings(logs))); });
    };
    auto append = [&](const char* mac, const char* log) -> std::string {
        try {
            appendLog(request(str(mac), str(log), str("text\n")));
        } catch (const KibException& e) {
            return std::to_string(e.code()) + " " + e.message();
        }
        return "";
    };
    const std::string closedText =
        "4 AppendLog: log closed to make room for other logs: announce it again";
    EXPECT_EQ(announce("00:11", {"a", "b"}), "");
    EXPECT_EQ(announce("0011", {"/x/a", "b"}), "");  // the same two ids
    // Past its own bound, the device's idlest log ("a") gives its slot up.
    EXPECT_EQ(announce("00:11", {"c"}), "");
    EXPECT_EQ(closed, std::vector<std::string>{"0011-a"});
    EXPECT_EQ(append("00:11", "a"), closedText);
    EXPECT_EQ(announce("00:22", {"a"}), "");
    EXPECT_EQ(append("00:11", "b"), "");
    // All three slots are taken: the log idle longest ("c" of 00:11) gives its slot up.
    EXPECT_EQ(announce("00:33", {"a"}), "");
    EXPECT_EQ(closed, (std::vector<std::string>{"0011-a", "0011-c"}));
    EXPECT_EQ(append("00:11", "c"), closedText);
    EXPECT_EQ(append("00:11", "b"), "");
    EXPECT_EQ(announce("00:11", {"c"}), "");  // announced again, it takes a slot back
    EXPECT_EQ(append("00:11", "c"), "");
    // Neither a longer list nor repeating known names can multiply the work, and a list
    // longer than the device's own bound cannot be open at once.
    EXPECT_EQ(announce("00:44", {"a", "b", "c", "d"}),
              "SetLogSource: too many log sources: at most 3");
    EXPECT_EQ(announce("00:11", {"a", "a", "a", "a"}),
              "SetLogSource: too many log sources: at most 3");
    EXPECT_EQ(announce("00:55", {"a", "b", "c"}),
              "SetLogSource: too many log sources for device 00:55: at most 2");
    EXPECT_EQ(closed, (std::vector<std::string>{"0011-a", "0011-c", "0022-a"}));
    EXPECT_EQ(added.size(), 8u);
}

// Calls emitted on another thread wait, queued, for this thread, which does not deliver
// them during the test: what a device got accepted stays in the backlog.
TEST_F(SatelliteTest, OneDeviceCannotTakeTheWholeBacklog) {
    for (const char* mac : {"00:0f", "00:01", "00:02"}) {
        ASSERT_EQ(setLogSource(request(str(mac), str("n"), date(kDeviceTime), strings({"l"}))), 0);
    }
    auto busyText = [&](const char* mac, const std::string& content) -> std::string {
        try {
            satellite.KibServiceAppendLog("dev1", request(str(mac), str("l"), str(content)).get(),
                                          nullptr);
        } catch (const KibException& e) {
            return std::to_string(e.code()) + " " + e.message();
        }
        return "";
    };
    const std::string busy =
        "2 AppendLog: busy: this device has too much waiting to be written, try again";
    std::size_t accepted = 0;
    std::string refused;
    std::string other;
    std::chrono::steady_clock::duration otherTook{};
    std::string large;
    std::thread bus([&] {
        for (std::size_t i = 0; i <= NimbRemoteLoggerSatellite::kMaxQueuedCallsPerDevice; ++i) {
            refused = busyText("00:0f", "line\n");
            if (!refused.empty()) break;
            ++accepted;
        }
        const auto start = std::chrono::steady_clock::now();
        other = busyText("00:01", "line\n");
        otherTook = std::chrono::steady_clock::now() - start;
        // The byte share: 2.5 MiB of text waiting, then 2.5 MiB more pass the 4 MiB share.
        const std::string half(2560 * 1024, 'x');
        large = busyText("00:02", half);
        large += "|" + busyText("00:02", half);
    });
    bus.join();
    EXPECT_EQ(accepted, NimbRemoteLoggerSatellite::kMaxQueuedCallsPerDevice);
    EXPECT_EQ(refused, busy);
    // Answered at once: the other device neither waits for room nor is refused.
    EXPECT_EQ(other, "");
    EXPECT_LT(otherTook, std::chrono::milliseconds(NimbRemoteLoggerSatellite::kBacklogWaitMs / 2));
    EXPECT_EQ(large, "|" + busy);
}

}  // namespace

// The handlers only queue: nothing is emitted until the main thread delivers, and then
// every call of every request comes out in arrival order, each with its reply waiting.
TEST_F(SatelliteTest, QueuedCallsAreEmittedInArrivalOrderOnDelivery) {
    std::vector<std::string> order;
    QObject::connect(&satellite, &NimbRemoteLoggerSatellite::addLog,
                     [&](QString, QString, QString, QString, QDateTime, QString log) {
                         order.push_back("add " + log.toStdString());
                     });
    QObject::connect(
        &satellite, &NimbRemoteLoggerSatellite::appendLog,
        [&](QString, QString log, QString content) {
            order.push_back("append " + log.toStdString() + " " + content.toStdString());
        });
    EXPECT_EQ(
        satellite.KibServiceSetLogSource(
            "dev1", request(str("00:11"), str("K"), date(kDeviceTime), strings({"a", "b"})).get(),
            nullptr),
        0);
    EXPECT_EQ(satellite.KibServiceAppendLog("dev1", request(str("00:11"), str("b"), str("1")).get(),
                                            nullptr),
              0);
    EXPECT_EQ(satellite.KibServiceAppendLog("dev1", request(str("00:11"), str("a"), str("2")).get(),
                                            nullptr),
              0);
    // A log that gives up its slot is closed in the same order: before the announcement
    // that takes it back.
    QObject::connect(&satellite, &NimbRemoteLoggerSatellite::closeLog,
                     [&](QString id) { order.push_back("close " + id.toStdString()); });
    satellite.setMaxLogSources(2, 2);
    const KibVariantHolder other =
        request(str("00:22"), str("K"), date(kDeviceTime), strings({"c"}));
    const KibVariantHolder again =
        request(str("00:11"), str("K"), date(kDeviceTime), strings({"b"}));
    EXPECT_EQ(satellite.KibServiceSetLogSource("dev2", other.get(), nullptr), 0);
    satellite.setMaxLogSources(3, 2);
    EXPECT_EQ(satellite.KibServiceSetLogSource("dev1", again.get(), nullptr), 0);
    EXPECT_TRUE(order.empty());
    satellite.deliverQueuedCalls();
    EXPECT_EQ(order, (std::vector<std::string>{"add a", "add b", "append b 1", "append a 2",
                                               "close 0011-b", "add c", "add b"}));
    // One reply per call, none extra; a second delivery has nothing left to emit.
    for (int i = 0; i < 6; ++i) EXPECT_NE(satellite.takeReply(), nullptr) << i;
    EXPECT_EQ(satellite.takeReply(), nullptr);
    satellite.deliverQueuedCalls();
    EXPECT_EQ(order.size(), 7u);
}

namespace {

// connect() against a real bus, with the collector's own log in a private folder.
class SatelliteConnectTest : public nimbtest::ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        setSuiteSetting("LogsDir", dir_ / "logs");
        setSuiteSetting("LogLevel", 3);
        log_ = boost::make_shared<CBBLog>("Collector.log", false, 524288);
        CBBLog::setLogger(log_);
    }
    void TearDown() override { CBBLog::setLogger(boost::shared_ptr<CBBLog>()); }

    static void setConfig(const char* name, const std::string& value) {
        CRegistry::getInstance()->WriteSettingImpl(kConfigKey, name, value);
    }
    // Every line written so far (the logger is destroyed to drain its queue).
    std::string loggedText() {
        CBBLog::setLogger(boost::shared_ptr<CBBLog>());
        log_.reset();
        return nimbtest::readFile(dir_ / "logs/Collector.log");
    }

    static constexpr const char* kConfigKey = "Software\\Pellix\\Nimb\\Config";
    boost::shared_ptr<CBBLog> log_;
};

// The bus host and the source bound come from the settings; the start is logged as
// "Connecting to <host>" (INFO) and "connected" (ERROR, so that every start shows).
TEST_F(SatelliteConnectTest, ReadsHostAndSourceBoundFromTheSettingsAndLogsTheStart) {
    NatsServer nats;
    setConfig("kibDirectory.host", nats.host());
    CRegistry::getInstance()->WriteSettingImpl(kConfigKey, "MaxLogSources", 2);
    NimbRemoteLoggerSatellite satellite(nullptr);
    ASSERT_EQ(satellite.connect(), 0);
    const KibVariantHolder three =
        request(str("00:11"), str("n"), date(kDeviceTime), strings({"a", "b", "c"}));
    try {
        satellite.KibServiceSetLogSource("dev1", three.get(), nullptr);
        ADD_FAILURE() << "three sources accepted";
    } catch (const KibInvalidParameterException& e) {
        EXPECT_EQ(std::string(e.message()), "SetLogSource: too many log sources: at most 2");
    }
    satellite.Disconnect();
    const std::string text = loggedText();
    EXPECT_NE(text.find("[INFO ] - Connecting to " + nats.host() + "\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("[ERROR] - connected\n"), std::string::npos) << text;
}

TEST_F(SatelliteConnectTest, WithoutAHostSettingConnectsToTheLocalMachine) {
    NimbRemoteLoggerSatellite satellite(nullptr);
    satellite.connect();  // whether a server listens on 127.0.0.1:4222 does not matter here
    satellite.Disconnect();
    const std::string text = loggedText();
    EXPECT_NE(text.find("[INFO ] - Connecting to 127.0.0.1\n"), std::string::npos) << text;
}

}  // namespace
