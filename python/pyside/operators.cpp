// python/pyside/operators.cpp: Python protocols (numbers, sequences, mappings, iteration, hashing, text, comparison) on wrapped host values.
#include <algorithm>
#include <string_view>
#include <vector>

#include "bridge/errors.hpp"
#include "bridge/from_python.hpp"
#include "bridge/to_python.hpp"
#include "extension/gil.hpp"
#include "pyside/slot_guard.hpp"
#include "pyside/slots.hpp"
#include "pyside/tala_object.hpp"

namespace tala::python {

namespace {

// A host error raises its own exception type (RuntimeError for a plain error), so that an index
// out of range is also Python's IndexError and a wrong argument its TypeError.
bool raiseIfError(const Any& result) {
    if (auto error = Error::cast(result)) {
        raise_host_error(*error);
        return true;
    }
    return false;
}

// The host value of a wrapper operand, or nothing (no error set).
std::optional<Any> operand(PyObject* object) {
    const Any* wrapped = wrappedHostValue(object);
    if (wrapped == nullptr) return std::nullopt;
    return *wrapped;
}

Any callWith(const I_Invokable_Generic& method, const Any& receiver, std::initializer_list<Any> arguments) {
    std::vector<Any> all;
    all.reserve(arguments.size() + 1);
    if (!method.isIndependent()) all.push_back(receiver);
    all.insert(all.end(), arguments.begin(), arguments.end());
    return resolve(method.invokeWith(all));
}

// ---- The binary operator family --------------------------------------------------------------

struct BinaryOperator {
    const Identifier* first;
    const char* fallback;  // the method looked up when the first is absent, or null
    const char* missing;   // the NotImplementedError text; "{}" is the wrapped value
};

PyObject* binary(PyObject* left, PyObject* right, const BinaryOperator& op) {
    GilGuard gil;
    auto wrapped = operand(left);
    // A host value on the right of a plain operand (5 - x) is not handled here. A slot must not
    // return null without an exception set (the interpreter turns it into SystemError, or stops
    // on an assertion): NotImplemented lets Python report the unsupported operands itself.
    if (!wrapped) Py_RETURN_NOTIMPLEMENTED;
    const Any value = internal::unwrap(*wrapped);
    if (Error::matches(value)) return toPythonLocked(value);
    auto method = method_of(value, *op.first);
    if (method.isEmpty() && op.fallback != nullptr) method = method_of(value, std::string_view(op.fallback));
    if (method.isEmpty()) {
        PyErr_SetString(PyExc_NotImplementedError, String(op.missing).arg(*wrapped).c_str());
        return nullptr;
    }
    Any other = fromPythonLocked(right);
    if (PyErr_Occurred() != nullptr) return nullptr;
    Any result = callWith(method.as<I_Invokable_Generic>(), value, {other});
    if (raiseIfError(result)) return nullptr;
    return toPythonLocked(result);
}

const BinaryOperator kSubtract{&Any::$__sub__, nullptr, "[tala_number_subtract] None method '__sub__' in: {}"};
const BinaryOperator kInplaceSubtract{&Any::$__isub__, nullptr, "[tala_number_inplace_subtract] None method '__isub__' in: {}"};
const BinaryOperator kDivide{&Any::$__div__, nullptr, "[tala_number_divide] None method '__div__' in: {}."};
const BinaryOperator kInplaceDivide{&Any::$__idiv__, nullptr, "[tala_number_divide] None method '__idiv__' in: {}."};
const BinaryOperator kConcat{&Any::$__add__, "concat", "[tala_sequence_concat] None method 'concat' in: {}"};
const BinaryOperator kExtend{&Any::$__iadd__, "extend", "[tala_sequence_extend] None method 'extend' in: {}."};
const BinaryOperator kRepeat{&Any::$__mul__, "repeat", "[tala_sequence_repeat] None method 'repeat' in: {}."};
const BinaryOperator kInplaceRepeat{&Any::$__imul__, nullptr, "[tala_sequence_inplace_repeat] None method '__imul__' in: {}."};

PyObject* subtractSlot(PyObject* a, PyObject* b) { return guarded<PyObject*>(nullptr, [&] { return binary(a, b, kSubtract); }); }
PyObject* inplaceSubtractSlot(PyObject* a, PyObject* b) {
    return guarded<PyObject*>(nullptr, [&] { return binary(a, b, kInplaceSubtract); });
}
PyObject* divideSlot(PyObject* a, PyObject* b) { return guarded<PyObject*>(nullptr, [&] { return binary(a, b, kDivide); }); }
PyObject* inplaceDivideSlot(PyObject* a, PyObject* b) {
    return guarded<PyObject*>(nullptr, [&] { return binary(a, b, kInplaceDivide); });
}
PyObject* concatSlot(PyObject* a, PyObject* b) { return guarded<PyObject*>(nullptr, [&] { return binary(a, b, kConcat); }); }
PyObject* extendSlot(PyObject* a, PyObject* b) { return guarded<PyObject*>(nullptr, [&] { return binary(a, b, kExtend); }); }

PyObject* countOperand(Py_ssize_t count) { return PyLong_FromSsize_t(count); }
PyObject* repeatSlot(PyObject* a, Py_ssize_t count) {
    return guarded<PyObject*>(nullptr, [&] {
        PyObjectPtr number = PyObjectPtr::steal(countOperand(count));
        return binary(a, number.get(), kRepeat);
    });
}
PyObject* inplaceRepeatSlot(PyObject* a, Py_ssize_t count) {
    return guarded<PyObject*>(nullptr, [&] {
        PyObjectPtr number = PyObjectPtr::steal(countOperand(count));
        return binary(a, number.get(), kInplaceRepeat);
    });
}

// ---- Sequences and mappings ------------------------------------------------------------------

Py_ssize_t length(PyObject* self) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) return 0;
    Any result = resolve(internal::readMember(*value, Any::$$length));
    if (raiseIfError(result)) return -1;
    if (result.kind() != Kind::Integer) {
        PyErr_SetString(PyExc_RuntimeError, "The length is not an integer.");
        return -1;
    }
    return static_cast<Py_ssize_t>(result.rawInteger());
}

