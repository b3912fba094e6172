// SPDX-License-Identifier: MIT
#include "CRegistry.h"

#include <gtest/gtest.h>

#include "CRegistryImpl.h"

namespace {

TEST(CRegistry, GetInstanceCreatesOneSharedImplementation) {
    boost::shared_ptr<CRegistry> first = CRegistry::getInstance();
    boost::shared_ptr<CRegistry> second = CRegistry::getInstance();
    ASSERT_TRUE(first);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(first.get(), CRegistry::instance.get());
    EXPECT_NE(dynamic_cast<CRegistryImpl*>(first.get()), nullptr);
}

}  // namespace
