// python/language/evaluation_arguments.hpp: the evaluations as callers from outside reach them, with their map arguments given as any host value.
#pragma once

#include "tala/tala.hpp"

namespace tala::python {

// evaluate_expr, with `locals` and `globals` each a host map or None (the empty value); any
// other value is the error "The argument '{}' must be a map or None, got {}.".
Any evaluateExprWithArguments(const String& code, const Any& locals, const Any& globals);

// language_python_evaluate_method (and so `evaluate`, with an empty `self`), with the map
// arguments checked the same way; `outLocals` must be a mutable map or None.
Any evaluateMethodWithArguments(const Any& self, const String& code, const Any& locals, const Any& globals,
                                const Any& outLocals);

}  // namespace tala::python
