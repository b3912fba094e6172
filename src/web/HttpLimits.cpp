// SPDX-License-Identifier: MIT
#include "HttpLimits.h"

#include <algorithm>

#include <sys/resource.h>

int HttpLimits::effectiveMaxConnections() const {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return std::max(1, maxConnections);
    const auto room = static_cast<long long>(limit.rlim_cur) - kReservedDescriptors;
    return static_cast<int>(std::max<long long>(1, std::min<long long>(maxConnections, room)));
}

QString addressKey(const QHostAddress& address) {
    bool isV4 = false;
    const quint32 v4 = address.toIPv4Address(&isV4);
    if (isV4) return QHostAddress(v4).toString();
    if (address.protocol() != QAbstractSocket::IPv6Protocol) return address.toString();
    Q_IPV6ADDR bytes = address.toIPv6Address();
    for (int i = 8; i < 16; ++i) bytes[i] = 0;
    return QHostAddress(bytes).toString() + QStringLiteral("/64");
}
