// python/language/evaluate.hpp: evaluating Python expressions, code and method bodies against host values.
#pragma once

#include "tala/tala.hpp"

namespace tala {

// Runs `code` as the body of a generated function with `self` bound: what it returns is the
// result; the names in `outLocals` are written back into that map (with setChecked) after it
// ran. Locals beat output locals, which beat globals. Errors (a syntax error, an exception, a
// bad map) are returned as values.
Union<Any, Lazy<Any>, Error> language_python_evaluate_method(const Any& self, const String& code,
                                                             const Union<I_Map<String, Any>, None>& locals,
                                                             const Union<I_Map<String, Any>, None>& globals,
                                                             const Union<I_MutableMap<String, Any>, None>& outLocals);

namespace python {

// The value of one Python expression. Locals and globals are seen through one dictionary
// (locals win); without a globals map the process-wide globals are visible.
Any evaluate_expr(const String& code, const Union<I_Map<String, Any>, None>& locals,
                  const Union<I_Map<String, Any>, None>& globals);

// `language_python_evaluate_method` without `self`.
Any evaluate(const String& code, const Union<I_Map<String, Any>, None>& locals,
             const Union<I_Map<String, Any>, None>& globals, const Union<I_MutableMap<String, Any>, None>& outLocals);

}  // namespace python
}  // namespace tala
