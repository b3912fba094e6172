// SPDX-License-Identifier: MIT
// DeviceIdentity: the defaults by which this machine introduces itself to the collector:
// the MAC address of its first network interface (or one made from the machine's
// identity) and its host name. Stateless, any thread.
#pragma once

#include <string>

namespace DeviceIdentity {

// The address no interface may be taken for.
inline constexpr const char* kNoMacAddress = "00:00:00:00:00:00";

// The address of the first network interface, in name order, that is not a loopback
// interface and has a non-zero address; when there is none, hostMacAddress() of this
// machine's /etc/machine-id and host name.
std::string firstMacAddress();

// A locally administered unicast MAC address (second-lowest bit of the first byte set,
// lowest clear) made from a hash of `machineId`, or of `host` when `machineId` is empty:
// the same on every run on one host, different between hosts. Lower-case hex digits.
std::string hostMacAddress(const std::string& machineId, const std::string& host);

// The machine's host name, or "localhost" when it cannot be read.
std::string hostName();

}  // namespace DeviceIdentity
