// tests/fuzz/host_values_fuzz.cpp: host values of every kind, built from the input by a small
// stack machine, converted to Python, used there the way scripts use them, and converted back.
//
// Each input byte is an instruction; its operands come from the following bytes. The machine
// pushes integers and floats at their edges, strings with invalid UTF-8 and NULs, byte arrays,
// nested lists, maps, sets and tuples (also ones that hold themselves), dates, times and
// date-times in range and out of it, decimals, errors, classes, functions that answer values,
// errors or throw, lazy values, modules and proxies of Python objects.
#include <fuzzer/FuzzedDataProvider.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "language/evaluate.hpp"
#include "proxies/python_proxy.hpp"

namespace {

using tala::Any;
using tala::HashMap;
using tala::Integer;
using tala::String;
using tala_fuzz::GilGuard;
using tala_fuzz::PyObjectPtr;

constexpr std::int64_t kIntegers[] = {0, 1, -1, std::numeric_limits<std::int64_t>::max(), std::numeric_limits<std::int64_t>::min(),
                                      std::numeric_limits<std::int32_t>::max(), std::int64_t{1} << 53, (std::int64_t{1} << 53) + 1};
constexpr double kFloats[] = {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                              -std::numeric_limits<double>::infinity(), -0.0, std::numeric_limits<double>::max(),
                              std::numeric_limits<double>::denorm_min(), 9223372036854775808.0, -9223372036854775808.0,
                              1e19, 0.5, 2.0};
constexpr const char* kDecimals[] = {"NaN", "sNaN", "-Infinity", "1E+999999999", "-0", "0.000", "1.10", "12345678901234567890.5", "x", ""};

// Host functions of several behaviours, made once.
const std::vector<Any>& functions() {
    static const std::vector<Any> made = [] {
        std::vector<Any> list;
        list.push_back(tala::native_function([](const Any& value) { return value; }, String("identity"), {String("value")}));
        list.push_back(tala::native_function([]() -> Any { return tala::Error(String("the host function failed")); }, String("failing")));
        list.push_back(tala::native_function([]() -> Any { throw std::runtime_error("thrown in the host"); }, String("throwing")));
        list.push_back(tala::make_function(
            String("count"), [](std::span<const Any> arguments) -> Any { return Integer(static_cast<std::int64_t>(arguments.size())); },
            tala::Signature({}, tala::Type::any())));
        list.push_back(tala::native_function([]() -> Any { return tala::Lazy<Any>([] { return Any(Integer(5)); }); }, String("lazy")));
        list.push_back(tala::native_function(
            []() -> Any { return tala::python::evaluate_expr(String("[1, 2]"), tala::None(), tala::None()); }, String("reenter")));
        return list;
    }();
    return made;
}

const std::vector<Any>& classes() {
    static const std::vector<Any> made = {
        tala::String::getClass(),         tala::List_Generic::getClass(), tala::HashMap_Generic::getClass(),
        tala::Error::getClass(),          tala::StopIteration::getClass(), tala::Date::getClass(),
        tala::Decimal::getClass(),        tala::Module::getClass(),       tala::python::PythonProxy::getClass(),
        tala::I_Iterable_Generic::getClass(), tala::Integer::getClass(),  tala::Tuple_Generic::getClass(),
    };
    return made;
}

class Machine {
public:
    explicit Machine(FuzzedDataProvider& input) : input_(input) {}

    void run() {
        for (int steps = 0; steps < 200 && input_.remaining_bytes() > 0; ++steps) {
            execute(input_.ConsumeIntegralInRange<int>(0, 23));
            tala_fuzz::expectNothingPending("making a host value");
        }
    }

    std::vector<Any>& stack() { return stack_; }

    // Breaks the cycles of containers that hold themselves, so that nothing outlives the run.
    ~Machine() {
        for (const Any& container : cyclic_) {
            if (auto list = tala::List_Generic::cast(container)) list->clear();
            if (auto map = tala::HashMap_Generic::cast(container)) map->clear();
        }
    }

private:
    void push(Any value) {
        if (stack_.size() >= 64) stack_.erase(stack_.begin());
        stack_.push_back(std::move(value));
    }
    Any pop() {
        if (stack_.empty()) return Any();
        Any value = std::move(stack_.back());
        stack_.pop_back();
        return value;
    }
    std::string bytes(std::size_t most) { return input_.ConsumeBytesAsString(input_.ConsumeIntegralInRange<std::size_t>(0, most)); }
    template <class T, std::size_t N>
    const T& pick(const T (&table)[N]) {
        return table[input_.ConsumeIntegralInRange<std::size_t>(0, N - 1)];
    }
    int count() { return input_.ConsumeIntegralInRange<int>(0, 5); }