int contains(PyObject* self, PyObject* item) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) return 0;
    Any other = fromPythonLocked(item);
    if (PyErr_Occurred() != nullptr) return -1;
    Any result = resolve(internal::callMember(*value, Any::$contains, {other}));
    if (raiseIfError(result)) return -1;
    return result.kind() == Kind::Boolean && result.rawBoolean() ? 1 : 0;
}

PyObject* item(PyObject* self, Py_ssize_t index) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) Py_RETURN_NONE;
    Any result = resolve(internal::callMember(*value, Any::$at, {Integer(index)}));
    if (raiseIfError(result)) return nullptr;
    return toPythonLocked(result);
}

// Deletion by index: removeAt takes a count where the implementation asks for one.
Any removeAt(const Any& value, const Any& index) {
    auto method = method_of(value, Any::$removeAt);
    if (method.isEmpty()) return Error(String("None method 'removeAt' in: {}.").arg(value));
    const auto invokable = method.as<I_Invokable_Generic>();
    if (invokable.signature().parameterCount() >= 2) return callWith(invokable, value, {index, Integer(1)});
    return callWith(invokable, value, {index});
}

int assignItem(PyObject* self, Py_ssize_t index, PyObject* newValue) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) return 0;
    Any result;
    if (newValue == nullptr) {
        result = resolve(removeAt(*value, Integer(index)));
    } else {
        Any converted = fromPythonLocked(newValue);
        if (PyErr_Occurred() != nullptr) return -1;
        result = resolve(internal::callMember(*value, Any::$set, {Integer(index), converted}));
    }
    return raiseIfError(result) ? -1 : 0;
}

void raiseKeyError(const Any& key) {
    PyObjectPtr text = PyObjectPtr::steal(PyUnicode_FromString(display(key).c_str()));
    PyErr_SetObject(PyExc_KeyError, text.get());
}

