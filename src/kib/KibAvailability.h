// SPDX-License-Identifier: MIT
// KibAvailability: what a listening satellite knows about the services of the
// satellites it watches, built from their announcements. Several instances of one
// satellite may offer the same service; a service is available while at least one
// instance offers it, and only these transitions become events. Not thread-safe: its
// owner serialises the calls.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "KibCodec.h"

struct KibAvailabilityEvent {
    std::string satellite;
    std::string service;
    bool available = false;

    bool operator==(const KibAvailabilityEvent&) const = default;
};

class KibAvailability {
public:
    // Applies one announcement (the instance's complete current service list, or its
    // leaving) and returns the transitions it causes, in service-name order.
    std::vector<KibAvailabilityEvent> apply(const KibAnnounceFrame& announce);
    // Forgets everything known about `satellite` without reporting it.
    void forget(const std::string& satellite);
    // Forgets everything.
    void clear() { offers_.clear(); }

private:
    bool offeredByOthers(const std::string& satellite, std::uint32_t instance,
                         const std::string& service) const;

    // satellite -> instance -> services it offers
    std::map<std::string, std::map<std::uint32_t, std::set<std::string>>> offers_;
};
