// bench/loaded_extension.hpp: the Python extension loaded as a host loads it, and its module functions, for the benchmarks that use it through the object model.
#pragma once

#include <cstdio>

#include "tala/tala.hpp"

#ifndef TALA_PYTHON_EXTENSION_PATH
#error "TALA_PYTHON_EXTENSION_PATH must name the built Python extension"
#endif

namespace tala_bench {

// Loads the extension (on the calling thread, which starts the interpreter) and runs the
// start-up handlers; false, after printing why, when it cannot.
inline bool loadPythonExtension() {
    const tala::Any loaded = tala::load_extension(TALA_PYTHON_EXTENSION_PATH);
    if (!tala::is_error_result(loaded)) return true;
    std::fprintf(stderr, "%s\n", tala::display(loaded).c_str());
    return false;
}

// The module function `name` of "tala.python", or the empty value.
inline tala::Any pythonModuleFunction(const char* name) {
    const auto module = tala::Module::find("tala.python");
    if (!module) return tala::Any();
    return tala::property_of(*module, name).as<tala::Property>().get(*module);
}

}  // namespace tala_bench
