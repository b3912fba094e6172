// SPDX-License-Identifier: MIT
// The page in headless Chromium against a real collector and nimb-web: the device
// list, a log with its header lines, lines pushed with nimb-logpush appearing live,
// search highlighting, hostile text shown as text (a 1 MiB line and bytes that are not
// UTF-8 among it) with the page still answering. Over the collector's index: live lines
// of each level carry it and the "Show" filter hides the lower ones, a header-shaped
// line a device sends stays text and changes neither its name nor its clock tie, and a
// search by severity groups its hits under the device's name and opens one at its line;
// a hit in a history generation opens there, and "Load later" and "Load earlier" walk the
// log's generations to its live end and its first line, every line once and in order.
// Screenshots of the main views (laptop and phone widths, light and dark) land in
// <build>/screenshots.
#include <cstdlib>
#include <filesystem>

#include <unistd.h>

#include "WebTestSupport.h"

namespace {

using namespace webtest;

const char* const kChromium = "/usr/bin/chromium";

TEST_F(WebFixture, PageShowsDevicesLiveLinesSearchAndInertText) {
    if (::access(kChromium, X_OK) != 0)
        GTEST_SKIP() << "Chromium is not installed (" << kChromium
                     << "); scripts/setup.sh installs it";
    if (::access(NODE_PROGRAM, X_OK) != 0)
        GTEST_SKIP() << "Node.js is not installed; scripts/setup.sh installs it";
    if (!std::filesystem::exists(std::string(NODE_MODULES) + "/puppeteer-core")) {
        GTEST_SKIP() << "puppeteer-core is missing under " << NODE_MODULES
                     << "; scripts/setup.sh installs it";
    }
    startCollector();
    startWeb();
    std::map<std::string, std::string> env = environment();
    env["WEB_URL"] = "http://127.0.0.1:" + std::to_string(port_) + "/";
    env["LOGPUSH"] = NIMB_LOGPUSH;
    env["BUS"] = nats_->host();
    env["SCREENSHOTS"] = SCREENSHOTS;
    env["LOGS"] = logs().string();
    env["CHROMIUM"] = kChromium;
    env["NODE_MODULES"] = NODE_MODULES;
    const char* rounds = std::getenv("LIVE_ROUNDS");
    env["LIVE_ROUNDS"] = rounds != nullptr ? rounds : "5";
    const nimbtest::ChildResult run =
        nimbtest::runChild({NODE_PROGRAM, BROWSER_SCRIPT}, env, root() / "browser.txt", true,
                           std::chrono::seconds(180));
    EXPECT_EQ(run.exitCode(), 0) << run.output;
    std::printf("%s", run.output.c_str());
}

}  // namespace
