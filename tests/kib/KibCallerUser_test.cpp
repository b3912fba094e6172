// SPDX-License-Identifier: MIT
// Requests that name their user: a client connected with a user sends on the per-user
// subject, the serving handler reads the user from it (CallerUser), a client without one
// keeps the plain subject, and a request on a user's subject is answered only into that
// user's own inbox; the others are dropped and reported (OnRequestRefused).

#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nats/nats.h>

#include "KibCodec.h"
#include "KibSatellite.h"
#include "KibSubjects.h"
#include "NatsServer.h"
#include "TestValues.h"

namespace {

using namespace testvalues;

class WhoServer : public KibSatellite {
public:
    ~WhoServer() override { Disconnect(); }
    int CreateServices() override {
        return AddService("Who", "",
                          new KibSatelliteDelegateMember<WhoServer>(this, &WhoServer::who));
    }
    void OnRequestRefused(const char* service, const char* user, const char* reason) override {
        const std::lock_guard<std::mutex> lock(mutex);
        refused.push_back(std::string(service) + "|" + user + "|" + reason);
    }
    int who(const char*, const tagVARIANT&, tagVARIANT* out) {
        const std::string user = CallerUser();
        out->vt = VT_BSTR;
        out->bstrVal = SysAllocStringLen(user.data(), static_cast<unsigned int>(user.size()));
        return 0;
    }

    std::mutex mutex;
    std::vector<std::string> refused;
};

std::string whoAmI(KibSatellite& client) {
    KibReply reply;
    client.Call("Server", "Who", str("").get(), &reply, 3000);
    const tagVARIANT& value = reply.value.get();
    return value.vt == VT_BSTR && value.bstrVal != nullptr ? std::string(value.bstrVal) : "?";
}

TEST(KibCallerUserTest, RequestsNameTheirUserAndAreAnsweredOnlyIntoItsInbox) {
    NatsServer nats;
    WhoServer server;
    ASSERT_EQ(server.Connect(nats.host().c_str(), "Server"), KIB_OK);
    EXPECT_EQ(server.connectedUser(), "");
    KibSatellite alice;
    alice.ConnectUser("alice", "secret");  // a server without accounts takes any
    ASSERT_EQ(alice.Connect(nats.host().c_str(), "bob"), KIB_OK);  // the name proves nothing
    EXPECT_EQ(alice.connectedUser(), "alice");
    KibSatellite anonymous;
    ASSERT_EQ(anonymous.Connect(nats.host().c_str(), "alice"), KIB_OK);
    EXPECT_EQ(whoAmI(alice), "alice");
    EXPECT_EQ(whoAmI(anonymous), "");
    EXPECT_EQ(server.CallerUser(), "");  // outside a handler

    natsConnection* nc = nullptr;
    ASSERT_EQ(natsConnection_ConnectTo(&nc, ("nats://" + nats.host()).c_str()), NATS_OK);
    natsSubscription* inbox = nullptr;
    ASSERT_EQ(natsConnection_SubscribeSync(&inbox, nc, ">"), NATS_OK);  // every reply
    ASSERT_EQ(natsConnection_Flush(nc), NATS_OK);
    std::string frame;
    std::string error;
    ASSERT_EQ(KibCodec::encodeRequest("raw", str("").get(), frame, error), KIB_OK);
    const std::string subject = KibSubjects::service("Server", "Who", "alice");
    for (const char* replyTo :
         {"_INBOX_bob.1", "_INBOX.2", "_INBOX_alicex.3", "kib.discover", "_INBOX_alice.ok"}) {
        ASSERT_EQ(natsConnection_PublishRequest(nc, subject.c_str(), replyTo, frame.data(),
                                                static_cast<int>(frame.size())),
                  NATS_OK);
    }
    // The requests themselves pass by too; of the rest, the one reply to alice's inbox.
    std::vector<std::string> replies;
    natsMsg* msg = nullptr;
    for (int i = 0; i < 50 && natsSubscription_NextMsg(&msg, inbox, 500) == NATS_OK; ++i) {
        const std::string seen = natsMsg_GetSubject(msg);
        if (seen.rfind("kib.", 0) != 0) replies.push_back(seen);
        natsMsg_Destroy(msg);
    }
    EXPECT_EQ(replies, std::vector<std::string>{"_INBOX_alice.ok"});
    natsSubscription_Destroy(inbox);
    natsConnection_Destroy(nc);

    const std::lock_guard<std::mutex> lock(server.mutex);
    EXPECT_EQ(server.refused, (std::vector<std::string>{
                                  "Who|alice|is not the caller's own inbox",
                                  "Who|alice|is not the caller's own inbox",
                                  "Who|alice|is not the caller's own inbox",
                                  "Who|alice|is not an inbox",
                              }));
}

}  // namespace