// A key that is no position, for a value that is no map: a mapping kind of class misses the key;
// a plain sequence refuses it as Python's sequences do.
void refuseKey(const Any& value, PyObject* keyObject, const Any& key) {
    if (class_of(value).hasFlag(class_flags::Mapping)) {
        raiseKeyError(key);
    } else {
        PyErr_Format(PyExc_TypeError, "sequence index must be integer, not '%.200s'", Py_TYPE(keyObject)->tp_name);
    }
}

// The answer of a map's `get` or `remove`: an error of the plain kind that maps give for a key
// they lack is Python's KeyError with the key's display text; an error of any other class keeps
// its own exception type. Answers whether the caller may go on.
bool acceptMapAnswer(const Any& answer, const Any& key) {
    auto error = Error::cast(answer);
    if (!error) return true;
    if (raw_class_of(*error) == Error::getClass() && !error->exception()) {
        raiseKeyError(key);
    } else {
        raise_host_error(*error);
    }
    return false;
}

// ---- Positions and slices of sequences --------------------------------------------------------

std::optional<Py_ssize_t> sequenceLength(const Any& value) {
    Any result = resolve(internal::readMember(value, Any::$$length));
    if (raiseIfError(result)) return std::nullopt;
    if (result.kind() != Kind::Integer) {
        PyErr_SetString(PyExc_RuntimeError, "The length is not an integer.");
        return std::nullopt;
    }
    return static_cast<Py_ssize_t>(result.rawInteger());
}

// A position as Python counts it: a negative one from the end. Positions the sequence does not
// have stay as they are, for the sequence to refuse.
std::optional<std::int64_t> position(const Any& value, std::int64_t index) {
    if (index >= 0) return index;
    auto length = sequenceLength(value);
    if (!length) return std::nullopt;
    if (index + *length < 0) {
        raise_host_error(OutOfRangeError(String("Index out of range: {}, size: {}.").arg(Integer(index), Integer(*length))));
        return std::nullopt;
    }
    return index + *length;
}

struct SliceRange {
    Py_ssize_t start = 0;
    Py_ssize_t step = 1;
    Py_ssize_t count = 0;
    Py_ssize_t at(Py_ssize_t i) const { return start + i * step; }
};

std::optional<SliceRange> sliceRange(const Any& value, PyObject* slice) {
    SliceRange range;
    Py_ssize_t stop = 0;
    if (PySlice_Unpack(slice, &range.start, &stop, &range.step) < 0) return std::nullopt;
    auto length = sequenceLength(value);
    if (!length) return std::nullopt;
    range.count = PySlice_AdjustIndices(*length, &range.start, &stop, range.step);
    return range;
}

// value[start:stop:step]: a new host list of those elements, announced as the source's are.
PyObject* sliceOf(const Any& value, PyObject* slice) {
    auto range = sliceRange(value, slice);
    if (!range) return nullptr;
    if (auto list = List_Generic::cast(value)) return toPythonLocked(list->slice(range->start, range->step, range->count));
    List<Any> result;
    result.reserve(static_cast<std::size_t>(range->count));
    for (Py_ssize_t i = 0; i < range->count; ++i) {
        Any item = resolve(internal::callMember(value, Any::$at, {Integer(range->at(i))}));
        if (raiseIfError(item)) return nullptr;
        result.append(std::move(item));
    }
    return toPythonLocked(result);
}

// del value[start:stop:step]: the elements go, the last first.
int deleteSlice(const Any& value, PyObject* slice) {
    auto range = sliceRange(value, slice);
    if (!range) return -1;
    if (range->step == 1) {
        if (range->count == 0) return 0;
        return raiseIfError(resolve(internal::callMember(value, Any::$removeAt, {Integer(range->start), Integer(range->count)})))
                   ? -1 : 0;
    }
    std::vector<Py_ssize_t> positions;
    for (Py_ssize_t i = 0; i < range->count; ++i) positions.push_back(range->at(i));
    std::sort(positions.rbegin(), positions.rend());
    for (Py_ssize_t at : positions) {
        if (raiseIfError(resolve(internal::callMember(value, Any::$removeAt, {Integer(at), Integer(1)})))) return -1;
    }
    return 0;
}

