// tests/tala/init_test.cpp: init handlers and the loading of extension libraries.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "model_test_support.hpp"
#include "tala/tala.hpp"

#ifndef TALA_TEST_EXTENSION_PATH
#error "TALA_TEST_EXTENSION_PATH must name the test extension library"
#endif
#ifndef TALA_TEST_NO_ENTRY_PATH
#error "TALA_TEST_NO_ENTRY_PATH must name the library without an entry point"
#endif
#ifndef TALA_TEST_FAILING_ENTRY_PATH
#error "TALA_TEST_FAILING_ENTRY_PATH must name the library whose entry point throws"
#endif

namespace {

using tala::Any;
using tala::Error;
using tala::String;
using tala::internal::add_init_handler;

using tala_test::errorText;

// ---- Init handlers ------------------------------------------------------------------------------

TEST(InitHandlers, RunInAscendingPriorityAndInAdditionOrderWithinOne) {
    std::vector<std::string> ran;
    add_init_handler(20, [&ran] { ran.push_back("a"); });
    add_init_handler(10, [&ran] { ran.push_back("b"); });
    add_init_handler(20, [&ran] { ran.push_back("c"); });
    add_init_handler(-5, [&ran] { ran.push_back("d"); });
    add_init_handler(10, [&ran] { ran.push_back("e"); });
    add_init_handler(20, [&ran] { ran.push_back("f"); });
    const Any result = tala::run_init_handlers();
    EXPECT_TRUE(result.isEmpty()) << errorText(result);
    EXPECT_EQ(ran, (std::vector<std::string>{"d", "b", "e", "a", "c", "f"}));
}

TEST(InitHandlers, HandlersAppendedToTheListDirectlyRunToo) {
    std::vector<std::string> ran;
    tala::internal::init_handlers_unsafe().emplace_back(2, [&ran] { ran.push_back("direct"); });
    add_init_handler(1, [&ran] { ran.push_back("added"); });
    const Any result = tala::run_init_handlers();
    EXPECT_TRUE(result.isEmpty()) << errorText(result);
    EXPECT_EQ(ran, (std::vector<std::string>{"added", "direct"}));
}

TEST(InitHandlers, ASecondRunRunsOnlyTheNewHandlers) {
    int first = 0;
    int second = 0;
    add_init_handler(5, [&first] { ++first; });
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    EXPECT_EQ(first, 1);
    add_init_handler(0, [&second] { ++second; });
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 1);
}

TEST(InitHandlers, AThrowingHandlerIsReportedAndTheOthersStillRun) {
    std::vector<std::string> ran;
    add_init_handler(1, [&ran] { ran.push_back("before"); });
    add_init_handler(2, [&ran] {
        ran.push_back("throws");
        throw std::runtime_error("boom");
    });
    add_init_handler(3, [&ran] { ran.push_back("after"); });
    add_init_handler(4, [&ran] {
        ran.push_back("throws something else");
        throw 7;
    });
    add_init_handler(5, [&ran] { ran.push_back("last"); });
    const Any result = tala::run_init_handlers();
    ASSERT_TRUE(Error::matches(result));
    EXPECT_EQ(errorText(result), "Init handlers failed: boom; Unknown exception.");
    EXPECT_EQ(ran, (std::vector<std::string>{"before", "throws", "after", "throws something else", "last"}));
    // A failed handler counts as run: it is not tried again.
    ran.clear();
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    EXPECT_TRUE(ran.empty());
}

TEST(InitHandlers, AThrowingHandlerAloneIsReportedByItsMessage) {
    add_init_handler(0, [] { throw tala::Exception("broken invariant"); });
    EXPECT_EQ(errorText(tala::run_init_handlers()), "Init handlers failed: broken invariant.");
}

TEST(InitHandlers, HandlersAddedWhileRunningRunInTheSameRun) {
    std::vector<std::string> ran;
    add_init_handler(1, [&ran] {
        ran.push_back("outer");
        add_init_handler(0, [&ran] { ran.push_back("inner"); });
        tala::internal::init_handlers_unsafe().emplace_back(0, [&ran] { ran.push_back("inner direct"); });
    });
    add_init_handler(2, [&ran] { ran.push_back("second"); });
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    // The new ones run after the batch under way, in their own priority order.
    EXPECT_EQ(ran, (std::vector<std::string>{"outer", "second", "inner", "inner direct"}));
}

TEST(InitHandlers, ARunAskedForByAHandlerRunsNoHandlerTwice) {
    std::vector<std::string> ran;
    add_init_handler(1, [&ran] {
        ran.push_back("first");
        EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    });
    add_init_handler(2, [&ran] { ran.push_back("second"); });
    add_init_handler(3, [&ran] { ran.push_back("third"); });
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    EXPECT_EQ(ran, (std::vector<std::string>{"first", "second", "third"}));
}

TEST(InitHandlers, HandlersAddedFromOtherThreadsDuringRunsEachRunOnce) {
    constexpr int kThreads = 4;
    constexpr int kPerThread = 500;
    std::vector<std::atomic<int>> counts(kThreads * kPerThread);
    std::atomic<bool> adding{true};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&counts, t] {
            for (int i = 0; i < kPerThread; ++i) {
                std::atomic<int>* slot = &counts[static_cast<std::size_t>(t * kPerThread + i)];
                add_init_handler(i % 3, [slot] { slot->fetch_add(1); });
            }
        });
    }
    std::thread runner([&adding] {
        while (adding.load()) EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    });
    for (auto& thread : threads) thread.join();
    adding.store(false);
    runner.join();
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    int wrong = 0;
    for (const auto& count : counts) wrong += count.load() == 1 ? 0 : 1;
    EXPECT_EQ(wrong, 0);
}

