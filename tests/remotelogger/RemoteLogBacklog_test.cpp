// SPDX-License-Identifier: MIT
// The bound on calls handed to the main thread and not yet delivered.

#include "RemoteLogBacklog.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

namespace {
constexpr std::chrono::milliseconds kShort(20);
}

TEST(RemoteLogBacklog, RefusesBeyondEitherBoundUntilRoomIsReleased) {
    RemoteLogBacklog backlog(2, 100);
    EXPECT_TRUE(backlog.acquire(1, 60, kShort));
    EXPECT_FALSE(backlog.acquire(1, 60, kShort));  // bytes
    EXPECT_TRUE(backlog.acquire(1, 40, kShort));
    EXPECT_FALSE(backlog.acquire(1, 0, kShort));  // calls
    backlog.release(60);
    EXPECT_TRUE(backlog.acquire(1, 60, kShort));
}

TEST(RemoteLogBacklog, OversizedRequestFitsAnEmptyBacklogOnly) {
    RemoteLogBacklog backlog(2, 100);
    EXPECT_TRUE(backlog.acquire(5, 500, kShort));
    EXPECT_FALSE(backlog.acquire(1, 1, kShort));
}

TEST(RemoteLogBacklog, WaiterWakesOnReleaseAndStopRefusesEverything) {
    RemoteLogBacklog backlog(1, 100);
    ASSERT_TRUE(backlog.acquire(1, 0, kShort));
    std::thread releaser([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        backlog.release(0);
    });
    EXPECT_TRUE(backlog.acquire(1, 0, std::chrono::seconds(30)));
    releaser.join();
    std::thread stopper([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        backlog.stop();
    });
    EXPECT_FALSE(backlog.acquire(1, 0, std::chrono::seconds(30)));
    stopper.join();
    backlog.release(0);
    EXPECT_FALSE(backlog.acquire(1, 0, kShort));
}
