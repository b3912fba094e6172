// SPDX-License-Identifier: MIT
// The bound on calls handed to the main thread and not yet delivered.

#include "RemoteLogBacklog.h"

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

// Calls and bytes are each bounded; a request larger than the bound passes only into
// an empty backlog.
TEST(RemoteLogBacklog, BoundsCallsAndBytes) {
    const std::chrono::milliseconds brief(20);
    RemoteLogBacklog backlog(2, 100);
    EXPECT_TRUE(backlog.acquire(3, 300, brief));  // too big, but the backlog was empty
    EXPECT_FALSE(backlog.acquire(1, 1, brief));
    for (int bytes : {300, 0, 0}) backlog.release(bytes);  // one release per delivered call
    EXPECT_TRUE(backlog.acquire(1, 60, brief));
    EXPECT_FALSE(backlog.acquire(1, 60, brief));  // bytes
    EXPECT_TRUE(backlog.acquire(1, 40, brief));
    EXPECT_FALSE(backlog.acquire(1, 0, brief));  // calls
}

// A handler waiting for room goes on as soon as the main thread delivers a call.
TEST(RemoteLogBacklog, AWaitingHandlerIsWokenByARelease) {
    RemoteLogBacklog backlog(1, 100);
    EXPECT_TRUE(backlog.acquire(1, 60, std::chrono::milliseconds(0)));
    const auto started = std::chrono::steady_clock::now();
    std::thread mainThread([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        backlog.release(60);
    });
    EXPECT_TRUE(backlog.acquire(1, 60, std::chrono::seconds(30)));
    mainThread.join();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(10));
}

// Once stopped, a waiting handler is woken with a refusal, and later ones are refused
// even when there is room.
TEST(RemoteLogBacklog, StopWakesWaitersAndRefusesEveryone) {
    RemoteLogBacklog backlog(1, 100);
    EXPECT_TRUE(backlog.acquire(1, 0, std::chrono::milliseconds(0)));
    std::thread mainThread([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        backlog.stop();
    });
    EXPECT_FALSE(backlog.acquire(1, 0, std::chrono::seconds(30)));  // woken by stop()
    mainThread.join();
    backlog.release(0);
    EXPECT_FALSE(backlog.acquire(1, 0, std::chrono::milliseconds(20)));
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
