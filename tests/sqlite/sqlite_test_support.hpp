// tests/sqlite/sqlite_test_support.hpp: the fixture of the sqlite module's tests: the Python extension
// loaded the way the host loads it, the module's code linked in, and helpers that call the
// module's members and evaluate Python through "tala.python" as any host does.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <initializer_list>
#include <string>

#include "database.hpp"
#include "row.hpp"
#include "tala/tala.hpp"

#ifndef TALA_PYTHON_EXTENSION_PATH
#error "TALA_PYTHON_EXTENSION_PATH must name the built Python extension"
#endif

namespace tala_sqlite_test {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::List;
using tala::String;

using Map = HashMap<String, Any>;

inline std::string text(const Any& value) { return tala::display(value).toStdString(); }

// The message of an error value, or a marker that says what the value was instead.
inline std::string errorMessage(const Any& value) {
    if (!tala::Error::matches(value)) return "<not an error: " + text(value) + ">";
    return tala::Error(tala::internal::unchecked, value).message().toStdString();
}

// The qualified name of a value's class.
inline std::string className(const Any& value) { return tala::raw_class_of(value).qualname().toStdString(); }

// Calls the member `name` (a method, or a property when there are no arguments and no such
// method) of `target` through the object model, as any host code would.
inline Any call(const Any& target, const char* name, std::initializer_list<Any> arguments = {}) {
    const tala::Identifier id = tala::Identifier::intern(name);
    if (arguments.size() == 0 && tala::method_of(target, id).isEmpty()) return tala::resolve(tala::internal::readMember(target, id));
    return tala::resolve(tala::internal::callMember(target, id, arguments));
}

// The module function `name` of "tala.python".
inline Any pythonFunction(const char* name) {
    const auto module = tala::Module::find("tala.python");
    if (!module) return Any();
    const auto property = tala::property_of(*module, name);
    if (property.isEmpty()) return Any();
    return property.as<tala::Property>().get(*module);
}

// Runs Python code as the body of a function with the given locals; its result.
inline Any evaluate(const std::string& code, const Map& locals = Map()) {
    const tala::I_Invokable_Generic function(tala::internal::unchecked, pythonFunction("evaluate"));
    return tala::resolve(function(String(code), locals, Any(), Any()));
}

// The value of a Python expression with the given locals.
inline Any evaluateExpr(const std::string& expression, const Map& locals = Map()) {
    const tala::I_Invokable_Generic function(tala::internal::unchecked, pythonFunction("evaluate_expr"));
    return tala::resolve(function(String(expression), locals, Any()));
}

// Every suite: the Python extension loaded once per process through the object model's loader,
// which also runs the init handlers of the sqlite module's code linked into the test.
class SqliteTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
#if defined(__SANITIZE_ADDRESS__)
        // Python's objects from the system allocator, so that LeakSanitizer sees what they hold.
        setenv("PYTHONMALLOC", "malloc", 0);
#endif
        static const Any loaded = tala::load_extension(TALA_PYTHON_EXTENSION_PATH);
        ASSERT_FALSE(tala::is_error_result(loaded)) << text(loaded);
        ASSERT_TRUE(tala::Module::find("sqlite").has_value());
    }

    // A new in-memory database.
    static tala::sqlite::Database memory() {
        const Any opened = tala::sqlite::openDatabase(String(":memory:"));
        EXPECT_TRUE(tala::sqlite::Database::matches(opened)) << text(opened);
        return tala::sqlite::Database(tala::internal::unchecked, opened);
    }

    // Runs statements that must succeed.
    static void script(const Any& database, const char* sql) {
        const Any done = call(database, "executeScript", {String(sql)});
        ASSERT_FALSE(tala::is_error_result(done)) << errorMessage(done);
    }
};

}  // namespace tala_sqlite_test
