// SPDX-License-Identifier: MIT
// kib-call run as a separate process against a real server and an echo satellite.
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CRegistry.h"
#include "KibSatellite.h"
#include "NatsServer.h"
#include "NimbTestSupport.h"

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

class KibCallTest : public nimbtest::ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        ASSERT_EQ(satellite_.Connect(nats_.host().c_str(), "Tester"), KIB_OK);
    }

    nimbtest::ChildResult run(std::vector<std::string> args, bool withHost = true) {
        if (withHost) args.insert(args.begin(), {"--host", nats_.host()});
        args.insert(args.begin(), KIB_CALL);
        return nimbtest::runProgram(args, dir_);
    }

    NatsServer nats_;
    EchoSatellite satellite_;
};

}  // namespace

TEST_F(KibCallTest, PrintsTheReplyOfAServiceFromTheSettingsHostOrTheGivenOne) {
    const auto r =
        run({"Tester", "Echo", R"(["a",{"i4[]":[1,2]},{"date":"2026-11-22T10:00:00Z"}])"});
    EXPECT_EQ(r.exitCode(), 0) << r.errors;
    EXPECT_EQ(r.output,
              R"({"status":0,"value":["a",{"i4[]":[1,2]},{"date":"2026-11-22T10:00:00Z"}]})"
              "\n");
    EXPECT_EQ(run({"Tester", "Echo"}).output, "{\"status\":0,\"value\":{\"empty\":null}}\n");

    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl("Software\\Pellix\\Nimb\\Config",
                                                           "kibDirectory.host", nats_.host()));
    const auto fromSetting = run({"Tester", "Echo", "1"}, false);
    EXPECT_EQ(fromSetting.exitCode(), 0) << fromSetting.errors;
    EXPECT_EQ(fromSetting.output, "{\"status\":0,\"value\":1}\n");
}

TEST_F(KibCallTest, FailuresExitNonZeroWithTheErrorText) {
    const auto status = run({"Tester", "Three", "1"});
    EXPECT_EQ(status.exitCode(), 1);
    EXPECT_EQ(status.output, "{\"status\":3,\"value\":{\"empty\":null}}\n");

    const struct {
        std::vector<std::string> args;
        int exitCode;
        const char* error;
    } failures[] = {
        {{"Tester", "Fail", "1"}, 2, "kib-call: no disk\n"},
        {{"Tester", "Nothing"}, 3, "no responders"},
        {{"Tester", "Echo", R"({"i4":1.5})"}, 64, "not a valid i4 value"},
    };
    for (const auto& f : failures) {
        const auto r = run(f.args);
        EXPECT_EQ(r.exitCode(), f.exitCode) << f.error;
        EXPECT_NE(r.errors.find(f.error), std::string::npos) << r.errors;
    }
}
