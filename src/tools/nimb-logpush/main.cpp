// SPDX-License-Identifier: MIT
// nimb-logpush: sends log files, or standard input, to the suite's log collector over the
// bus: it announces the device and its logs, then delivers the text in pieces cut at line
// ends; with --follow it keeps sending what is appended to the files. Usage, exit status
// and delivery guarantee: docs/logpush.md.
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <poll.h>

#include <QCoreApplication>

#include "KibException.h"
#include "LogChunker.h"
#include "LogInput.h"
#include "LogPushClient.h"
#include "LogPushOptions.h"
#include "NimbVersion.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitRefused = 1;       // the collector refused a request, or an input failed
constexpr int kExitUsage = 2;         // the command line cannot be used
constexpr int kExitUnreachable = 3;   // the collector could not be reached in time
constexpr int kExitNotPermitted = 4;  // the bus refused this device's credentials or request

// How long the loop waits for new text when every input is idle.
constexpr int kPollIntervalMs = 250;

using Inputs = std::vector<std::unique_ptr<LogInput>>;

// Set by the stop signal handler (following only); read by the main loop.
volatile std::sig_atomic_t g_stopRequested = 0;

void onStopSignal(int) {
    g_stopRequested = 1;
    LogPushClient::stopRetrying();
}

// Following ends on SIGINT or SIGTERM once what was read has been sent; a second signal
// ends the program at once (the handler is reset by the first).
void installStopHandlers() {
    struct sigaction action {};
    action.sa_handler = &onStopSignal;
    action.sa_flags = SA_RESETHAND;  // no SA_RESTART: the wait in poll() ends at once
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int fail(int status, const std::string& message) {
    std::fprintf(stderr, "nimb-logpush: %s\n", message.c_str());
    return status;
}

int exitStatus(LogPushClient::Result result, const std::string& error) {
    switch (result) {
        case LogPushClient::Result::Sent:
            return kExitOk;
        case LogPushClient::Result::Refused:
            return fail(kExitRefused, error);
        case LogPushClient::Result::Invalid:
            return fail(kExitUsage, error);
        case LogPushClient::Result::NotPermitted:
            return fail(kExitNotPermitted, error);
        case LogPushClient::Result::Unreachable:
            break;
    }
    return fail(kExitUnreachable, error);
}

// Sends the pieces of `input`'s pending text that are ready; with `flush`, all of it.
// Requests go one at a time: what a file gains while one is answered waits in the file
// and comes with the next read, so the next request carries every whole line gathered
// meanwhile, up to the piece size. After a read that filled its buffer the input holds
// more: only full pieces are cut then, and the lines left over wait for the next read
// rather than go alone in a small request of their own.
int sendReady(LogPushClient& client, LogInput& input, bool flush) {
    std::string& pending = input.pending();
    const std::size_t limit = LogChunker::kDefaultLimit;
    const bool wholePiecesOnly = !flush && input.moreWaiting();
    while (!wholePiecesOnly || pending.size() >= limit) {
        const std::size_t length = LogChunker::nextChunkLength(pending, limit, flush);
        if (length == 0) break;
        const auto result =
            client.append(input.logName(), std::string_view(pending).substr(0, length));
        if (result != LogPushClient::Result::Sent) return exitStatus(result, client.error());
        pending.erase(0, length);
    }
    return kExitOk;
}

// Reads once from `input` and sends what is ready. `state` receives the read's outcome.
int pump(LogPushClient& client, LogInput& input, LogInput::Read& state) {
    std::string error;
    state = input.read(error);
    if (state == LogInput::Read::Failed) return fail(kExitRefused, error);
    const bool ended = state == LogInput::Read::End;
    return sendReady(client, input, input.takeFlush(ended) || g_stopRequested != 0);
}

// On a stop signal: everything read goes out, unfinished last lines included.
int flushAll(LogPushClient& client, Inputs& inputs) {
    for (const auto& input : inputs) {
        const int status = sendReady(client, *input, true);
        if (status != kExitOk) return status;
    }
    return kExitOk;
}

// Waits up to the poll interval for one of the idle inputs' descriptors, or a signal.
void waitForText(const std::vector<int>& descriptors) {
    std::vector<pollfd> entries;
    for (const int fd : descriptors) entries.push_back({fd, POLLIN, 0});
    ::poll(entries.data(), entries.size(), kPollIntervalMs);
}

// Without following, the inputs are sent one after the other, each to its end; following,
// they are served in turn for as long as the program runs. Returns the exit status.
int pumpAll(LogPushClient& client, Inputs& inputs, bool follow) {
    std::vector<bool> ended(inputs.size(), false);
    while (true) {
        bool progressed = false;
        bool anyOpen = false;
        std::vector<int> waits;
        for (std::size_t i = 0; i < inputs.size(); ++i) {
            if (ended[i]) continue;
            anyOpen = true;
            LogInput::Read state = LogInput::Read::Idle;
            const int status = pump(client, *inputs[i], state);
            if (status != kExitOk) return status;
            ended[i] = state == LogInput::Read::End;
            progressed = progressed || state != LogInput::Read::Idle;
            if (state == LogInput::Read::Idle && inputs[i]->waitDescriptor() >= 0) {
                waits.push_back(inputs[i]->waitDescriptor());
            }
            if (!follow) break;
        }
        if (g_stopRequested != 0) return flushAll(client, inputs);
        if (!anyOpen) return kExitOk;
        if (!progressed) waitForText(waits);
    }
}

int run(const std::vector<std::string>& arguments) {
    LogPushOptions options;
    std::string error;
    if (!options.parse(arguments, error)) return fail(kExitUsage, error);
    if (options.helpShown) return kExitOk;

    Inputs inputs;
    for (const LogPushSource& source : options.inputs) {
        inputs.push_back(std::make_unique<LogInput>(source.path, source.logName, options.follow));
        if (!inputs.back()->open(error)) return fail(kExitUsage, error);
    }
    if (options.follow) installStopHandlers();
    const std::string exposed = options.client.bus.credentialsWarning();
    if (!exposed.empty()) std::fprintf(stderr, "nimb-logpush: warning: %s\n", exposed.c_str());

    LogPushClient client(options.client);
    const LogPushClient::Result announced = client.announce();
    if (announced != LogPushClient::Result::Sent) return exitStatus(announced, client.error());
    return pumpAll(client, inputs, options.follow);
}

}  // namespace

int main(int argc, char** argv) {
    if (nimbPrintVersionIfAsked(argc, argv, "nimb-logpush")) return 0;
    // The settings store needs an application object; nothing here runs its event loop.
    QCoreApplication app(argc, argv);
    std::vector<std::string> arguments(argv, argv + argc);
    arguments.front() = "nimb-logpush";  // the name the help text shows
    try {
        return run(arguments);
    } catch (const KibException& e) {
        return fail(kExitRefused, e.message());
    }
}