// value[start:stop:step] = items, with Python's rules: a simple slice takes any number of
// items in place of its own; an extended one exactly as many as it has.
int assignSlice(const Any& value, PyObject* slice, PyObject* newValue) {
    auto range = sliceRange(value, slice);
    if (!range) return -1;
    PyObjectPtr items = PyObjectPtr::steal(PySequence_Fast(newValue, "can only assign an iterable"));
    if (!items) return -1;
    const Py_ssize_t given = PySequence_Fast_GET_SIZE(items.get());
    std::vector<Any> converted;
    converted.reserve(static_cast<std::size_t>(given));
    for (Py_ssize_t i = 0; i < given; ++i) {
        converted.push_back(fromPythonLocked(PySequence_Fast_GET_ITEM(items.get(), i)));
        if (PyErr_Occurred() != nullptr) return -1;
    }
    if (range->step != 1) {
        if (given != range->count) {
            PyErr_Format(PyExc_ValueError, "attempt to assign sequence of size %zd to extended slice of size %zd", given,
                         range->count);
            return -1;
        }
        for (Py_ssize_t i = 0; i < given; ++i) {
            if (raiseIfError(resolve(internal::callMember(value, Any::$set, {Integer(range->at(i)), converted[i]})))) return -1;
        }
        return 0;
    }
    if (range->count > 0 &&
        raiseIfError(resolve(internal::callMember(value, Any::$removeAt, {Integer(range->start), Integer(range->count)})))) {
        return -1;
    }
    for (Py_ssize_t i = 0; i < given; ++i) {
        if (raiseIfError(resolve(internal::callMember(value, Any::$appendAt, {Integer(range->start + i), converted[i]})))) {
            return -1;
        }
    }
    return 0;
}

PyObject* subscript(PyObject* self, PyObject* keyObject) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) Py_RETURN_NONE;
    if (PySlice_Check(keyObject) && I_Sequence_Generic::matches(*value)) return sliceOf(*value, keyObject);
    Any key = fromPythonLocked(keyObject);
    if (PyErr_Occurred() != nullptr) return nullptr;
    if (I_Map_Generic::matches(*value)) {
        if (!I_Immutable::matches(key) && !key.isEmpty()) {
            PyErr_Format(PyExc_TypeError, "Unhashable key: %s", display(key).c_str());
            return nullptr;
        }
        // One host call: the map's own `get`, whose error for a missing key is the KeyError.
        Any result = resolve(internal::callMember(*value, Any::$get, {key}));
        if (!acceptMapAnswer(result, key)) return nullptr;
        return toPythonLocked(result);
    }
    if (key.kind() != Kind::Integer) {
        refuseKey(*value, keyObject, key);
        return nullptr;
    }
    auto at = position(*value, key.rawInteger());
    if (!at) return nullptr;
    Any result = resolve(internal::callMember(*value, Any::$at, {Integer(*at)}));
    if (raiseIfError(result)) return nullptr;
    return toPythonLocked(result);
}

