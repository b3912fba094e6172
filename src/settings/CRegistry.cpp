// SPDX-License-Identifier: MIT
#include "CRegistry.h"

#include <boost/make_shared.hpp>

#include "CRegistryImpl.h"

boost::shared_ptr<CRegistry> CRegistry::instance;

boost::shared_ptr<CRegistry> CRegistry::getInstance() {
    if (!instance) instance = boost::make_shared<CRegistryImpl>();
    return instance;
}
