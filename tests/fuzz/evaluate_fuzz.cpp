// tests/fuzz/evaluate_fuzz.cpp: code text through expression and code evaluation, directly and
// as the module functions of "tala.python"; the result is walked as host code would walk it.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <optional>

#include "fuzz_support.hpp"
#include "language/evaluate.hpp"
#include "sandbox.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::String;
using MapArgument = tala::Union<tala::I_Map<String, Any>, tala::None>;
using MutableMapArgument = tala::Union<tala::I_MutableMap<String, Any>, tala::None>;

constexpr std::int64_t kSteps = 20000;

std::optional<tala::I_Invokable_Generic> moduleFunction(const char* name) {
    auto module = tala::Module::find("tala.python");
    if (!module) return std::nullopt;
    auto function = module->functions().get(String(name));
    if (!function) return std::nullopt;
    return tala::I_Invokable_Generic(tala::internal::unchecked, *function);
}

// The locals that the scripts of the corpus expect, of several kinds.
HashMap<String, Any> someLocals() {
    return HashMap<String, Any>{
        {String("x"), tala::Integer(7)},
        {String("price"), tala::Decimal::fromString("19.99").as<tala::Decimal>()},
        {String("quantity"), tala::Integer(12)},
        {String("customer"), String("ACME")},
        {String("day"), tala::Date(2024, 2, 29)},
        {String("items"), tala::List<Any>{tala::Integer(1), String("two"), tala::Float(3.5)}},
        {String("table"), HashMap<String, Any>{{String("a"), tala::Integer(1)}, {String("b"), tala::Integer(2)}}},
    };
}

void walk(const Any& result, const uint8_t* data, size_t size) {
    FuzzedDataProvider choices(data, size);
    // Calls are left out: a result of fuzzed code may be any callable of the standard library.
    tala_fuzz::Walker(choices, 40, false).walk(result, tala::Integer(1));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tala_fuzz::start();
    tala_fuzz::sandboxBuiltins();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const String code(reinterpret_cast<const char*>(data), size);
    const HashMap<String, Any> locals = someLocals();
    {
        const tala_fuzz::StepBudget budget(kSteps);
        const Any value = tala::python::evaluate_expr(code, MapArgument(tala::internal::unchecked, locals), MapArgument(tala::None()));
        tala_fuzz::expectNothingPending("evaluate_expr");
        walk(value, data, size);
    }
    {
        const tala_fuzz::StepBudget budget(kSteps);
        const HashMap<String, Any> out{{String("total"), Any()}, {String("summary"), String("none")}};
        const Any value = tala::python::evaluate(code, MapArgument(tala::internal::unchecked, locals), MapArgument(tala::None()),
                                                 MutableMapArgument(tala::internal::unchecked, out));
        tala_fuzz::expectNothingPending("evaluate");
        walk(value, data, size);
        walk(out, data, size);
    }
    // The same through the module functions, as a host that knows only the module calls them.
    static const std::optional<tala::I_Invokable_Generic> evaluateFunction = moduleFunction("evaluate");
    static const std::optional<tala::I_Invokable_Generic> evaluateExprFunction = moduleFunction("evaluate_expr");
    if (!evaluateFunction || !evaluateExprFunction) tala_fuzz::fail("the module functions of tala.python are missing");
    {
        const tala_fuzz::StepBudget budget(kSteps);
        const Any value = tala::resolve(evaluateExprFunction->invokeWith({code, locals, Any()}));
        tala_fuzz::expectNothingPending("tala.python.evaluate_expr");
        (void)tala::display(value);
        tala_fuzz::expectNothingPending("display");
    }
    {
        const tala_fuzz::StepBudget budget(kSteps);
        const Any value = tala::resolve(evaluateFunction->invokeWith({code, Any(), locals, Any()}));
        tala_fuzz::expectNothingPending("tala.python.evaluate");
        (void)tala::display(value);
        tala_fuzz::expectNothingPending("display");
    }
    return 0;
}
