// python/language/evaluation_arguments.cpp: map arguments of the evaluations checked before they run.
#include "language/evaluation_arguments.hpp"

#include <optional>

#include "language/evaluate.hpp"

namespace tala::python {

namespace {

std::optional<Union<I_Map<String, Any>, None>> mapArgument(const Any& value) {
    if (value.isEmpty()) return Union<I_Map<String, Any>, None>(None());
    if (I_Map_Generic::matches(value)) return Union<I_Map<String, Any>, None>(internal::unchecked, value);
    return std::nullopt;
}

std::optional<Union<I_MutableMap<String, Any>, None>> mutableMapArgument(const Any& value) {
    if (value.isEmpty()) return Union<I_MutableMap<String, Any>, None>(None());
    if (I_MutableMap_Generic::matches(value)) return Union<I_MutableMap<String, Any>, None>(internal::unchecked, value);
    return std::nullopt;
}

Error notAMap(const char* parameter, const Any& value) {
    return Error(String("The argument '{}' must be a map or None, got {}.").arg(String(parameter), display(value)));
}

}  // namespace

Any evaluateExprWithArguments(const String& code, const Any& locals, const Any& globals) {
    auto localMap = mapArgument(locals);
    if (!localMap) return notAMap("locals", locals);
    auto globalMap = mapArgument(globals);
    if (!globalMap) return notAMap("globals", globals);
    return evaluate_expr(code, *localMap, *globalMap);
}

Any evaluateMethodWithArguments(const Any& self, const String& code, const Any& locals, const Any& globals,
                                const Any& outLocals) {
    auto localMap = mapArgument(locals);
    if (!localMap) return notAMap("locals", locals);
    auto globalMap = mapArgument(globals);
    if (!globalMap) return notAMap("globals", globals);
    auto outMap = mutableMapArgument(outLocals);
    if (!outMap) return notAMap("outLocals", outLocals);
    return resolve(language_python_evaluate_method(self, code, *localMap, *globalMap, *outMap));
}

}  // namespace tala::python
