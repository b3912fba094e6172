// SPDX-License-Identifier: MIT
// Frames made by a JavaScript MessagePack encoder (tests/kib/interop/frames.js) decode
// to the values a device meant. Skipped where node or the encoder package is missing.
#include <map>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "KibCodec.h"
#include "NimbTestSupport.h"
#include "TestValues.h"

using namespace testvalues;

namespace {

std::string fromHex(const std::string& hex) {
    std::string out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

// The frames the script printed, by name; empty when it could not run.
std::map<std::string, std::string> javaScriptFrames() {
    nimbtest::TempDir scratch;
    const nimbtest::ScopedEnv nodePath("NODE_PATH", std::string(NIMB_NODE_MODULES));
    const nimbtest::ChildResult run =
        nimbtest::runProgram({NIMB_NODE, NIMB_INTEROP_SCRIPT}, scratch);
    EXPECT_EQ(run.exitCode(), 0) << run.errors;
    std::map<std::string, std::string> frames;
    std::istringstream lines(run.output);
    for (std::string name, hex; lines >> name >> hex;) frames[name] = fromHex(hex);
    return frames;
}

}  // namespace

TEST(KibInteropTest, JavaScriptFramesDecodeToTheValuesMeant) {
    if (std::string(NIMB_NODE).empty()) GTEST_SKIP() << "node or @msgpack/msgpack missing";
    const std::map<std::string, std::string> frames = javaScriptFrames();
    ASSERT_EQ(frames.size(), 8u);

    const std::map<std::string, KibVariantHolder> expected = [] {
        std::map<std::string, KibVariantHolder> m;
        m.emplace("date-whole", r8(VT_DATE, 46348.0));
        m.emplace("date-fraction", r8(VT_DATE, 46348.5));
        m.emplace("r8-negative-whole", r8(VT_R8, -3.0));
        m.emplace("r8-array-mixed", typed<double>(VT_R8, {1.0, 2.5, -7.0}));
        m.emplace("set-log-source",
                  variants(str("00:11:22:33:44:55"), str("puck-7"), str("Living room"),
                           r8(VT_DATE, 46348.0), strings({"system.log"})));
        m.emplace("i4", i4(7));
        return m;
    }();
    for (const auto& [name, value] : expected) {
        KibRequestFrame request;
        std::string error;
        const std::string& frame = frames.at(name);
        ASSERT_EQ(KibCodec::decodeRequest(frame.data(), frame.size(), request, error), KIB_OK)
            << name << ": " << error;
        EXPECT_EQ(request.caller, "Puck");
        EXPECT_TRUE(sameValue(request.value.get(), value.get())) << name;
    }
    // The encoder really wrote the whole date as an integer (uint16 0xCD), not a float.
    EXPECT_NE(frames.at("date-whole").find("\x92\x07\xCD"), std::string::npos);

    KibRequestFrame request;
    std::string error;
    const std::string& r4 = frames.at("r4-whole");
    ASSERT_EQ(KibCodec::decodeRequest(r4.data(), r4.size(), request, error), KIB_OK) << error;
    EXPECT_EQ(request.value.get().fltVal, 16777216.0f);
    const std::string& inexact = frames.at("r4-inexact");
    EXPECT_EQ(KibCodec::decodeRequest(inexact.data(), inexact.size(), request, error),
              KIB_E_BAD_FRAME);
}
