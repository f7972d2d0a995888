// python/language/python_support.hpp: the language service's helpers that are written in Python.
#pragma once

#include <Python.h>

namespace tala::python {

// A function of the support program, compiled once per process and kept for its life
// (borrowed), or null when the program could not be made (the error is cleared). The caller
// holds the interpreter lock. The functions:
//   build_program(source, filename, out_names)  the code object of code evaluation: `source`
//       parsed as written, its statements the body of `tala_outer`, then the calls of
//       `tala_store_result` and `tala_store_local`
//   format_exception(exception, program, source, generated_top)  the text Python's program
//       prints for an exception; frames of `program` (a code object, or None) show lines of
//       `source`, and with `generated_top` its own top-level frame is left out
PyObject* supportFunction(const char* name);

}  // namespace tala::python
