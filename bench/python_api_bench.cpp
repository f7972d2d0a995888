// bench/python_api_bench.cpp: what the typed C++ API (tala/python.hpp) costs next to calling the module functions of
// "tala.python" through the object model by hand, and reading results as C++ values next to reading them through the
// object model's interfaces.
//
// The extension is loaded as an embedding host loads it. The hand-written sides are what a host wrote before the
// typed API: the function found by name on every call (as the README's example did), or found once and kept, with
// the locals made as a host map per call; a Python list read item by item through I_Sequence, a dict through I_Map.
// After the run the program prints each API benchmark's time as a multiple of its hand-written counterpart.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "ratio_reporter.hpp"
#include "tala/python.hpp"
#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::String;

void loadOnce() {
    static const Any loaded = tala::load_extension(TALA_PYTHON_EXTENSION_PATH);
    if (!loaded.isEmpty()) std::fprintf(stderr, "loading failed: %s\n", tala::display(loaded).c_str());
}

// The module function `name` of "tala.python", found through its property on the module.
tala::I_Invokable_Generic byName(const char* name) {
    const tala::Module module = *tala::Module::find("tala.python");
    const Any function = tala::property_of(module, name).as<tala::Property>().get(module);
    return tala::I_Invokable_Generic(tala::internal::unchecked, function);
}

// ---- One expression with one local ---------------------------------------------------------

void BM_Api_EvaluateExpr(benchmark::State& state) {
    loadOnce();
    for (auto _ : state) {
        const tala::Result<std::int64_t> result = tala::py::evaluate_expr("x + 1", {{"x", 41}}).to<std::int64_t>();
        if (result.value_or(0) != 42) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_Api_EvaluateExpr);

void BM_ByHand_EvaluateExprFoundByName(benchmark::State& state) {
    loadOnce();
    for (auto _ : state) {
        const tala::HashMap<String, Any> locals{{String("x"), tala::Integer(41)}};
        const Any result = tala::resolve(byName("evaluate_expr")(String("x + 1"), locals, Any()));
        if (result.kind() != tala::Kind::Integer || result.rawInteger() != 42) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_ByHand_EvaluateExprFoundByName);

void BM_ByHand_EvaluateExprFoundOnce(benchmark::State& state) {
    loadOnce();
    const tala::I_Invokable_Generic evaluateExpr = byName("evaluate_expr");
    for (auto _ : state) {
        const tala::HashMap<String, Any> locals{{String("x"), tala::Integer(41)}};
        const Any result = tala::resolve(evaluateExpr(String("x + 1"), locals, Any()));
        if (result.kind() != tala::Kind::Integer || result.rawInteger() != 42) state.SkipWithError("the evaluation failed");
    }
}
BENCHMARK(BM_ByHand_EvaluateExprFoundOnce);

// ---- Reading results -----------------------------------------------------------------------

// A Python list of 1,000 ints, or a dict of 1,000 str keys, made once.
const Any& pythonValue(const char* code) {
    static std::map<std::string, Any> made;
    auto found = made.find(code);
    if (found == made.end()) found = made.emplace(code, tala::py::evaluate_expr(code).toAny()).first;
    return found->second;
}

constexpr const char* kList = "list(range(1000))";
constexpr const char* kDict = "{str(n): n for n in range(1000)}";

void BM_Api_ListToVector(benchmark::State& state) {
    loadOnce();
    const Any& list = pythonValue(kList);
    for (auto _ : state) {
        const auto numbers = tala::to<std::vector<std::int64_t>>(list);
        if (!numbers || numbers->size() != 1000) state.SkipWithError("the conversion failed");
    }
}
BENCHMARK(BM_Api_ListToVector);

void BM_ByHand_ListThroughSequence(benchmark::State& state) {
    loadOnce();
    const tala::I_Sequence_Generic list(tala::internal::unchecked, pythonValue(kList));
    for (auto _ : state) {
        std::vector<std::int64_t> numbers;
        const std::int64_t length = tala::resolve(list.length()).rawInteger();
        numbers.reserve(static_cast<std::size_t>(length));
        for (std::int64_t index = 0; index < length; ++index) numbers.push_back(tala::resolve(list.at(index)).rawInteger());
        if (numbers.size() != 1000) state.SkipWithError("the reading failed");
    }
}
BENCHMARK(BM_ByHand_ListThroughSequence);

void BM_Api_DictToMap(benchmark::State& state) {
    loadOnce();
    const Any& dict = pythonValue(kDict);
    for (auto _ : state) {
        const auto numbers = tala::to<std::map<std::string, std::int64_t>>(dict);
        if (!numbers || numbers->size() != 1000) state.SkipWithError("the conversion failed");
    }
}
BENCHMARK(BM_Api_DictToMap);

void BM_ByHand_DictThroughMap(benchmark::State& state) {
    loadOnce();
    const tala::I_Map_Generic dict(tala::internal::unchecked, pythonValue(kDict));
    for (auto _ : state) {
        std::map<std::string, std::int64_t> numbers;
        const tala::List_Generic keys(tala::internal::unchecked, tala::resolve(dict.keys()));
        for (const Any& key : keys) {
            numbers.emplace(String(tala::internal::unchecked, key).toStdString(), tala::resolve(dict.get(key)).rawInteger());
        }
        if (numbers.size() != 1000) state.SkipWithError("the reading failed");
    }
}
BENCHMARK(BM_ByHand_DictThroughMap);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    tala_bench::RatioReporter reporter("The typed API's time as a multiple of the same work done by hand:");
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio("BM_Api_EvaluateExpr", "BM_ByHand_EvaluateExprFoundByName");
    reporter.printRatio("BM_Api_EvaluateExpr", "BM_ByHand_EvaluateExprFoundOnce");
    reporter.printRatio("BM_Api_ListToVector", "BM_ByHand_ListThroughSequence");
    reporter.printRatio("BM_Api_DictToMap", "BM_ByHand_DictThroughMap");
    benchmark::Shutdown();
    return 0;
}
