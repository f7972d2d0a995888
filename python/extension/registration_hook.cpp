// python/extension/registration_hook.cpp: the test seam inside class registrations.
#include "extension/registration_hook.hpp"

#include <atomic>

namespace tala::python::testing {

namespace {
std::atomic<RegistrationHook> g_hook{nullptr};
}  // namespace

void setRegistrationHook(RegistrationHook hook) { g_hook.store(hook, std::memory_order_release); }

void runRegistrationHook(const char* className) {
    if (RegistrationHook hook = g_hook.load(std::memory_order_acquire)) hook(className);
}

}  // namespace tala::python::testing
