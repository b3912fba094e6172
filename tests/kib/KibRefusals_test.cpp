// SPDX-License-Identifier: MIT
// The server's refusals as the client's error handler passes them on: which texts count
// as the refusal of a subject or of the credentials, and which are left alone.

#include "KibRefusals.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(KibRefusalsTest, PermissionViolationsAreCountedBySubject) {
    KibRefusals refusals;
    refusals.record(NATS_NOT_PERMITTED,
                    "Permissions Violation for Publish to \"kib.svc.RemoteLogger.GetStats\"");
    refusals.record(NATS_NOT_PERMITTED,
                    "Permissions Violation for Publish to \"kib.svc.RemoteLogger.GetStats\"");
    refusals.record(NATS_NOT_PERMITTED,
                    "Permissions Violation for Subscription to \"_INBOX_dev.abc\" using queue "
                    "\"q\"");
    EXPECT_EQ(refusals.count("kib.svc.RemoteLogger.GetStats"), 2u);
    EXPECT_EQ(refusals.count("_INBOX_dev.abc"), 1u);
    EXPECT_EQ(refusals.count("kib.svc.RemoteLogger.AppendLog"), 0u);
    EXPECT_EQ(refusals.credentials(), "");

    // Other errors, and texts without a subject, change nothing.
    for (const char* text : {"Permissions Violation for Publish to", "Slow Consumer",
                             "Permissions Violation for Publish to \"unterminated"})
        refusals.record(NATS_NOT_PERMITTED, text);
    refusals.record(NATS_SLOW_CONSUMER, "Permissions Violation for Publish to \"x\"");
    EXPECT_EQ(refusals.count("x"), 0u);
    EXPECT_EQ(refusals.count("unterminated"), 0u);
    EXPECT_EQ(refusals.count("kib.svc.RemoteLogger.GetStats"), 2u);
}

TEST(KibRefusalsTest, CredentialsRefusalHoldsUntilAccepted) {
    KibRefusals refusals;
    refusals.record(NATS_CONNECTION_AUTH_FAILED, "Authorization Violation");
    EXPECT_EQ(refusals.credentials(), "Authorization Violation");
    refusals.clearCredentials();
    EXPECT_EQ(refusals.credentials(), "");
    refusals.record(NATS_CONNECTION_AUTH_FAILED, "");
    EXPECT_EQ(refusals.credentials(), "Authorization Violation");
}

// A peer cannot grow the record without bound: past the limit it starts anew.
TEST(KibRefusalsTest, RecordIsBounded) {
    KibRefusals refusals;
    for (int i = 0; i < 1000; ++i) {
        refusals.record(NATS_NOT_PERMITTED,
                        "Permissions Violation for Publish to \"s." + std::to_string(i) + "\"");
    }
    EXPECT_EQ(refusals.count("s.999"), 1u);
    EXPECT_EQ(refusals.count("s.0"), 0u);
}

}  // namespace