int assignSubscript(PyObject* self, PyObject* keyObject, PyObject* newValue) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) return 0;
    if (PySlice_Check(keyObject) && I_Sequence_Generic::matches(*value)) {
        if (!I_MutableSequence_Generic::matches(*value)) {
            PyErr_Format(PyExc_TypeError, "'%s' object does not support item assignment", type_name_of(*value).c_str());
            return -1;
        }
        return newValue == nullptr ? deleteSlice(*value, keyObject) : assignSlice(*value, keyObject, newValue);
    }
    Any key = fromPythonLocked(keyObject);
    if (PyErr_Occurred() != nullptr) return -1;
    Any result;
    if (I_Map_Generic::matches(*value)) {
        if (newValue == nullptr) {
            result = resolve(internal::callMember(*value, Any::$remove, {key}));
            return acceptMapAnswer(result, key) ? 0 : -1;
        } else {
            Any converted = fromPythonLocked(newValue);
            if (PyErr_Occurred() != nullptr) return -1;
            result = resolve(internal::callMember(*value, Any::$set, {key, converted}));
        }
    } else {
        if (key.kind() != Kind::Integer && !class_of(*value).hasFlag(class_flags::Mapping) &&
            I_Sequence_Generic::matches(*value)) {
            refuseKey(*value, keyObject, key);
            return -1;
        }
        if (key.kind() == Kind::Integer) {
            auto at = position(*value, key.rawInteger());
            if (!at) return -1;
            key = Integer(*at);
        }
        if (newValue == nullptr) {
            result = resolve(removeAt(*value, key));
        } else {
            Any converted = fromPythonLocked(newValue);
            if (PyErr_Occurred() != nullptr) return -1;
            result = resolve(internal::callMember(*value, Any::$set, {key, converted}));
        }
    }
    return raiseIfError(result) ? -1 : 0;
}

// ---- Iteration, hashing, text, comparison ----------------------------------------------------

PyObject* iterate(PyObject* self) {
    GilGuard gil;
    auto value = operand(self);
    // A host iterator is its own Python iterator, as Python's iterators are: iter(it) is it.
    if (value && !I_Iterable_Generic::matches(*value) && I_Iterator_Generic::matches(*value)) {
        Py_IncRef(self);
        return self;
    }
    if (!value || !I_Iterable_Generic::matches(*value)) {
        PyErr_SetString(PyExc_TypeError, "The host value cannot be iterated.");
        return nullptr;
    }
    Any iterator = resolve(I_Iterable_Generic(internal::unchecked, *value).iter());
    if (raiseIfError(iterator)) return nullptr;
    return toPythonLocked(iterator);
}

PyObject* next(PyObject* self) {
    GilGuard gil;
    auto value = operand(self);
    if (!value || !I_Iterator_Generic::matches(*value)) return nullptr;
    Any item = resolve(I_Iterator_Generic(internal::unchecked, *value).next());
    if (StopIteration::matches(item)) return nullptr;  // the end: no error set
    if (raiseIfError(item)) return nullptr;
    return toPythonLocked(item);
}

Py_hash_t hash(PyObject* self) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) return 0;
    const std::uint64_t bits = I_Immutable::matches(*value) ? hash_of(*value) : object_id(*value);
    return static_cast<Py_hash_t>(bits);
}

PyObject* text(PyObject* self) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) return PyUnicode_FromString("None");
    // A conversion into the empty text is a conversion all the same: only a failed or impossible
    // one falls back to the display text.
    std::optional<String> result;
    if (I_Convertible::matches(*value)) {
        Any converted = resolve(I_Convertible(internal::unchecked, *value).tryInto(String::getClass()));
        result = String::cast(converted);
    }
    if (!result) result = display(*value);
    return PyUnicode_DecodeUTF8(result->data(), static_cast<Py_ssize_t>(result->size()), "replace");
}

// A Python operand the host cannot hold (an int beyond 64 bits) equals no host value; an
// ordering against it has no answer.
PyObject* compareWithUnconvertible(int operation) {
    if (operation == Py_EQ || operation == Py_NE) {
        PyErr_Clear();
        return operation == Py_NE ? Py_True : Py_False;
    }
    PyObject* type = nullptr;
    PyObject* error = nullptr;
    PyObject* traceback = nullptr;
    PyErr_Fetch(&type, &error, &traceback);
    PyErr_NormalizeException(&type, &error, &traceback);
    PyErr_Format(PyExc_OverflowError, "cannot order a host value and a Python value the host cannot hold: %S", error);
    Py_DecRef(type);
    Py_DecRef(error);
    Py_DecRef(traceback);
    return nullptr;
}

