// python/extension/registration_hook.hpp: a test seam inside the once-only registrations of the extension's classes.
#pragma once

namespace tala::python::testing {

// Called with the class's name from inside the registration of LanguagePython and ModulePython,
// before the class exists. A test sets it to ask for the class again from there and see the
// object model refuse the re-entry. Null (the default) does nothing.
using RegistrationHook = void (*)(const char* className);
void setRegistrationHook(RegistrationHook hook);
void runRegistrationHook(const char* className);

}  // namespace tala::python::testing
