// SPDX-License-Identifier: MIT
// The bound on calls handed to the main thread and not yet delivered.

#include "RemoteLogBacklog.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

TEST(RemoteLogBacklog, BoundsCallsAndBytesWakesOnReleaseAndRefusesOnceStopped) {
    const std::chrono::milliseconds brief(20);
    RemoteLogBacklog backlog(2, 100);
    EXPECT_TRUE(backlog.acquire(3, 300, brief));  // too big, but the backlog was empty
    EXPECT_FALSE(backlog.acquire(1, 1, brief));
    for (int bytes : {300, 0, 0}) backlog.release(bytes);  // one release per delivered call
    EXPECT_TRUE(backlog.acquire(1, 60, brief));
    EXPECT_FALSE(backlog.acquire(1, 60, brief));  // bytes
    EXPECT_TRUE(backlog.acquire(1, 40, brief));
    EXPECT_FALSE(backlog.acquire(1, 0, brief));  // calls
    std::thread mainThread([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        backlog.release(60);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        backlog.stop();
    });
    EXPECT_TRUE(backlog.acquire(1, 0, std::chrono::seconds(30)));
    EXPECT_FALSE(backlog.acquire(1, 0, std::chrono::seconds(30)));  // woken by stop()
    mainThread.join();
    backlog.release(0);
    EXPECT_FALSE(backlog.acquire(1, 0, brief));
}

// While the satellite leaves the bus, full or not, every request is let through at once.
TEST(RemoteLogBacklog, StopBoundingLetsWaitersThroughUntilStopped) {
    RemoteLogBacklog backlog(1, 10);
    EXPECT_TRUE(backlog.acquire(1, 10, std::chrono::milliseconds(20)));
    std::thread mainThread([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        backlog.stopBounding();
    });
    EXPECT_TRUE(backlog.acquire(1, 10, std::chrono::seconds(30)));  // woken
    mainThread.join();
    EXPECT_TRUE(backlog.acquire(100, 1000, std::chrono::milliseconds(0)));
    backlog.stop();
    EXPECT_FALSE(backlog.acquire(1, 0, std::chrono::milliseconds(0)));
}
