// tests/fuzz/python_values_fuzz.cpp: Python values of every kind, hostile ones among them, built
// from the input by a small stack machine, converted to host values and used by the host.
//
// Each input byte is an instruction; its operands come from the following bytes. The machine
// pushes plain values (edges of ints and floats, huge ints, texts with NULs and lone surrogates,
// bytes, decimals, dates and times), containers of what is on the stack, self-containing
// containers, deep nesting, exceptions (also ones that carry a value in their `tala`
// attribute), callables and classes, and objects whose protocol methods raise, return the wrong
// type or return themselves. At the end, the values on top of the stack go to the host.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz_support.hpp"

namespace {

using tala::Any;
using tala_fuzz::GilGuard;
using tala_fuzz::PyObjectPtr;

// The Python side of the machine: factories for values that are awkward to make from C.
constexpr const char* kKit = R"(
import datetime, decimal, fractions, math, itertools, collections

LIMIT = 64  # every hostile method raises after this many calls on one object: loops end
# The wrong-typed answer that is no text: one object for all. CPython 3.13.0 itself keeps a
# reference to whatever __hash__ returns when that is no int (hash() leaks it), which a fresh
# object would turn into a leak report that is none of ours.
WRONG = object()

class Hostile:
    """Protocol methods that misbehave by `mode`: 3 bits a method. 0 behaves, 1 raises, 2 gives
    the wrong type, 3 gives the object itself, 4 gives NotImplemented, 5 gives a huge int,
    6 gives -1, 7 raises KeyboardInterrupt."""

    def __init__(self, mode=0, *args):
        self._mode = mode
        self._calls = 0

