// SPDX-License-Identifier: MIT
#include "KibAvailability.h"

#include <gtest/gtest.h>

using Events = std::vector<KibAvailabilityEvent>;

TEST(KibAvailabilityTest, ReportsOnlyTransitionsAcrossInstances) {
    KibAvailability availability;
    EXPECT_EQ(availability.apply({"Logger", 1, false, {"A", "B"}}),
              (Events{{"Logger", "A", true}, {"Logger", "B", true}}));
    // A second instance offering the same services changes nothing.
    EXPECT_EQ(availability.apply({"Logger", 2, false, {"A"}}), Events{});
    // Repeated announcements (discovery answers) change nothing either.
    EXPECT_EQ(availability.apply({"Logger", 1, false, {"A", "B"}}), Events{});
    // Instance 1 drops B: nobody else offers it.
    EXPECT_EQ(availability.apply({"Logger", 1, false, {"A"}}), (Events{{"Logger", "B", false}}));
    // Instance 1 leaves: A is still offered by instance 2.
    EXPECT_EQ(availability.apply({"Logger", 1, true, {"A"}}), Events{});
    EXPECT_EQ(availability.apply({"Logger", 2, true, {}}), (Events{{"Logger", "A", false}}));
}

TEST(KibAvailabilityTest, ForgottenSatelliteIsReportedAfresh) {
    KibAvailability availability;
    availability.apply({"Logger", 1, false, {"A"}});
    availability.forget("Logger");
    EXPECT_EQ(availability.apply({"Logger", 1, false, {"A"}}), (Events{{"Logger", "A", true}}));
}
