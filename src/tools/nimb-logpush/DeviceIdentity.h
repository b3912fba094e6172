// SPDX-License-Identifier: MIT
// DeviceIdentity: the defaults by which this machine introduces itself to the collector:
// the MAC address of its first network interface and its host name. Stateless, any thread.
#pragma once

#include <string>

namespace DeviceIdentity {

// The MAC address given when no interface has one.
inline constexpr const char* kNoMacAddress = "00:00:00:00:00:00";

// The address of the first network interface, in name order, that is not a loopback
// interface and has a non-zero address; kNoMacAddress when there is none.
std::string firstMacAddress();

// The machine's host name, or "localhost" when it cannot be read.
std::string hostName();

}  // namespace DeviceIdentity