    def _act(self, slot, good):
        calls = object.__getattribute__(self, '_calls') + 1
        object.__setattr__(self, '_calls', calls)
        if calls > LIMIT:
            raise RuntimeError('enough')
        how = (object.__getattribute__(self, '_mode') >> (3 * slot)) & 7
        if how == 0:
            return good()
        if how == 1:
            raise ValueError('hostile ' + str(slot))
        if how == 2:
            return 'wrong' if slot % 2 else WRONG
        if how == 3:
            return self
        if how == 4:
            return NotImplemented
        if how == 5:
            return 2 ** 100
        if how == 6:
            return -1
        raise KeyboardInterrupt('hostile')

def throw(kind, *args):
    raise kind(*args)

def item(key):
    if isinstance(key, int) and -3 <= key < 3:
        return [1, 2, 3][key]
    throw(IndexError if isinstance(key, int) else KeyError, key)

METHODS = {
    '__iter__': lambda self: self._act(0, lambda: iter([1, 2, 3])),
    '__next__': lambda self: self._act(1, lambda: throw(StopIteration)),
    '__len__': lambda self: self._act(2, lambda: 3),
    '__getitem__': lambda self, key: self._act(3, lambda: item(key)),
    '__eq__': lambda self, other: self._act(4, lambda: self is other),
    '__lt__': lambda self, other: self._act(5, lambda: False),
    '__hash__': lambda self: self._act(6, lambda: 7),
    '__str__': lambda self: self._act(7, lambda: 'hostile'),
    '__repr__': lambda self: self._act(8, lambda: 'Hostile()'),
    '__index__': lambda self: self._act(9, lambda: 3),
    '__float__': lambda self: self._act(10, lambda: 1.5),
    '__int__': lambda self: self._act(11, lambda: 3),
    '__bool__': lambda self: self._act(12, lambda: True),
    '__contains__': lambda self, item: self._act(13, lambda: False),
    '__call__': lambda self, *args, **kwargs: self._act(14, lambda: 42),
    'keys': lambda self: self._act(15, lambda: ['a']),
    '__getattr__': lambda self, name: self._act(16, lambda: throw(AttributeError, name)),
    'get': lambda self, key, default=None: self._act(17, lambda: default),
    '__del__': lambda self: None,
}
NAMES = sorted(METHODS)
BASES = [object, list, dict, set, str, int, float, tuple, Exception, bytes, frozenset, bytearray]
classes = {}

def hostile(mask, base_index, mode, payload):
    key = (mask, base_index)
    cls = classes.get(key)
    if cls is None:
        members = {name: METHODS[name] for bit, name in enumerate(NAMES) if mask >> bit & 1}
        members['_act'] = Hostile._act
        members['__init__'] = Hostile.__init__
        base = BASES[base_index % len(BASES)]
        if base is not object:
            members['__new__'] = lambda cls, mode=0, *args: base.__new__(cls, *args)
        cls = classes[key] = type('Hostile%d_%d' % (mask, base_index), (base,), members)
    base = cls.__bases__[0]
    if isinstance(payload, int) and base in (bytes, bytearray):
        payload %= 64  # bytes(n) allocates n bytes: keep it small
    try:
        if payload is not None and base in (tuple, frozenset, str, bytes, int, float):
            made = base.__new__(cls, payload)
            made.__init__(mode)
        else:
            made = cls(mode)
        if payload is not None and base is list:
            list.extend(made, payload)
        elif payload is not None and base is dict:
            dict.update(made, payload)
        elif payload is not None and base is set:
            set.update(made, payload)
        return made
    except Exception:
        return cls(mode)

def decimal_of(text):
    made = decimal.Decimal(text)
    # int() of a decimal whose exponent is near a billion runs for hours in any Python (the host
    # walks values by calling classes such as int with them): exponents stay where that is quick.
    if made.is_finite() and abs(made.adjusted()) > 100000:
        made = made.scaleb((100000 if made.adjusted() > 0 else -100000) - made.adjusted())
    return made

def with_carried(exception, carried):
    exception.tala = carried
    return exception

def nest(value, depth, kind):
    for _ in range(depth):
        value = [value] if kind == 0 else (value,) if kind == 1 else {'k': value}
    return value

def self_containing(kind):
    if kind == 0:
        made = []; made.append(made); made.append(1)
    elif kind == 1:
        made = {}; made['self'] = made
    elif kind == 2:
        inner = []; made = (inner,); inner.append(made)
    else:
        made = Hostile(0); made.me = made
    return made

def aware_time(hour, minute, second, micro, offset_minutes, fold, name):
    zone = datetime.timezone(datetime.timedelta(minutes=offset_minutes), name) if name else datetime.timezone(datetime.timedelta(minutes=offset_minutes))
    return datetime.time(hour, minute, second, micro, tzinfo=zone, fold=fold)

def odd_tz_time(hour, mode):
    class Odd(datetime.tzinfo):
        def utcoffset(self, dt):
            if mode == 0: raise ValueError('no offset')
            if mode == 1: return datetime.timedelta(hours=1)
            return None
        def tzname(self, dt):
            if mode == 1: raise ValueError('no name')
            return 'ODD'
        def dst(self, dt):
            return None
    return datetime.time(hour % 24, tzinfo=Odd())

CALLABLES = [len, repr, str, int, list, dict, tuple, sorted, abs, lambda *a, **k: a, Hostile,
             lambda: 1 / 0, math.sqrt, max, iter, next, divmod, isinstance, hash, bool, type]
# Nothing here may iterate for ever: the host joins and walks what it is given.
OTHERS = [Ellipsis, NotImplemented, range(5), range(0), slice(1, 2), 3 + 4j, memoryview(b'abc'),
          fractions.Fraction(1, 3), itertools.islice(itertools.count(), 4), (n for n in range(3)), iter([1, 2]),
          collections.OrderedDict(a=1), collections.deque([1, 2]), frozenset({1, 2}), math,
          int, type, object(), datetime.timedelta(days=1), decimal.Decimal, Exception, KeyError('k'),
          StopIteration(), SyntaxError('bad', ('<x>', 1, 2, 'x = (', 1, 3)), BaseException('base')]
DECIMALS = ['NaN', '-NaN', 'sNaN', 'Infinity', '-Infinity', '1E+999999999', '1E-999999999', '-0',
            '0E-1000', '1.10', '123456789012345678901234567890.123456789']
FLOATS = [float('nan'), float('inf'), float('-inf'), -0.0, 1e308, 5e-324, 2.0 ** 63, -2.0 ** 63,
          2.0 ** 64, 0.5, 1.0, -1.0]
INTS = [0, -1, 1, 2 ** 63 - 1, -2 ** 63, 2 ** 63, -2 ** 63 - 1, 2 ** 64, 2 ** 100, -10 ** 40, True, False]
)";

