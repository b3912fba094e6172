// SPDX-License-Identifier: MIT
// The value tests' vocabulary: the shared value builders, pairs, and the message of a
// thrown exception.
#pragma once

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "KibException.h"
#include "TestValues.h"

namespace testvalue {

using namespace testvalues;

inline KibVariantHolder pair(const char* name, const char* value) {
    return variants(str(name), str(value));
}

// The message of the KibInvalidParameterException that `f` throws (checking its
// code), or "<no exception>".
template <typename F>
std::string thrownMessage(F&& f) {
    try {
        std::forward<F>(f)();
    } catch (const KibInvalidParameterException& e) {
        EXPECT_EQ(e.code(), 1);
        return e.message();
    }
    return "<no exception>";
}

}  // namespace testvalue
