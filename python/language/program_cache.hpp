// python/language/program_cache.hpp: compiled forms of evaluated texts, kept for their next evaluation.
#pragma once

#include <Python.h>

#include <cstddef>
#include <span>
#include <string_view>

#include "extension/gil.hpp"
#include "tala/tala.hpp"

namespace tala::python {

enum class ProgramKind : unsigned char {
    Expression,  // one expression, compiled for eval
    Code,        // code run as the body of `tala_outer` (see python_support.hpp)
};

// The code object for a text: compiled on first use, then taken from a cache bounded in entries
// and in the bytes of the texts it keeps, shared by all threads under the interpreter lock. The
// key is everything the result depends on: the kind, the exact text, the output names in their
// order and the file name. A new reference, or null with the Python error set (a SyntaxError
// has no frames of its own). The caller holds the interpreter lock.
PyObjectPtr compiledProgram(ProgramKind kind, std::string_view text, std::span<const String> outNames,
                            std::string_view filename);

namespace testing {
std::size_t cachedPrograms();
std::size_t cachedProgramBytes();
std::size_t programCompilations();  // compilations since the process started
}  // namespace testing

}  // namespace tala::python