// ---- Extensions ---------------------------------------------------------------------------------

const std::string kExtension = TALA_TEST_EXTENSION_PATH;
const std::string kNoEntry = TALA_TEST_NO_ENTRY_PATH;
const std::string kFailingEntry = TALA_TEST_FAILING_ENTRY_PATH;

std::vector<std::int64_t> recordedOrder() {
    std::vector<std::int64_t> order;
    auto list = tala::globals().get(String("testext.order"));
    if (!list || !tala::List_Generic::matches(*list)) return order;
    for (const Any& item : tala::List_Generic(tala::internal::unchecked, *list)) order.push_back(item.rawInteger());
    return order;
}

std::int64_t entryCalls() {
    auto calls = tala::globals().get(String("testext.entry_calls"));
    return calls && calls->kind() == tala::Kind::Integer ? calls->rawInteger() : 0;
}

TEST(Extension, LoadingRunsItsEntryPointAndItsHandlersInPriorityOrder) {
    const std::int64_t callsBefore = entryCalls();
    const Any result = tala::load_extension(kExtension);
    EXPECT_TRUE(result.isEmpty()) << errorText(result);
    EXPECT_EQ(recordedOrder(), (std::vector<std::int64_t>{1, 2, 3}));
    EXPECT_EQ(entryCalls(), callsBefore + 1);
}

TEST(Extension, LoadedExtensionProvidesItsModuleClassAndFunction) {
    ASSERT_TRUE(tala::load_extension(kExtension).isEmpty());
    auto module = tala::Module::find("testext");
    ASSERT_TRUE(module.has_value());
    EXPECT_EQ(module->doc().toStdString(), "The test extension.");

    auto gadget = module->classes().get(String("Gadget"));
    ASSERT_TRUE(gadget.has_value());
    const tala::Class_Generic cls(tala::internal::unchecked, *gadget);
    EXPECT_EQ(cls.qualname().toStdString(), "testext.Gadget");
    EXPECT_TRUE(cls.declaringContext().isSame(*module));
    const Any made = tala::I_Invokable_Generic(tala::internal::unchecked, cls)(String("lamp"));
    ASSERT_FALSE(tala::is_error_result(made)) << errorText(made);
    auto label = tala::property_of(made, "label");
    ASSERT_FALSE(label.isEmpty());
    EXPECT_EQ(tala::display(label.as<tala::Property>().get(made)).toStdString(), "'lamp'");

    auto answer = module->functions().get(String("answer"));
    ASSERT_TRUE(answer.has_value());
    const Any result = tala::I_Invokable_Generic(tala::internal::unchecked, *answer)();
    ASSERT_EQ(result.kind(), tala::Kind::Integer) << errorText(result);
    EXPECT_EQ(result.rawInteger(), 42);
}

TEST(Extension, LoadingTwiceRunsTheHandlersOnce) {
    ASSERT_TRUE(tala::load_extension(kExtension).isEmpty());
    const std::int64_t calls = entryCalls();
    EXPECT_TRUE(tala::load_extension(kExtension).isEmpty());
    EXPECT_EQ(entryCalls(), calls + 1);
    EXPECT_EQ(recordedOrder(), (std::vector<std::int64_t>{1, 2, 3}));
}

TEST(Extension, MissingFileIsAnErrorNamingThePath) {
    const std::string path = kExtension + ".missing";
    const Any result = tala::load_extension(path);
    ASSERT_TRUE(Error::matches(result));
    const std::string message = errorText(result);
    EXPECT_EQ(message.rfind("Unable to load the extension '" + path + "'", 0), 0u) << message;
}

TEST(Extension, LibraryWithoutEntryPointIsAnError) {
    const Any result = tala::load_extension(kNoEntry);
    EXPECT_EQ(errorText(result), "The extension '" + kNoEntry + "' has no entry point 'quarto_extension_init'.");
}

TEST(Extension, ThrowingEntryPointIsAnErrorAndTheProcessStaysUsable) {
    const Any result = tala::load_extension(kFailingEntry);
    ASSERT_TRUE(Error::matches(result));
    EXPECT_EQ(errorText(result), "The entry point of the extension '" + kFailingEntry +
                                     "' failed: the gadget factory is closed");
    EXPECT_TRUE(Error(tala::internal::unchecked, result).exception() != nullptr);

    // Later calls work: the same library fails the same way, others load, handlers run.
    EXPECT_EQ(errorText(tala::load_extension(kFailingEntry)), errorText(result));
    const Any loaded = tala::load_extension(kExtension);
    EXPECT_TRUE(loaded.isEmpty()) << errorText(loaded);
    int ran = 0;
    add_init_handler(0, [&ran] { ++ran; });
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    EXPECT_EQ(ran, 1);
    const auto add = tala::native_function([](std::int64_t a, std::int64_t b) { return a + b; });
    EXPECT_EQ(add(tala::Integer(40), tala::Integer(2)).rawInteger(), 42);
}

}  // namespace
