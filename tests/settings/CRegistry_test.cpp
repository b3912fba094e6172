// SPDX-License-Identifier: MIT
#include "CRegistry.h"

#include <gtest/gtest.h>

#include "CRegistryImpl.h"

namespace {

TEST(CRegistry, GetInstanceCreatesOneSharedImplementation) {
    boost::shared_ptr<CRegistry> first = CRegistry::getInstance();
    EXPECT_NE(dynamic_cast<CRegistryImpl*>(first.get()), nullptr);
    EXPECT_EQ(first.get(), CRegistry::getInstance().get());
}

}  // namespace
