// SPDX-License-Identifier: MIT
#include "DefaultLogger.h"

#include <boost/weak_ptr.hpp>

#include "PMutex.h"

namespace {

// Both created on first use, so that logging from another translation unit's static
// initialisation finds them constructed.
PMutex& instanceMutex() {
    static PMutex mutex;
    return mutex;
}

boost::weak_ptr<CBBLog>& instance() {
    static boost::weak_ptr<CBBLog> logger;
    return logger;
}

}  // namespace

namespace DefaultLogger {

void set(const boost::shared_ptr<CBBLog>& logger) {
    PMutexLocker lock(instanceMutex());
    instance() = logger;
}

boost::shared_ptr<CBBLog> get() {
    PMutexLocker lock(instanceMutex());
    // An expired reference (the default logger was destroyed) yields null.
    return instance().lock();
}

}  // namespace DefaultLogger
