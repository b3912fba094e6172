// SPDX-License-Identifier: MIT
#include "KibAvailability.h"

std::vector<KibAvailabilityEvent> KibAvailability::apply(const KibAnnounceFrame& announce) {
    auto& instances = offers_[announce.satellite];
    const std::set<std::string> before = instances[announce.instance];
    std::set<std::string> after;
    if (!announce.leaving) after.insert(announce.services.begin(), announce.services.end());

    std::vector<KibAvailabilityEvent> events;
    for (const std::string& service : before) {
        if (after.count(service) == 0 &&
            !offeredByOthers(announce.satellite, announce.instance, service)) {
            events.push_back({announce.satellite, service, false});
        }
    }
    for (const std::string& service : after) {
        if (before.count(service) == 0 &&
            !offeredByOthers(announce.satellite, announce.instance, service)) {
            events.push_back({announce.satellite, service, true});
        }
    }
    if (after.empty()) {
        instances.erase(announce.instance);
        if (instances.empty()) offers_.erase(announce.satellite);
    } else {
        instances[announce.instance] = std::move(after);
    }
    return events;
}

void KibAvailability::forget(const std::string& satellite) { offers_.erase(satellite); }

bool KibAvailability::offeredByOthers(const std::string& satellite, std::uint32_t instance,
                                      const std::string& service) const {
    const auto found = offers_.find(satellite);
    if (found == offers_.end()) return false;
    for (const auto& [other, services] : found->second) {
        if (other != instance && services.count(service) != 0) return true;
    }
    return false;
}
