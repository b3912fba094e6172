// SPDX-License-Identifier: MIT
// kib-call run as a separate process against a real server and an echo satellite.
#include <QProcess>
#include <QTemporaryDir>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "CRegistry.h"
#include "KibSatellite.h"
#include "NatsServer.h"
#include <sys/wait.h>

namespace {

int echo(const char*, const tagVARIANT& in, tagVARIANT* out) {
    VariantCopy(out, &in);
    return 0;
}
int three(const char*, const tagVARIANT&, tagVARIANT*) { return 3; }
int fail(const char*, const tagVARIANT&, tagVARIANT*) { throw std::runtime_error("no disk"); }

class EchoSatellite : public KibSatellite {
public:
    int CreateServices() override {
        AddService("Echo", "", &echo);
        AddService("Three", "", &three);
        return AddService("Fail", "", &fail);
    }
};

struct CallResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

class KibCallTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(config_.isValid());
        ASSERT_EQ(satellite_.Connect(nats_.host().c_str(), "Tester"), KIB_OK);
    }

    CallResult run(const QStringList& args, bool withHost = true) {
        QProcess process;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), config_.path());
        process.setProcessEnvironment(env);
        QStringList all;
        if (withHost) all << QStringLiteral("--host") << QString::fromStdString(nats_.host());
        process.start(QStringLiteral(KIB_CALL), all + args);
        CallResult result;
        if (!process.waitForFinished(20000)) {
            process.kill();
            process.waitForFinished(5000);
            return result;
        }
        result.exitCode = process.exitCode();
        result.out = process.readAllStandardOutput().trimmed().toStdString();
        result.err = process.readAllStandardError().trimmed().toStdString();
        return result;
    }

    QTemporaryDir config_;
    NatsServer nats_;
    EchoSatellite satellite_;
};

}  // namespace

TEST_F(KibCallTest, PrintsTheReplyOfAService) {
    const CallResult r =
        run({"Tester", "Echo", "[\"a\",{\"i4[]\":[1,2]},{\"date\":\"2026-11-22T10:00:00Z\"}]"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(
        r.out,
        "{\"status\":0,\"value\":[\"a\",{\"i4[]\":[1,2]},{\"date\":\"2026-11-22T10:00:00Z\"}]}");
    const CallResult empty = run({"Tester", "Echo"});
    EXPECT_EQ(empty.out, "{\"status\":0,\"value\":{\"empty\":null}}");
}

TEST_F(KibCallTest, FailuresExitNonZeroWithTheErrorText) {
    const CallResult status = run({"Tester", "Three", "1"});
    EXPECT_EQ(status.exitCode, 1);
    EXPECT_EQ(status.out, "{\"status\":3,\"value\":{\"empty\":null}}");

    const CallResult thrown = run({"Tester", "Fail", "1"});
    EXPECT_EQ(thrown.exitCode, 2);
    EXPECT_EQ(thrown.err, "kib-call: no disk");

    const CallResult missing = run({"Tester", "Nothing"});
    EXPECT_EQ(missing.exitCode, 3);
    EXPECT_NE(missing.err.find("no responders"), std::string::npos);

    const CallResult badJson = run({"Tester", "Echo", "{\"i4\":1.5}"});
    EXPECT_EQ(badJson.exitCode, 64);
    EXPECT_NE(badJson.err.find("not a valid i4 value"), std::string::npos);
}

TEST_F(KibCallTest, HostComesFromTheSettingWhenNotGiven) {
    const std::string saved = std::getenv("XDG_CONFIG_HOME") ? std::getenv("XDG_CONFIG_HOME") : "";
    setenv("XDG_CONFIG_HOME", config_.path().toUtf8().constData(), 1);
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Pellix\\Nimb\\Config",
                                                           "kibDirectory.host", nats_.host()));
    const CallResult r = run({"Tester", "Echo", "1"}, false);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "{\"status\":0,\"value\":1}");
    if (saved.empty()) {
        unsetenv("XDG_CONFIG_HOME");
    } else {
        setenv("XDG_CONFIG_HOME", saved.c_str(), 1);
    }
}
