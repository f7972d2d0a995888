// tests/tala/model_test_support.hpp: small helpers shared by the object model's tests.
#pragma once

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace tala_test {

// The message of an error result, or a marker that says it is not an error.
inline std::string errorText(const tala::Any& result) {
    if (auto error = tala::Error::cast(result)) return error->message().toStdString();
    return "<not an error: " + tala::display(result).toStdString() + ">";
}

// The same for a value that must be an error: a failed expectation when it is not.
inline std::string expectedErrorText(const tala::Any& value) {
    EXPECT_TRUE(tala::is_error_result(value)) << "not an error: " << tala::display(value).toStdString();
    return errorText(value);
}

// The display text of a value as a std::string, so that gtest prints it on failure.
inline std::string text(const tala::Any& value) { return tala::display(value).toStdString(); }

// Classes are never freed; the tests keep the ones they build reachable so that the leak checker
// sees them as what they are, process-wide objects.
inline tala::Class_Generic kept(tala::Class_Generic cls) {
    static auto* classes = new std::vector<tala::Class_Generic>();
    static std::mutex mutex;
    std::lock_guard lock(mutex);
    classes->push_back(cls);
    return cls;
}

}  // namespace tala_test
