// bench/object_model_bench.cpp: the cost of using classes: calling a native method by position and
// by name, reading a property, and finding a method on classes of different depths.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace {

using tala::Any;
using tala::Class_Generic;
using tala::ClassBuilder;
using tala::Identifier;
using tala::Integer;
using tala::String;

const Identifier kValue{"$value"};
const Identifier kAdd{"$add"};
const Identifier kRootMethod{"$rootMethod"};

// A class with a field, a property reading it, and a native method with two integer parameters.
Class_Generic calculatorClass() {
    static const Class_Generic cls = ClassBuilder("BenchCalculator")
                                         .field(kValue)
                                         .property(kValue, [](const Any& self) { return self.fieldValue(kValue); })
                                         .method(kAdd,
                                                 [](const Any&, std::int64_t a, std::int64_t b) { return a + b; },
                                                 {"a", "b"}, "Adds two integers.")
                                         .build();
    return cls;
}

Any calculator() {
    Any instance = tala::make_instance(calculatorClass());
    instance.setFieldValue(kValue, Integer(42));
    return instance;
}

tala::I_Invokable_Generic addMethod() {
    return tala::raw_method_of(calculator(), kAdd).as<tala::I_Invokable_Generic>();
}

// Receiver and both arguments in a plain array.
void BM_InvokeMethodWithSpan(benchmark::State& state) {
    const auto method = addMethod();
    const Any arguments[] = {calculator(), Integer(20), Integer(22)};
    for (auto _ : state) {
        Any result = method.invokeWith(std::span<const Any>(arguments));
        benchmark::DoNotOptimize(result);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InvokeMethodWithSpan);

// The same arguments in a List.
void BM_InvokeMethodWithList(benchmark::State& state) {
    const auto method = addMethod();
    const tala::List<Any> arguments{calculator(), Integer(20), Integer(22)};
    for (auto _ : state) {
        Any result = method.invokeWith(arguments);
        benchmark::DoNotOptimize(result);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InvokeMethodWithList);

// The same arguments by name: the receiver as "self", then "a" and "b".
void BM_InvokeMethodWithNamedArguments(benchmark::State& state) {
    const auto method = addMethod();
    tala::HashMap<String, Any> arguments;
    arguments.set(String("self"), calculator());
    arguments.set(String("a"), Integer(20));
    arguments.set(String("b"), Integer(22));
    for (auto _ : state) {
        Any result = method.invokeWith(arguments);
        benchmark::DoNotOptimize(result);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_InvokeMethodWithNamedArguments);

// Finding the property and reading it, as a language bridge does for `obj.value`.
void BM_PropertyOfAndGet(benchmark::State& state) {
    const Any instance = calculator();
    for (auto _ : state) {
        auto property = tala::property_of(instance, kValue);
        Any value = property.as<tala::Property>().get(instance);
        benchmark::DoNotOptimize(value);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PropertyOfAndGet);

// A chain of classes `depth` parents below the class that defines the method.
Class_Generic classBelowRoot(int depth) {
    static const Class_Generic root =
        ClassBuilder("BenchRoot").method(kRootMethod, [](const Any&) { return std::int64_t(1); }).build();
    static std::vector<Class_Generic> chain{root};
    while (static_cast<int>(chain.size()) <= depth) {
        const std::string name = "BenchLevel" + std::to_string(chain.size());
        chain.push_back(ClassBuilder(String(name)).parent(chain.back()).build());
    }
    return chain[static_cast<std::size_t>(depth)];
}

// raw_method_of on an instance: the object's own members, then one probe of the flattened table.
void BM_RawMethodOfByDepth(benchmark::State& state) {
    const Any instance = tala::make_instance(classBelowRoot(static_cast<int>(state.range(0))));
    for (auto _ : state) {
        auto method = tala::raw_method_of(instance, kRootMethod);
        benchmark::DoNotOptimize(method);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RawMethodOfByDepth)->ArgName("depth")->Arg(1)->Arg(3)->Arg(8);

// ClassCell::findMethod alone: one probe of the flattened table, whatever the depth.
void BM_FindMethodByDepth(benchmark::State& state) {
    const Class_Generic cls = classBelowRoot(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const Any* method = cls.cell()->findMethod(kRootMethod);
        benchmark::DoNotOptimize(method);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindMethodByDepth)->ArgName("depth")->Arg(1)->Arg(3)->Arg(8);

}  // namespace

BENCHMARK_MAIN();