    void execute(int instruction) {
        switch (instruction) {
            case 0: return push(Integer(pick(kIntegers)));
            case 1: return push(Integer(input_.ConsumeIntegral<std::int64_t>()));
            case 2: return push(tala::Float(pick(kFloats)));
            case 3: {
                const std::uint64_t bits = input_.ConsumeIntegral<std::uint64_t>();
                double value = 0;
                std::memcpy(&value, &bits, sizeof value);
                return push(tala::Float(value));
            }
            case 4: return push(String(bytes(40)));
            case 5: return push(tala::ByteArray(bytes(40)));
            case 6: {
                switch (input_.ConsumeIntegralInRange<int>(0, 3)) {
                    case 0: return push(Any());
                    case 1: return push(tala::Undefined());
                    default: return push(tala::Boolean(input_.ConsumeBool()));
                }
            }
            case 7: {
                tala::List<Any> list;
                for (int index = count(); index > 0; --index) list.append(pop());
                return push(list);
            }
            case 8: {
                HashMap<Any, Any> map;
                for (int index = count(); index > 0; --index) {
                    Any key = pop();
                    map.set(key, pop());
                }
                return push(map);
            }
            case 9: {
                tala::Set<Any> set;
                for (int index = count(); index > 0; --index) set.insert(pop());
                return push(set);
            }
            case 10: {
                std::vector<Any> items;
                for (int index = count(); index > 0; --index) items.push_back(pop());
                return push(tala::Tuple(std::move(items)));
            }
            case 11: return push(tala::Date(input_.ConsumeIntegral<std::int32_t>() % 12000, input_.ConsumeIntegral<std::uint8_t>() % 16,
                                            input_.ConsumeIntegral<std::uint8_t>() % 40));
            case 12: case 13: {
                const std::uint8_t hour = input_.ConsumeIntegral<std::uint8_t>() % 30;
                const std::uint8_t minute = input_.ConsumeIntegral<std::uint8_t>() % 70;
                const std::uint8_t second = input_.ConsumeIntegral<std::uint8_t>() % 70;
                const std::uint32_t nanoseconds = input_.ConsumeIntegral<std::uint32_t>();
                const tala::Time time = input_.ConsumeBool()
                                            ? tala::Time(hour, minute, second, nanoseconds)
                                            : tala::Time(hour, minute, second, nanoseconds, input_.ConsumeIntegral<std::int32_t>(),
                                                         String(bytes(8)), input_.ConsumeIntegral<std::uint8_t>());
                if (instruction == 12) return push(time);
                return push(tala::DateTime(tala::Date(input_.ConsumeIntegralInRange<std::int32_t>(-5, 10005),
                                                      input_.ConsumeIntegral<std::uint8_t>() % 14,
                                                      input_.ConsumeIntegral<std::uint8_t>() % 33),
                                           time));
            }
            case 14: {
                const std::string text = input_.ConsumeBool() ? std::string(pick(kDecimals)) : bytes(24);
                return push(tala::Decimal::fromString(text));  // a decimal, or the Error of bad text
            }
            case 15: {
                if (input_.ConsumeBool()) return push(tala::StopIteration());
                return push(tala::Error(String(bytes(30))));
            }
            case 16: return push(pick(classes().data(), classes().size()));
            case 17: return push(pick(functions().data(), functions().size()));
            case 18: {
                auto module = tala::Module::find(input_.ConsumeBool() ? "tala" : "tala.python");
                return push(module ? Any(*module) : Any());
            }
            case 19: {  // a container that holds itself
                if (stack_.empty()) return;
                const Any& value = stack_.back();
                if (auto list = tala::List_Generic::cast(value)) {
                    list->append(value);
                    cyclic_.push_back(value);
                } else if (auto map = tala::HashMap_Generic::cast(value)) {
                    map->set(String("me"), value);
                    cyclic_.push_back(value);
                }
                return;
            }
            case 20: {
                Any value = pop();
                const bool fails = input_.ConsumeBool();
                return push(tala::Lazy<Any>([value, fails]() -> Any { return fails ? Any(tala::Error(String("lazy failure"))) : value; }));
            }
            case 21: {  // a proxy of a Python object
                static const char* const kExpressions[] = {"[1, 'a', None]", "{'k': [1]}", "{1, 2}", "(n for n in range(3))", "object()", "len", "int"};
                return push(tala::python::evaluate_expr(String(pick(kExpressions)), tala::None(), tala::None()));
            }
            case 22: {
                if (stack_.empty()) return;
                return push(stack_[input_.ConsumeIntegralInRange<std::size_t>(0, stack_.size() - 1)]);
            }
            default: {  // deep nesting in lists
                Any value = pop();
                for (int depth = input_.ConsumeIntegralInRange<int>(1, 400); depth > 0; --depth) value = tala::List<Any>{value};
                return push(value);
            }
        }
    }
    Any pick(const Any* values, std::size_t size) { return values[input_.ConsumeIntegralInRange<std::size_t>(0, size - 1)]; }

