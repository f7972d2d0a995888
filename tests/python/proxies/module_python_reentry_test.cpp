// tests/python/proxies/module_python_reentry_test.cpp: the registration of ModulePython asked for again while it runs,
// on the same thread: refused with the object model's error, which names the class. A program of its own: the class
// must not exist yet.
#include <gtest/gtest.h>

#include <string>

#include "extension/registration_hook.hpp"
#include "proxies/module_python.hpp"

namespace {

std::string g_caught;

// Asks for the class from inside its own registration, and lets the error pass.
void askAgain(const char* className) {
    if (std::string(className) == "ModulePython") (void)tala::ModulePython::getClass();
}

// Asks for the class from inside its own registration, and keeps the error's text.
void askAgainAndCatch(const char* className) {
    if (std::string(className) != "ModulePython") return;
    try {
        (void)tala::ModulePython::getClass();
    } catch (const tala::Exception& error) {
        g_caught = error.what();
    }
}

TEST(ModulePythonRegistration, ReentryIsRefusedWithTheClassName) {
    tala::python::testing::setRegistrationHook(askAgain);
    try {
        (void)tala::ModulePython::getClass();
        ADD_FAILURE() << "expected tala::Exception";
    } catch (const tala::Exception& error) {
        EXPECT_STREQ(error.what(), "Recursive call detected while initializing class: ModulePython");
    }
    // The failed registration published nothing: the next one runs again, and a caught re-entry
    // inside it does not keep it from finishing.
    tala::python::testing::setRegistrationHook(askAgainAndCatch);
    const tala::Class_Generic cls = tala::ModulePython::getClass();
    tala::python::testing::setRegistrationHook(nullptr);
    EXPECT_EQ(g_caught, "Recursive call detected while initializing class: ModulePython");
    EXPECT_EQ(cls.name(), "ModulePython");
    EXPECT_EQ(tala::ModulePython::getClass(), cls);
}

}  // namespace
