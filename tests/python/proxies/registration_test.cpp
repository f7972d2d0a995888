// tests/python/proxies/registration_test.cpp: the extension's start-up handlers of priority 1
// register the proxy classes and FunctionPython with the object model.
#include <gtest/gtest.h>

#include <string>

#include "functions/function_python.hpp"
#include "proxies/python_proxy.hpp"
#include "python_test_support.hpp"

namespace {

using tala_python_test::PythonTest;

class RegistrationTest : public PythonTest {};

TEST_F(RegistrationTest, ClassRegistrationsAreQueuedAtPriorityOne) {
    int priorityOne = 0;
    for (const auto& [priority, handler] : tala::internal::init_handlers_unsafe()) {
        if (priority == 1) ++priorityOne;
    }
    // FunctionPython, PythonProxy and the five collection proxies at least.
    EXPECT_GE(priorityOne, 7);
}

TEST_F(RegistrationTest, AfterTheHandlersRanTheClassesExist) {
    const tala::Any result = tala::run_init_handlers();
    EXPECT_TRUE(result.isEmpty()) << tala::display(result).toStdString();

    EXPECT_EQ(tala::python::PythonProxy::getClass().name().view(), "PythonProxy");
    EXPECT_EQ(tala::python::PythonProxyIterable::getClass().name().view(), "PythonProxyIterable");
    EXPECT_EQ(tala::python::PythonProxyIterator::getClass().name().view(), "PythonProxyIterator");
    EXPECT_EQ(tala::python::PythonProxyMapping::getClass().name().view(), "PythonProxyMapping");
    EXPECT_EQ(tala::python::PythonProxySequence::getClass().name().view(), "PythonProxySequence");
    EXPECT_EQ(tala::python::PythonProxySet::getClass().name().view(), "PythonProxySet");

    const tala::Class_Generic function = tala::FunctionPython::getClass();
    EXPECT_EQ(function.name().view(), "FunctionPython");
    EXPECT_EQ(function.qualname().view(), "tala.python.FunctionPython");
    EXPECT_EQ(function.doc().view(), "Invokable wrapper around of a Python function.");
    EXPECT_TRUE(tala::Module::find("tala.python").has_value());
}

TEST_F(RegistrationTest, RunningTheHandlersAgainChangesNothing) {
    const tala::Class_Generic before = tala::python::PythonProxy::getClass();
    EXPECT_TRUE(tala::run_init_handlers().isEmpty());
    EXPECT_EQ(tala::python::PythonProxy::getClass(), before);
}

}  // namespace
