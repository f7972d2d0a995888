// python/extension/entry.hpp: the exported entry point and the library's own directory.
#pragma once

#include <string>

#if defined(_WIN32)
#define TALA_PYTHON_EXPORT __declspec(dllexport)
#else
#define TALA_PYTHON_EXPORT __attribute__((visibility("default")))
#endif

extern "C" TALA_PYTHON_EXPORT void quarto_extension_init();

namespace tala::python {

// The directory of this library's file, without a trailing separator; empty when it cannot be
// found (the search paths then become root-relative).
std::string ownDirectory();

}  // namespace tala::python