struct Kit {
    PyObjectPtr globals;
    PyObject* get(const char* name) const { return PyDict_GetItemString(globals.get(), name); }  // borrowed
};

const Kit& kit() {
    static const Kit made{tala_fuzz::runSetup(kKit)};
    return made;
}

// The stack machine; every value it makes is a new reference held by the stack.
class Machine {
public:
    explicit Machine(FuzzedDataProvider& input) : input_(input) {}

    void run() {
        for (int steps = 0; steps < 200 && input_.remaining_bytes() > 0; ++steps) {
            execute(input_.ConsumeIntegralInRange<int>(0, 25));
            // A factory may raise (a value out of range, an unhashable key): that is no finding,
            // the value is just not made.
            PyErr_Clear();
        }
    }

    std::vector<PyObjectPtr>& stack() { return stack_; }
    // Whether the input made values that may hold themselves, which only a collection frees.
    bool madeCycles() const { return madeCycles_; }

private:
    void push(PyObject* made) {
        if (made == nullptr) {
            PyErr_Clear();
            made = Py_NewRef(Py_None);
        }
        if (stack_.size() >= 64) stack_.erase(stack_.begin());
        stack_.push_back(PyObjectPtr::steal(made));
    }
    PyObject* top() { return stack_.empty() ? Py_None : stack_.back().get(); }
    PyObjectPtr pop() {
        if (stack_.empty()) return PyObjectPtr::borrow(Py_None);
        PyObjectPtr value = std::move(stack_.back());
        stack_.pop_back();
        return value;
    }
    PyObject* pick(const char* list) {
        PyObject* items = kit().get(list);
        const Py_ssize_t count = PyList_Size(items);
        return Py_NewRef(PyList_GetItem(items, input_.ConsumeIntegralInRange<Py_ssize_t>(0, count - 1)));
    }
    PyObject* call(const char* function, const char* format, ...) {
        // Every format here is a parenthesised tuple.
        va_list arguments;
        va_start(arguments, format);
        PyObjectPtr tuple = PyObjectPtr::steal(Py_VaBuildValue(format, arguments));
        va_end(arguments);
        if (!tuple) return nullptr;
        return PyObject_Call(kit().get(function), tuple.get(), nullptr);
    }
    std::string bytes(std::size_t most) { return input_.ConsumeBytesAsString(input_.ConsumeIntegralInRange<std::size_t>(0, most)); }

    // A container of the top `count` values (popped); sets and dicts of unhashable items fail.
    PyObject* collect(int kind) {
        const int count = input_.ConsumeIntegralInRange<int>(0, 6);
        PyObjectPtr list = PyObjectPtr::steal(PyList_New(0));
        for (int index = 0; index < count; ++index) PyList_Append(list.get(), pop().get());
        switch (kind) {
            case 0: return list.release();
            case 1: return PyList_AsTuple(list.get());
            case 2: return PySet_New(list.get());
            case 3: return PyFrozenSet_New(list.get());
            default: {
                PyObjectPtr dict = PyObjectPtr::steal(PyDict_New());
                for (Py_ssize_t index = 0; index + 1 < PyList_Size(list.get()); index += 2) {
                    if (PyDict_SetItem(dict.get(), PyList_GetItem(list.get(), index), PyList_GetItem(list.get(), index + 1)) < 0) {
                        PyErr_Clear();
                    }
                }
                return dict.release();
            }
        }
    }

