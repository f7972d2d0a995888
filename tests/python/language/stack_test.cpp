// tests/python/language/stack_test.cpp: host threads with small stacks: deep recursion in C raises
// RecursionError instead of overflowing the stack, too little stack is a clear error, and host
// code that re-enters Python without end stops with an error.
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "extension/stack.hpp"
#include "language/evaluate.hpp"
#include "language_test_support.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::String;
using tala_language_test::errorMessage;
using tala_language_test::LanguageTest;
using tala_language_test::mapArgument;
using tala_language_test::noMap;
using tala_language_test::noMutableMap;
using tala_language_test::text;

class StackTest : public LanguageTest {};

// Runs `work` on a new thread with a stack of `kib` KiB. The stack is ours: a size alone could be
// served by a larger stack that the C library kept from an earlier thread.
void onThreadWithStack(std::size_t kib, const std::function<void()>& work) {
    const std::size_t size = kib * 1024 * tala::python::kStackFactor;
    std::unique_ptr<void, decltype(&std::free)> stack(std::aligned_alloc(16 * 1024, size), &std::free);
    ASSERT_NE(stack, nullptr);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    ASSERT_EQ(pthread_attr_setstack(&attributes, stack.get(), size), 0);
    auto* copy = new std::function<void()>(work);
    pthread_t thread;
    ASSERT_EQ(pthread_create(&thread, &attributes, [](void* argument) -> void* {
                  auto* body = static_cast<std::function<void()>*>(argument);
                  (*body)();
                  delete body;
                  return nullptr;
              }, copy), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

Any run(const char* code) { return tala::python::evaluate(String(code), noMap(), noMap(), noMutableMap()); }

TEST_F(StackTest, DeepRecursionInCOnASmallStackRaisesRecursionError) {
    const char* cases[] = {
        "l = []\nfor _ in range(200000): l = [l]\nreturn repr(l)",
        "import json\nx = []\nfor _ in range(100000): x = [x]\nreturn json.dumps(x)",
        "import json\nreturn json.loads('[' * 100000 + ']' * 100000)",
    };
    for (const char* code : cases) {
        Any result;
        onThreadWithStack(1024, [&] { result = run(code); });
        EXPECT_NE(errorMessage(result).find("maximum recursion depth exceeded"), std::string::npos) << errorMessage(result);
    }
    // The process is healthy afterwards.
    EXPECT_EQ(text(run("return 6 * 7")), "42");
}

TEST_F(StackTest, TooLittleStackIsAClearError) {
    Any result;
    onThreadWithStack(256, [&] { result = run("return 1"); });
    const std::string message = errorMessage(result);
    EXPECT_EQ(message.rfind("The thread has ", 0), 0u) << message;
    EXPECT_NE(message.find("KiB of stack left, and Python needs at least"), std::string::npos) << message;
    Any enough;
    onThreadWithStack(1024, [&] { enough = run("return 1"); });
    EXPECT_EQ(text(enough), "1");
}

TEST_F(StackTest, HostCodeThatReentersPythonWithoutEndStopsWithAnError) {
    // Python calls a host function that evaluates Python that calls it again, without end.
    auto reenter = std::make_shared<tala::I_Invokable_Generic>(tala::native_function([] { return Any(); }, "placeholder"));
    static std::atomic<std::int64_t> deepest{0};
    *reenter = tala::native_function(
        [reenter](std::int64_t depth) -> Any {
            deepest = std::max<std::int64_t>(deepest, depth);
            const HashMap<String, Any> locals{{String("reenter"), *reenter}, {String("depth"), tala::Integer(depth)}};
            return tala::python::evaluate(String("return reenter(depth + 1)"), mapArgument(locals), noMap(), noMutableMap());
        },
        "reenter", {"depth"});
    Any result;
    onThreadWithStack(8192, [&] { result = (*reenter)(tala::Integer(0)); });
    // It ends with the error of the stack guard or of Python's own recursion limit, after going
    // deep, not at the first call.
    const std::string message = errorMessage(result);
    EXPECT_TRUE(message.find("KiB of stack left") != std::string::npos ||
                message.find("maximum recursion depth exceeded") != std::string::npos)
        << message;
    EXPECT_GT(deepest.load(), 10);
    EXPECT_EQ(text(run("return 'still healthy'")), "'still healthy'");
    *reenter = tala::native_function([] { return Any(); }, "placeholder");  // breaks the cycle
}

}  // namespace
