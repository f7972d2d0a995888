// tests/python/api/api_test_support.hpp: loading the built extension as a host does, and reading results, for the
// tests of tala/python.hpp. These programs link the object model only, never the extension's code.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "tala/python.hpp"
#include "tala/tala.hpp"

#ifndef TALA_PYTHON_EXTENSION_PATH
#error "TALA_PYTHON_EXTENSION_PATH must name the built extension library"
#endif

namespace tala_api_test {

// Loads the extension with the object model's one call, as an embedding host does; once per
// process: None, or the error of loading.
inline tala::Any loadExtension() {
    static const tala::Any loaded = [] {
#if defined(__SANITIZE_ADDRESS__)
        // Python's small-object allocator keeps its objects in arenas that LeakSanitizer does not
        // scan, so host values that Python objects hold to the end of the process would look leaked.
        setenv("PYTHONMALLOC", "malloc", 0);
#endif
        return tala::load_extension(TALA_PYTHON_EXTENSION_PATH);
    }();
    return loaded;
}

// The message of a failed result, or a marker that says it did not fail.
template <class T>
std::string failure(const tala::Result<T>& result) {
    if (result.ok()) return "<no error>";
    return result.error().message().toStdString();
}

inline std::string shown(const tala::Any& value) { return tala::display(value).toStdString(); }

// A result's value by its display text, or its error's message.
inline std::string shown(const tala::Result<tala::Any>& result) {
    return result ? shown(*result) : "error: " + failure(result);
}

// Every suite loads the extension once, before its first test.
class ApiTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const tala::Any loaded = loadExtension();
        ASSERT_TRUE(loaded.isEmpty()) << tala::display(loaded).toStdString();
    }
};

}  // namespace tala_api_test
