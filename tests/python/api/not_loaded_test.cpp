// tests/python/api/not_loaded_test.cpp: tala/python.hpp called before the extension is loaded says so, and works
// once it is: a look-up that found nothing is tried again. A program of its own, since loading is once per process.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "api_test_support.hpp"

namespace {

using tala_api_test::failure;
namespace py = tala::py;

TEST(NotLoaded, EveryFunctionSaysTheExtensionIsNotLoadedThenWorksOnceItIs) {
    const std::string prefix = "The Python extension is not loaded: the module tala.python has no ";
    EXPECT_EQ(failure(py::evaluate_expr("1")), prefix + "function evaluate_expr.");
    EXPECT_EQ(failure(py::evaluate("return 1")), prefix + "function evaluate.");
    EXPECT_EQ(failure(py::evaluate_method(1, "return self")), prefix + "function evaluate_method.");
    EXPECT_EQ(failure(py::import_path("os")), prefix + "function python_import.");
    EXPECT_EQ(failure(py::add_sys_path("/tala-api-test")), prefix + "function python_add_sys_path.");
    EXPECT_EQ(failure(py::generate_stubs(tala::Module::create("tala"))), prefix + "function python_generate_stubs.");
    EXPECT_EQ(failure(py::thread_id()), prefix + "LanguagePython.threadId.");
    EXPECT_EQ(failure(py::interrupt(1)), prefix + "LanguagePython.interrupt.");

    const tala::Any loaded = tala_api_test::loadExtension();
    ASSERT_TRUE(loaded.isEmpty()) << tala::display(loaded).toStdString();

    EXPECT_EQ(*py::evaluate_expr("1").to<int>(), 1);
    EXPECT_EQ(*py::evaluate("return 2").to<int>(), 2);
    EXPECT_EQ(*py::evaluate_method(3, "return self").to<int>(), 3);
    EXPECT_TRUE(py::import_path("os").ok());
    EXPECT_TRUE(py::add_sys_path("/tala-api-test").ok());
    EXPECT_TRUE(py::generate_stubs(tala::Module::create("tala")).ok());
    EXPECT_TRUE(py::thread_id().ok());
    EXPECT_FALSE(*py::interrupt(*py::thread_id()));
}

}  // namespace