    FuzzedDataProvider& input_;
    std::vector<Any> stack_;
    std::vector<Any> cyclic_;
};

// Uses a Python object the way scripts use the values they are given. Each operation may fail
// (with an exception, which is cleared) or succeed (with none pending).
void usePython(PyObject* object, PyObject* other, FuzzedDataProvider& input) {
    using tala_fuzz::expectConsistent;
    expectConsistent("len", PyObject_Length(object) < 0);
    expectConsistent("repr", PyObjectPtr::steal(PyObject_Repr(object)).get() == nullptr);
    expectConsistent("str", PyObjectPtr::steal(PyObject_Str(object)).get() == nullptr);
    expectConsistent("hash", PyObject_Hash(object) == -1);
    expectConsistent("bool", PyObject_IsTrue(object) < 0);
    expectConsistent("==", PyObjectPtr::steal(PyObject_RichCompare(object, other, Py_EQ)).get() == nullptr);
    expectConsistent("<", PyObjectPtr::steal(PyObject_RichCompare(object, other, Py_LT)).get() == nullptr);
    expectConsistent("in", PySequence_Contains(object, other) < 0);
    expectConsistent("dir", PyObjectPtr::steal(PyObject_Dir(object)).get() == nullptr);
    {
        PyObjectPtr iterator = PyObjectPtr::steal(PyObject_GetIter(object));
        expectConsistent("iter", !iterator);
        for (int index = 0; iterator && index < 12; ++index) {
            PyObjectPtr item = PyObjectPtr::steal(PyIter_Next(iterator.get()));
            if (!item) {
                PyErr_Clear();  // the end, or an error of the iteration
                break;
            }
        }
    }
    {
        PyObjectPtr key = PyObjectPtr::steal(PyLong_FromLong(input.ConsumeIntegralInRange<long>(-2, 3)));
        expectConsistent("[index]", PyObjectPtr::steal(PyObject_GetItem(object, key.get())).get() == nullptr);
        expectConsistent("[key]", PyObjectPtr::steal(PyObject_GetItem(object, other)).get() == nullptr);
    }
    static const char* const kNames[] = {"__class__", "__dict__", "__doc__", "length", "keys", "append", "__len__",
                                         "at",        "get",      "name",    "message", "year", "__module__", "__name__"};
    for (int index = 0; index < 3; ++index) {
        const std::string name = input.ConsumeBool() ? std::string(kNames[input.ConsumeIntegralInRange<int>(0, 13)])
                                                     : input.ConsumeRandomLengthString(12);
        PyObjectPtr attribute = PyObjectPtr::steal(PyObject_GetAttrString(object, name.c_str()));
        expectConsistent("getattr", !attribute);
        if (attribute && PyCallable_Check(attribute.get()) && input.ConsumeBool()) {
            expectConsistent("a method's call", PyObjectPtr::steal(PyObject_CallNoArgs(attribute.get())).get() == nullptr);
        }
    }
    if (PyCallable_Check(object)) {
        expectConsistent("call", PyObjectPtr::steal(PyObject_CallOneArg(object, other)).get() == nullptr);
    }
    expectConsistent("+", PyObjectPtr::steal(PyNumber_Add(object, other)).get() == nullptr);
}

// What a round trip must keep: containers and functions come back as the same host value;
// integers and valid texts come back equal.
void checkRoundTrip(const Any& value, const Any& back) {
    switch (value.kind()) {
        case tala::Kind::List:
        case tala::Kind::HashMap:
        case tala::Kind::Set:
        case tala::Kind::Function:
            if (!back.isSame(value)) tala_fuzz::fail("a round trip did not give the same " + tala::display(value).toStdString());
            return;
        case tala::Kind::Integer:
            if (back.kind() != tala::Kind::Integer || back.rawInteger() != value.rawInteger()) {
                tala_fuzz::fail("a round trip changed the integer " + tala::display(value).toStdString() + " into " + tala::display(back).toStdString());
            }
            return;
        case tala::Kind::String:
            if (!String::matches(back) || String(tala::internal::unchecked, back).view() != String(tala::internal::unchecked, value).view()) {
                tala_fuzz::fail("a round trip changed a string into " + tala::display(back).toStdString());
            }
            return;
        default:
            return;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tala_fuzz::start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    Machine machine(input);
    machine.run();
    std::vector<Any>& stack = machine.stack();
    GilGuard gil;
    PyObjectPtr previous = PyObjectPtr::borrow(Py_None);
    for (std::size_t index = 0; index < stack.size() && index < 6; ++index) {
        const Any& value = stack[stack.size() - 1 - index];
        PyObjectPtr object = PyObjectPtr::steal(tala::python::to_python(value));
        // A value Python cannot hold (an Error, a date out of range, text that is no UTF-8)
        // raises; anything else must convert without an exception left over.
        tala_fuzz::expectConsistent("to_python", !object);
        if (!object) continue;
        usePython(object.get(), previous.get(), input);
        const Any back = tala::python::from_python_result(object.get());
        tala_fuzz::expectNothingPending("from_python_result");
        checkRoundTrip(value, back);
        (void)tala::display(back);
        tala_fuzz::expectNothingPending("display");
        previous = std::move(object);
    }
    return 0;
}
