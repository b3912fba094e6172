// SPDX-License-Identifier: MIT
// The helpers between the bus library and the NATS client: every client status a
// request or connect can end with maps to its bus status, directory hosts become server
// URLs, and only inbox subjects are taken as reply subjects.
#include "KibNats.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "KibStatus.h"

TEST(KibNatsTest, EveryClientStatusMapsToItsBusStatus) {
    const std::vector<std::pair<natsStatus, int>> cases = {
        {NATS_OK, KIB_OK},
        {NATS_TIMEOUT, KIB_E_TIMEOUT},
        {NATS_NO_RESPONDERS, KIB_E_NO_RESPONDERS},
        {NATS_MAX_PAYLOAD, KIB_E_TOO_LARGE},
        {NATS_NO_SERVER, KIB_E_CONNECT_FAILED},
        {NATS_NOT_PERMITTED, KIB_E_NOT_PERMITTED},
        {NATS_CONNECTION_AUTH_FAILED, KIB_E_NOT_PERMITTED},
        {NATS_CONNECTION_CLOSED, KIB_E_NOT_CONNECTED},
        {NATS_CONNECTION_DISCONNECTED, KIB_E_NOT_CONNECTED},
        {NATS_INVALID_ARG, KIB_E_INVALID_ARGUMENT},
        {NATS_INVALID_SUBJECT, KIB_E_INVALID_ARGUMENT},
        {NATS_IO_ERROR, KIB_E_TRANSPORT},
        {NATS_ERR, KIB_E_TRANSPORT},
        {NATS_SLOW_CONSUMER, KIB_E_TRANSPORT},
    };
    for (const auto& [client, bus] : cases) {
        EXPECT_EQ(KibNats::toStatus(client), bus) << natsStatus_GetText(client);
    }
}

TEST(KibNatsTest, DirectoryHostsBecomeServerUrls) {
    EXPECT_EQ(KibNats::url("bus.local", 0), "nats://bus.local:4222");
    EXPECT_EQ(KibNats::url("bus.local:5000", 0), "nats://bus.local:5000");
    EXPECT_EQ(KibNats::url("bus.local:5000", 6000), "nats://bus.local:6000");
    EXPECT_EQ(KibNats::url("[::1]:5000", 0), "nats://[::1]:5000");
    EXPECT_EQ(KibNats::url("::1", 0), "nats://[::1]:4222");
    EXPECT_EQ(KibNats::url("[::1", 0), "");
    EXPECT_EQ(KibNats::url("", 0), "");
    EXPECT_EQ(KibNats::url(nullptr, 0), "");
}

TEST(KibNatsTest, OnlyInboxSubjectsTakeReplies) {
    for (const char* subject :
         {"_INBOX.abc", "_INBOX.abc.1", "_INBOX.x-y_z.77", "_INBOX_device-garage.k1.2"}) {
        EXPECT_TRUE(KibNats::isInboxSubject(subject)) << subject;
    }
    for (const char* subject :
         {"kib.discover", "kib.svc.RemoteLogger.AppendLog", "_INBOX.", "_INBOX", "_INBOX.a..b",
          "_INBOX.a.", "_INBOX.*", "_INBOX.>", "_INBOX.a b", "x_INBOX.a", "", "_INBOX_.a",
          "_INBOX_dev", "_INBOX_dev.", "_INBOX_d*v.a", "_INBOXa.b"}) {
        EXPECT_FALSE(KibNats::isInboxSubject(subject)) << subject;
    }
    EXPECT_FALSE(KibNats::isInboxSubject(nullptr));
}
