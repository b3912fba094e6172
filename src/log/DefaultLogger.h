// SPDX-License-Identifier: MIT
// DefaultLogger: the process-wide default logger, held weakly so that installing one
// never keeps it alive. Read and replaced under a process-wide lock, so that taking a
// reference is safe against a concurrent set(); any thread, also during another
// translation unit's static initialisation. CBBLog's static message functions write to
// it (CBBLog::setLogger, CBBLog::getLogger).
#pragma once

#include <boost/shared_ptr.hpp>

class CBBLog;

namespace DefaultLogger {

void set(const boost::shared_ptr<CBBLog>& logger);
// Null when none was set or the one set has been destroyed.
boost::shared_ptr<CBBLog> get();

}  // namespace DefaultLogger