    void execute(int instruction) {
        if (instruction == 16 || instruction == 17 || instruction == 19 || instruction == 23) madeCycles_ = true;
        switch (instruction) {
            case 0: return push(pick("INTS"));
            case 1: return push(PyLong_FromLongLong(input_.ConsumeIntegral<std::int64_t>()));
            case 2: {  // a huge int: 1 << bits, negated or not
                PyObjectPtr one = PyObjectPtr::steal(PyLong_FromLong(1));
                PyObjectPtr bits = PyObjectPtr::steal(PyLong_FromLong(input_.ConsumeIntegralInRange<long>(60, 70000)));
                PyObjectPtr huge = PyObjectPtr::steal(PyNumber_Lshift(one.get(), bits.get()));
                return push(input_.ConsumeBool() && huge ? PyNumber_Negative(huge.get()) : huge.release());
            }
            case 3: return push(pick("FLOATS"));
            case 4: return push(PyFloat_FromDouble(input_.ConsumeFloatingPoint<double>()));
            case 5: {  // raw bits: any NaN payload
                const std::uint64_t bits = input_.ConsumeIntegral<std::uint64_t>();
                double value = 0;
                std::memcpy(&value, &bits, sizeof value);
                return push(PyFloat_FromDouble(value));
            }
            case 6: {  // text from UTF-8 that may hold NULs and lone surrogates
                const std::string text = bytes(40);
                return push(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "surrogatepass"));
            }
            case 7: {  // text from code points, surrogates and the largest included
                const int count = input_.ConsumeIntegralInRange<int>(0, 8);
                std::vector<Py_UCS4> points;
                for (int index = 0; index < count; ++index) points.push_back(input_.ConsumeIntegralInRange<Py_UCS4>(0, 0x10FFFF));
                return push(PyUnicode_FromKindAndData(PyUnicode_4BYTE_KIND, points.data(), static_cast<Py_ssize_t>(points.size())));
            }
            case 8: {
                const std::string data = bytes(40);
                return push(input_.ConsumeBool() ? PyBytes_FromStringAndSize(data.data(), static_cast<Py_ssize_t>(data.size()))
                                                 : PyByteArray_FromStringAndSize(data.data(), static_cast<Py_ssize_t>(data.size())));
            }
            case 9: {  // a decimal from an edge text or from the input's bytes
                if (input_.ConsumeBool()) {
                    PyObjectPtr text = PyObjectPtr::steal(pick("DECIMALS"));
                    return push(call("decimal_of", "(O)", text.get()));
                }
                const std::string text = bytes(24);
                return push(call("decimal_of", "(s#)", text.data(), static_cast<Py_ssize_t>(text.size())));
            }
            case 10: {  // dates, times and date-times, in range or not
                PyObjectPtr datetime = PyObjectPtr::steal(PyImport_ImportModule("datetime"));
                if (!datetime) return push(nullptr);
                const int year = input_.ConsumeIntegralInRange<int>(-1, 10000);
                const int month = input_.ConsumeIntegralInRange<int>(0, 13);
                const int day = input_.ConsumeIntegralInRange<int>(0, 32);
                const int hour = input_.ConsumeIntegralInRange<int>(0, 24);
                const int micro = input_.ConsumeIntegralInRange<int>(0, 1000000);
                switch (input_.ConsumeIntegralInRange<int>(0, 4)) {
                    case 0: return push(PyObject_CallMethod(datetime.get(), "date", "iii", year, month, day));
                    case 1: return push(PyObject_CallMethod(datetime.get(), "time", "iiii", hour, day, month, micro));
                    case 2: return push(PyObject_CallMethod(datetime.get(), "datetime", "iiiiiii", year, month, day, hour, 0, 0, micro));
                    case 3: {
                        const std::string name = bytes(6);
                        return push(call("aware_time", "(iiiiiis#)", hour, day, month, micro, input_.ConsumeIntegralInRange<int>(-1500, 1500),
                                         input_.ConsumeIntegralInRange<int>(0, 1), name.data(), static_cast<Py_ssize_t>(name.size())));
                    }
                    default: return push(call("odd_tz_time", "(ii)", hour, input_.ConsumeIntegralInRange<int>(0, 2)));
                }
            }
            case 11: case 12: case 13: case 14: case 15: return push(collect(instruction - 11));
            case 16: {  // a hostile object: which methods, which builtin base, how they misbehave
                const unsigned mask = input_.ConsumeIntegral<std::uint32_t>() & 0x7FFFFu;
                const int base = input_.ConsumeIntegralInRange<int>(0, 11);
                const unsigned long long mode = input_.ConsumeIntegral<std::uint64_t>();
                PyObjectPtr payload = input_.ConsumeBool() ? pop() : PyObjectPtr::borrow(Py_None);
                return push(call("hostile", "(IiKO)", mask, base, mode, payload.get()));
            }
            case 17: return push(call("self_containing", "(i)", input_.ConsumeIntegralInRange<int>(0, 3)));
            case 18: {  // deep nesting of the top value
                PyObjectPtr value = pop();
                return push(call("nest", "(Oii)", value.get(), input_.ConsumeIntegralInRange<int>(1, 600), input_.ConsumeIntegralInRange<int>(0, 2)));
            }
            case 19: {  // an exception, with a message or carrying a value in `tala`
                const std::string text = bytes(20);
                PyObjectPtr exception = PyObjectPtr::steal(
                    PyObject_CallFunction(input_.ConsumeBool() ? PyExc_ValueError : PyExc_KeyError, "s#", text.data(), static_cast<Py_ssize_t>(text.size())));
                if (!exception || !input_.ConsumeBool()) return push(exception.release());
                PyObjectPtr carried = input_.ConsumeBool() ? PyObjectPtr::borrow(exception.get()) : pop();
                return push(call("with_carried", "(OO)", exception.get(), carried.get()));
            }
            case 20: return push(pick("CALLABLES"));
            case 21: return push(pick("OTHERS"));
            case 22: return push(Py_NewRef(input_.ConsumeBool() ? Py_None : input_.ConsumeBool() ? Py_True : Py_False));
            case 23: {  // a container that holds itself after the fact
                PyObject* value = top();
                if (PyList_Check(value)) PyList_Append(value, value);
                else if (PyDict_Check(value)) PyDict_SetItemString(value, "me", value);
                return;
            }
            case 24: {  // duplicate a value further down
                if (stack_.empty()) return;
                const std::size_t at = input_.ConsumeIntegralInRange<std::size_t>(0, stack_.size() - 1);
                return push(Py_NewRef(stack_[at].get()));
            }
            default: {  // a host value wrapped for Python
                tala::List<Any> list{tala::Integer(1), tala::String("two")};
                return push(tala::python::to_python(input_.ConsumeBool() ? Any(list) : Any(tala::HashMap<tala::String, Any>{{tala::String("k"), list}})));
            }
        }
    }

    FuzzedDataProvider& input_;
    std::vector<PyObjectPtr> stack_;
    bool madeCycles_ = false;
};

// Breaks the reference cycles the machine made (self-containing containers), so that what the
// input made is freed at the end of the run and any leak is ours.
void collectGarbage() {
    GilGuard gil;
    PyGC_Collect();
    PyErr_Clear();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    tala_fuzz::start();
    (void)kit();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    bool madeCycles = false;
    {
        GilGuard gil;
        Machine machine(input);
        machine.run();
        std::vector<PyObjectPtr>& stack = machine.stack();
        // The top values go to the host, each walked with the one below it as the other operand.
        std::vector<Any> values;
        for (std::size_t index = 0; index < stack.size() && index < 6; ++index) {
            PyObject* object = stack[stack.size() - 1 - index].get();
            values.push_back(tala::python::from_python_result(object));
            tala_fuzz::expectNothingPending("from_python_result");
        }
        tala_fuzz::Walker walker(input, 120, true);
        for (std::size_t index = 0; index < values.size(); ++index) {
            walker.walk(values[index], index + 1 < values.size() ? values[index + 1] : Any());
        }
        madeCycles = machine.madeCycles();
    }
    if (madeCycles) collectGarbage();
    return 0;
}
