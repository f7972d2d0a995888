// python/pyside/tala_object.cpp: the wrapper types (generic and per class), the type test, creation and destruction.
#include "pyside/tala_object.hpp"

#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "bridge/module_attribute.hpp"
#include "extension/gil.hpp"
#include "extension/interpreters.hpp"
#include "pyside/cycles.hpp"
#include "pyside/slots.hpp"

namespace tala::python {

const char* const kTalaObjectTypeName = ">TalaObject";

namespace {

// ---- What a type carries ------------------------------------------------------------------

enum class SequenceTable { Minimal, SetLike, Full };

// The protocol tables of a wrapper type, chosen by its class's kind flags.
struct Shape {
    SequenceTable sequence = SequenceTable::Minimal;
    bool mapping = false;
    bool callable = false;
};

// The collections.abc class a wrapper type is registered with, by the interfaces its class
// implements, so that isinstance(rows, collections.abc.Sequence) tells what the value can do.
enum class Protocol { None, Sequence, MutableSequence, Mapping, MutableMapping, Set, MutableSet };

Protocol protocolOf(const Class_Generic& cls) {
    if (cls.derivesFrom(I_MutableMap_Generic::getClass())) return Protocol::MutableMapping;
    if (cls.derivesFrom(I_Map_Generic::getClass())) return Protocol::Mapping;
    if (cls.derivesFrom(I_MutableSet_Generic::getClass())) return Protocol::MutableSet;
    if (cls.derivesFrom(I_Set_Generic::getClass())) return Protocol::Set;
    if (cls.derivesFrom(I_MutableSequence_Generic::getClass())) return Protocol::MutableSequence;
    if (cls.derivesFrom(I_Sequence_Generic::getClass())) return Protocol::Sequence;
    return Protocol::None;
}

const char* abcName(Protocol protocol) {
    switch (protocol) {
        case Protocol::Sequence: return "Sequence";
        case Protocol::MutableSequence: return "MutableSequence";
        case Protocol::Mapping: return "Mapping";
        case Protocol::MutableMapping: return "MutableMapping";
        case Protocol::Set: return "Set";
        case Protocol::MutableSet: return "MutableSet";
        case Protocol::None: break;
    }
    return nullptr;
}

// The flag by which `match` statements tell sequences from mappings.
unsigned long matchFlag(Protocol protocol) {
    switch (protocol) {
        case Protocol::Sequence:
        case Protocol::MutableSequence: return Py_TPFLAGS_SEQUENCE;
        case Protocol::Mapping:
        case Protocol::MutableMapping: return Py_TPFLAGS_MAPPING;
        default: return 0;
    }
}

// ---- Building a type from its slots ------------------------------------------------------------

void destroy(PyObject* self) {
    // Dropping the host value may run any host code (its last reference may go), so take the
    // lock again even though the caller holds it.
    GilGuard gil;
    // Untracked first: the release may run Python code, and a collection meanwhile must not meet
    // a wrapper half gone.
    PyObject_GC_UnTrack(self);
    PyTypeObject* type = Py_TYPE(self);
    delete std::exchange(reinterpret_cast<TalaObject*>(self)->value, nullptr);
    PyObject_GC_Del(self);
    Py_DecRef(reinterpret_cast<PyObject*>(type));  // every instance holds its (heap) type
}

// The slots of one type, gathered for PyType_FromMetaclass. The tables are filled by the functions that
// own the slots (slots.cpp, operators.cpp) and read back here field by field.
class SlotList {
public:
    void add(int id, void* function) {
        if (function != nullptr) slots_.push_back(PyType_Slot{id, function});
    }
    template <class Function>
    void add(int id, Function* function) {
        add(id, reinterpret_cast<void*>(function));
    }
    PyType_Slot* finish() {
        slots_.push_back(PyType_Slot{0, nullptr});
        return slots_.data();
    }

private:
    std::vector<PyType_Slot> slots_;
};

void addCommonSlots(SlotList& slots) {
    PyTypeObject common{};
    fillCommonSlots(common);
    slots.add(Py_tp_dealloc, destroy);
    slots.add(Py_tp_traverse, traverseWrapper);
    slots.add(Py_tp_clear, clearWrapper);
    slots.add(Py_tp_repr, common.tp_repr);
    slots.add(Py_tp_str, common.tp_str);
    slots.add(Py_tp_hash, common.tp_hash);
    slots.add(Py_tp_getattro, common.tp_getattro);
    slots.add(Py_tp_setattro, common.tp_setattro);
    slots.add(Py_tp_richcompare, common.tp_richcompare);
    slots.add(Py_tp_iter, common.tp_iter);
    slots.add(Py_tp_iternext, common.tp_iternext);
    PyNumberMethods number{};
    fillNumberSlots(number);
    slots.add(Py_nb_subtract, number.nb_subtract);
    slots.add(Py_nb_inplace_subtract, number.nb_inplace_subtract);
    slots.add(Py_nb_true_divide, number.nb_true_divide);
    slots.add(Py_nb_inplace_true_divide, number.nb_inplace_true_divide);
}

void addShapeSlots(SlotList& slots, const Shape& shape) {
    PySequenceMethods sequence{};
    switch (shape.sequence) {
        case SequenceTable::Minimal: fillMinimalSequenceSlots(sequence); break;
        case SequenceTable::SetLike: fillSetLikeSequenceSlots(sequence); break;
        case SequenceTable::Full: fillFullSequenceSlots(sequence); break;
    }
    slots.add(Py_sq_length, sequence.sq_length);
    slots.add(Py_sq_concat, sequence.sq_concat);
    slots.add(Py_sq_repeat, sequence.sq_repeat);
    slots.add(Py_sq_item, sequence.sq_item);
    slots.add(Py_sq_ass_item, sequence.sq_ass_item);
    slots.add(Py_sq_contains, sequence.sq_contains);
    slots.add(Py_sq_inplace_concat, sequence.sq_inplace_concat);
    slots.add(Py_sq_inplace_repeat, sequence.sq_inplace_repeat);
    // A full sequence also takes subscripts through the mapping slots: Python hands slices and
    // negative positions only to those.
    if (shape.mapping || shape.sequence == SequenceTable::Full) {
        PyMappingMethods mapping{};
        fillMappingSlots(mapping);
        slots.add(Py_mp_length, mapping.mp_length);
        slots.add(Py_mp_subscript, mapping.mp_subscript);
        slots.add(Py_mp_ass_subscript, mapping.mp_ass_subscript);
    }
    if (shape.callable) {
        PyTypeObject call{};
        fillCallSlot(call);
        slots.add(Py_tp_call, call.tp_call);
    }
}

// Registers the type with its collections.abc class. A failure leaves the type unregistered,
// nothing more.
void registerProtocol(PyTypeObject* type, Protocol protocol) {
    const char* name = abcName(protocol);
    if (name == nullptr) return;
    PyObject* abc = moduleAttribute("collections.abc", name);
    if (abc == nullptr) return;
    PyObjectPtr registered = PyObjectPtr::steal(PyObject_CallMethod(abc, "register", "O", type));
    if (!registered) PyErr_Clear();
}

// Types are heap types made from specs; nobody may change or subclass them, nor make instances
// but the conversion. Instances take part in cycle collection (cycles.cpp). The type's
// `__name__` is the type's full name after its last dot (the host class's name), while `tp_name`,
// which Python's own messages print, is set to `typeName`.
PyTypeObject* makeType(const std::string& specName, const char* typeName, const char* doc, SlotList& slots,
                       PyMethodDef* methods, PyGetSetDef* properties, PyTypeObject* base, Protocol protocol) {
    slots.add(Py_tp_doc, const_cast<char*>(doc));
    slots.add(Py_tp_methods, methods);
    slots.add(Py_tp_getset, properties);
    PyType_Spec description{specName.c_str(), static_cast<int>(sizeof(TalaObject)), 0,
                     static_cast<unsigned int>(Py_TPFLAGS_DEFAULT | Py_TPFLAGS_IMMUTABLETYPE | Py_TPFLAGS_HAVE_GC |
                                               Py_TPFLAGS_DISALLOW_INSTANTIATION | matchFlag(protocol)),
                     slots.finish()};
    PyObjectPtr bases = base != nullptr ? PyObjectPtr::steal(PyTuple_Pack(1, base)) : PyObjectPtr();
    // A base takes new subtypes only while it says so: for the moment of this creation, under
    // the interpreter lock, so that Python code can never derive from a wrapper type.
    if (base != nullptr) base->tp_flags |= Py_TPFLAGS_BASETYPE;
    auto* type = reinterpret_cast<PyTypeObject*>(PyType_FromMetaclass(nullptr, nullptr, &description, bases.get()));
    if (base != nullptr) base->tp_flags &= ~Py_TPFLAGS_BASETYPE;
    if (type == nullptr) {
        // Out of memory, or a broken name: the generic minimal shape is no answer either, so
        // stop with context rather than hand out a null type.
        PyErr_Print();
        std::fprintf(stderr, "tala: cannot make the Python wrapper type '%s'.\n", specName.c_str());
        std::abort();
    }
    type->tp_name = typeName;
    registerProtocol(type, protocol);
    return type;  // kept for ever: the one reference is the process's
}

// ---- Generic types -------------------------------------------------------------------------

constexpr const char* kGenericDoc = "Wrapper around of a Tala object";

Shape genericShape(int which) {
    switch (which) {
        case 0: return Shape{SequenceTable::Minimal, false, true};
        case 1: return Shape{SequenceTable::Minimal, false, false};
        case 2: return Shape{SequenceTable::Full, false, false};
        case 3: return Shape{SequenceTable::SetLike, true, false};
        default: return Shape{SequenceTable::Full, true, false};
    }
}

}  // namespace

// The wrapper types of one interpreter (its InterpreterState holds them); the types live as
// long as it. The caller holds the interpreter lock; each map has its own lock, taken in this
// order when both are (a per-class type is made on the generic callable type).
struct WrapperTypes {
    // The generic types, by shape and protocol, all named ">TalaObject".
    spinlock genericLock;
    std::map<std::pair<int, int>, PyTypeObject*> generic;
    // Host class -> its wrapper type (its own, or the generic type it shares). The entry keeps
    // its class alive, so that no other class ever takes the address it is keyed by.
    spinlock classLock;
    struct Entry {
        Class_Generic cls;
        PyTypeObject* type;
    };
    std::unordered_map<const internal::ClassCell*, Entry> perClass;
};

namespace {

WrapperTypes& wrapperTypes() { return partHere(state().wrapperTypes); }

PyTypeObject* genericType(int which, Protocol protocol) {
    WrapperTypes& table = wrapperTypes();
    const std::unique_lock<spinlock> lock = lockReleasingGil(table.genericLock);
    const auto key = std::make_pair(which, static_cast<int>(protocol));
    if (auto found = table.generic.find(key); found != table.generic.end()) return found->second;
    SlotList slots;
    addCommonSlots(slots);
    addShapeSlots(slots, genericShape(which));
    // "builtins.": the types belong to no module, as Python's own types; their name is the
    // full name's text after the dot.
    PyTypeObject* type = makeType(std::string("builtins.") + kTalaObjectTypeName, kTalaObjectTypeName, kGenericDoc, slots,
                                  commonMethods(), nullptr, nullptr, protocol);
    table.generic.emplace(key, type);
    return type;
}

PyTypeObject* genericCallableType() { return genericType(0, Protocol::None); }

// ---- Per-class types -----------------------------------------------------------------------

// "tala~" and the qualified name with every "." replaced by a backtick: "tala~a`b`C".
std::string perClassTypeName(const Class_Generic& cls) {
    std::string name = "tala~" + std::string(cls.qualname().view());
    for (char& c : name) {
        if (c == '.') c = '`';
    }
    return name;
}

// The type's full name: the module's name, a dot, the class's name, so that the type reads in
// Python as the host class (`type(db).__name__` is "Database", its module "sqlite").
std::string perClassSpecName(const Class_Generic& cls) {
    std::string qualified(cls.qualname().view());
    const std::string name(cls.name().view());
    if (qualified.size() > name.size() + 1 && qualified.ends_with("." + name)) return qualified;
    return "builtins." + (name.empty() ? qualified : name);
}

Shape perClassShape(const Class_Generic& cls) {
    Shape shape{SequenceTable::Minimal, false, true};
    if (cls.hasFlag(class_flags::Mapping) || cls.hasFlag(class_flags::SetLike)) {
        shape.sequence = SequenceTable::SetLike;
        shape.mapping = true;
    }
    if (cls.hasFlag(class_flags::Sequence)) shape.sequence = SequenceTable::Full;
    return shape;
}

PyTypeObject* buildPerClassType(const Class_Generic& cls) {
    const String& doc = cls.doc();
    SlotList slots;
    addCommonSlots(slots);
    addShapeSlots(slots, perClassShape(cls));
    const DescriptiveTables tables = describeClass(cls);
    return makeType(perClassSpecName(cls), copyToMalloc(perClassTypeName(cls)),
                    doc.isEmpty() ? nullptr : copyToMalloc(doc.view()), slots, tables.methods, tables.properties,
                    genericCallableType(), protocolOf(cls));
}

bool belongsToModule(const Class_Generic& cls) {
    if (!cls.declaringContext().isEmpty()) return true;
    if (auto enclosing = cls.enclosingClass(); enclosing && !enclosing->declaringContext().isEmpty()) return true;
    return is_ancestor(cls, Module::getClass());
}

}  // namespace

char* copyToMalloc(std::string_view text) {
    auto* buffer = static_cast<char*>(std::malloc(text.size() + 1));
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return buffer;
}

namespace {

// The type of a class outside any module: the generic type of its tables and protocol.
PyTypeObject* genericTypeFor(const Class_Generic& cls) {
    const Protocol protocol = protocolOf(cls);
    if (cls.hasFlag(class_flags::Invokable)) return genericType(0, protocol);
    const bool mapping = cls.hasFlag(class_flags::Mapping);
    const bool sequence = cls.hasFlag(class_flags::Sequence);
    if (mapping && sequence) return genericType(4, protocol);
    // A set takes the set-like and mapping tables, as a per-class type of a set does.
    if (mapping || cls.hasFlag(class_flags::SetLike)) return genericType(3, protocol);
    if (sequence) return genericType(2, protocol);
    return genericType(1, protocol);
}

}  // namespace

PyTypeObject* wrapperTypeFor(const Class_Generic& cls) {
    // Every class is looked up once: a class of a module gets a type of its own, any other the
    // generic type it shares with the classes of its kind. One probe by the class's cell after.
    WrapperTypes& table = wrapperTypes();
    {
        const std::unique_lock<spinlock> lock = lockReleasingGil(table.classLock);
        auto found = table.perClass.find(cls.cell());
        if (found != table.perClass.end()) return found->second.type;
    }
    const bool own = belongsToModule(cls);
    PyTypeObject* generic = own ? nullptr : genericTypeFor(cls);
    // Building a type may run Python code (the signature of a method that is a Python
    // function), which lets other threads in: they wait for the map without the lock.
    const std::unique_lock<spinlock> lock = lockReleasingGil(table.classLock);
    auto found = table.perClass.find(cls.cell());
    if (found != table.perClass.end()) return found->second.type;
    PyTypeObject* type = own ? buildPerClassType(cls) : generic;
    table.perClass.emplace(cls.cell(), WrapperTypes::Entry{cls, type});
    return type;
}

PyObject* wrapHostValue(const Any& value) {
    GilGuard gil;
    return wrapHostValueLocked(value);
}

PyObject* wrapHostValueLocked(const Any& value) {
    PyTypeObject* type = wrapperTypeFor(raw_class_of(value));
    TalaObject* wrapper = PyObject_GC_New(TalaObject, type);  // takes a reference to the type
    if (wrapper == nullptr) return nullptr;
    wrapper->value = new Any(value);
    PyObject_GC_Track(wrapper);
    return reinterpret_cast<PyObject*>(wrapper);
}

const Any* wrappedHostValue(PyObject* object) noexcept {
    if (object == nullptr) return nullptr;
    const PyTypeObject* type = Py_TYPE(object);
    const bool wrapperType = type->tp_name == kTalaObjectTypeName ||
                             (type->tp_base != nullptr && type->tp_base->tp_name == kTalaObjectTypeName);
    if (!wrapperType) return nullptr;
    return reinterpret_cast<TalaObject*>(object)->value;
}

PyTypeObject* testing::genericType(int which) { return python::genericType(which, Protocol::None); }

}  // namespace tala::python
