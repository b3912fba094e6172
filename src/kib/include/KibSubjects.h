// SPDX-License-Identifier: MIT
// The bus subjects every satellite subscribes and publishes on, in one place: the
// library builds its subjects here, tools and benchmarks that speak the wire format
// directly take theirs from here, and the docs' subject table is checked against
// kKibSubjectPatterns. Plain constants and pure functions: usable from any thread.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace KibSubjects {

// Prefixes: each is followed by a satellite name (and, for services, "." and the
// service name).
constexpr std::string_view kServicePrefix = "kib.svc.";
constexpr std::string_view kPingPrefix = "kib.ping.";
constexpr std::string_view kAvailPrefix = "kib.avail.";
// Discovery addressed to every satellite; "." and a name address one satellite.
constexpr std::string_view kDiscoverAll = "kib.discover";

// Requests to `service` of `satellite`, shared by its instances (queue group).
inline std::string service(std::string_view satellite, std::string_view service) {
    std::string subject(kServicePrefix);
    subject.append(satellite).append(".").append(service);
    return subject;
}

// Requests to `service` of `satellite` from the bus user `user`, shared by its instances
// (the same queue group). A server with accounts lets each user publish only on its own
// name here, so the last token tells the serving satellite who is asking.
inline std::string service(std::string_view satellite, std::string_view service,
                           std::string_view user) {
    return KibSubjects::service(satellite, service).append(".").append(user);
}

// Pings of `satellite`'s instances (queue group).
inline std::string ping(std::string_view satellite) {
    return std::string(kPingPrefix).append(satellite);
}

// Announcements of `satellite`'s instances; "*" gives the wildcard for all of them.
inline std::string avail(std::string_view satellite) {
    return std::string(kAvailPrefix).append(satellite);
}

// Asks `satellite`'s instances to announce; "*" asks every satellite.
inline std::string discover(std::string_view satellite) {
    if (satellite == "*") return std::string(kDiscoverAll);
    return std::string(kDiscoverAll).append(".").append(satellite);
}

}  // namespace KibSubjects

// Every subject shape on the bus, as the docs write them ("<satellite>" and
// "<service>" stand for names). A new subject adds its row here and in the docs.
constexpr std::array<std::string_view, 6> kKibSubjectPatterns = {
    "kib.svc.<satellite>.<service>", "kib.svc.<satellite>.<service>.<user>",
    "kib.ping.<satellite>",          "kib.avail.<satellite>",
    "kib.discover.<satellite>",      "kib.discover",
};