PyObject* compare(PyObject* self, PyObject* other, int operation) {
    GilGuard gil;
    auto value = operand(self);
    if (!value) Py_RETURN_NOTIMPLEMENTED;
    Any right = fromPythonLocked(other);
    if (PyErr_Occurred() != nullptr) return compareWithUnconvertible(operation);
    const std::int64_t order = compare_objects(*value, right);
    bool answer = false;
    switch (operation) {
        case Py_LT: answer = order < 0; break;
        case Py_LE: answer = order <= 0; break;
        case Py_EQ: answer = order == 0; break;
        case Py_NE: answer = order != 0; break;
        case Py_GT: answer = order > 0; break;
        case Py_GE: answer = order >= 0; break;
        default: Py_RETURN_NOTIMPLEMENTED;
    }
    return answer ? Py_True : Py_False;  // immortal: no count taken
}

Py_ssize_t lengthSlot(PyObject* self) { return guarded<Py_ssize_t>(-1, [&] { return length(self); }); }
int containsSlot(PyObject* self, PyObject* value) { return guarded<int>(-1, [&] { return contains(self, value); }); }
PyObject* itemSlot(PyObject* self, Py_ssize_t index) { return guarded<PyObject*>(nullptr, [&] { return item(self, index); }); }
int assignItemSlot(PyObject* self, Py_ssize_t index, PyObject* value) {
    return guarded<int>(-1, [&] { return assignItem(self, index, value); });
}
PyObject* subscriptSlot(PyObject* self, PyObject* key) { return guarded<PyObject*>(nullptr, [&] { return subscript(self, key); }); }
int assignSubscriptSlot(PyObject* self, PyObject* key, PyObject* value) {
    return guarded<int>(-1, [&] { return assignSubscript(self, key, value); });
}
PyObject* iterSlot(PyObject* self) { return guarded<PyObject*>(nullptr, [&] { return iterate(self); }); }
PyObject* nextSlot(PyObject* self) { return guarded<PyObject*>(nullptr, [&] { return next(self); }); }
Py_hash_t hashSlot(PyObject* self) { return guarded<Py_hash_t>(-1, [&] { return hash(self); }); }
PyObject* strSlot(PyObject* self) { return guarded<PyObject*>(nullptr, [&] { return text(self); }); }
PyObject* compareSlot(PyObject* self, PyObject* other, int operation) {
    return guarded<PyObject*>(nullptr, [&] { return compare(self, other, operation); });
}

}  // namespace

void fillOperatorSlots(PyTypeObject& type) {
    type.tp_hash = hashSlot;
    type.tp_str = strSlot;
    type.tp_richcompare = compareSlot;
    type.tp_iter = iterSlot;
    type.tp_iternext = nextSlot;
}

void fillNumberSlots(PyNumberMethods& table) {
    table.nb_subtract = subtractSlot;
    table.nb_inplace_subtract = inplaceSubtractSlot;
    table.nb_true_divide = divideSlot;
    table.nb_inplace_true_divide = inplaceDivideSlot;
}

void fillMinimalSequenceSlots(PySequenceMethods& table) {
    table.sq_concat = concatSlot;
    table.sq_inplace_concat = extendSlot;
}

void fillSetLikeSequenceSlots(PySequenceMethods& table) {
    table.sq_concat = concatSlot;
    table.sq_contains = containsSlot;
    table.sq_inplace_concat = extendSlot;
}

void fillFullSequenceSlots(PySequenceMethods& table) {
    table.sq_length = lengthSlot;
    table.sq_item = itemSlot;
    table.sq_ass_item = assignItemSlot;
    table.sq_contains = containsSlot;
    table.sq_concat = concatSlot;
    table.sq_repeat = repeatSlot;
    table.sq_inplace_concat = extendSlot;
    table.sq_inplace_repeat = inplaceRepeatSlot;
}

void fillMappingSlots(PyMappingMethods& table) {
    table.mp_length = lengthSlot;
    table.mp_subscript = subscriptSlot;
    table.mp_ass_subscript = assignSubscriptSlot;
}

}  // namespace tala::python
