// python/pyside/tala_object.cpp: the wrapper types (generic and per class), the type test, creation and destruction.
#include "pyside/tala_object.hpp"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "extension/gil.hpp"
#include "pyside/slots.hpp"

namespace tala::python {

const char* const kTalaObjectTypeName = ">TalaObject";

namespace {

// ---- Slot tables, each built once and shared by every type that uses it ---------------------

PyNumberMethods* numberTable() {
    static PyNumberMethods* table = [] {
        auto* methods = static_cast<PyNumberMethods*>(std::calloc(1, sizeof(PyNumberMethods)));
        fillNumberSlots(*methods);
        return methods;
    }();
    return table;
}

enum class SequenceTable { Minimal, SetLike, Full };

PySequenceMethods* sequenceTable(SequenceTable which) {
    static PySequenceMethods* tables[3] = {};
    static std::once_flag built;
    std::call_once(built, [] {
        for (int kind = 0; kind < 3; ++kind) {
            tables[kind] = static_cast<PySequenceMethods*>(std::calloc(1, sizeof(PySequenceMethods)));
        }
        fillMinimalSequenceSlots(*tables[0]);
        fillSetLikeSequenceSlots(*tables[1]);
        fillFullSequenceSlots(*tables[2]);
    });
    return tables[static_cast<int>(which)];
}

PyMappingMethods* mappingTable() {
    static PyMappingMethods* table = [] {
        auto* methods = static_cast<PyMappingMethods*>(std::calloc(1, sizeof(PyMappingMethods)));
        fillMappingSlots(*methods);
        return methods;
    }();
    return table;
}

// ---- Types ------------------------------------------------------------------------------------

void destroy(PyObject* self) {
    // Dropping the host value may run any host code (its last reference may go), so take the
    // lock again even though the caller holds it.
    GilGuard gil;
    auto* wrapper = reinterpret_cast<TalaObject*>(self);
    delete wrapper->value;
    wrapper->value = nullptr;
    PyObject_Free(self);
}

// A zero-filled static type object, never freed. Unset fields are filled by PyType_Ready.
PyTypeObject* allocateType(const char* name, const char* doc) {
    auto* type = static_cast<PyTypeObject*>(std::calloc(1, sizeof(PyTypeObject)));
    type->tp_name = name;
    type->tp_basicsize = sizeof(TalaObject);
    type->tp_itemsize = 0;
    type->tp_dealloc = destroy;
    type->tp_as_number = numberTable();
    type->tp_flags = 0;  // no base type, no cycle collection, no heap type
    type->tp_doc = doc;
    fillCommonSlots(*type);
    return type;
}

constexpr const char* kGenericDoc = "Wrapper around of a Tala object";

PyTypeObject* buildGenericType(PySequenceMethods* sequence, PyMappingMethods* mapping, bool callable) {
    PyTypeObject* type = allocateType(kTalaObjectTypeName, kGenericDoc);
    type->tp_as_sequence = sequence;
    type->tp_as_mapping = mapping;
    if (callable) fillCallSlot(*type);
    Py_SET_REFCNT(reinterpret_cast<PyObject*>(type), 2);  // never released
    (void)PyType_Ready(type);
    PyErr_Clear();
    return type;
}

PyTypeObject* genericCallableType() {
    static PyTypeObject* type = buildGenericType(sequenceTable(SequenceTable::Minimal), nullptr, true);
    return type;
}
PyTypeObject* genericMinimalType() {
    static PyTypeObject* type = buildGenericType(sequenceTable(SequenceTable::Minimal), nullptr, false);
    return type;
}
PyTypeObject* genericSequenceType() {
    static PyTypeObject* type = buildGenericType(sequenceTable(SequenceTable::Full), nullptr, false);
    return type;
}
PyTypeObject* genericMappingType() {
    static PyTypeObject* type = buildGenericType(sequenceTable(SequenceTable::SetLike), mappingTable(), false);
    return type;
}
PyTypeObject* genericSequenceMappingType() {
    static PyTypeObject* type = buildGenericType(sequenceTable(SequenceTable::Full), mappingTable(), false);
    return type;
}

// "tala~" and the qualified name with every "." replaced by a backtick: "tala~a`b`C".
std::string perClassTypeName(const Class_Generic& cls) {
    std::string name = "tala~" + std::string(cls.qualname().view());
    for (char& c : name) {
        if (c == '.') c = '`';
    }
    return name;
}

PyTypeObject* buildPerClassType(const Class_Generic& cls) {
    const std::string name = perClassTypeName(cls);
    const String& doc = cls.doc();
    PyTypeObject* type = allocateType(copyToMalloc(name), doc.isEmpty() ? nullptr : copyToMalloc(doc.view()));
    type->tp_as_sequence = sequenceTable(SequenceTable::Minimal);
    if (cls.hasFlag(class_flags::Mapping) || cls.hasFlag(class_flags::SetLike)) {
        type->tp_as_sequence = sequenceTable(SequenceTable::SetLike);
        type->tp_as_mapping = mappingTable();
    }
    if (cls.hasFlag(class_flags::Sequence)) type->tp_as_sequence = sequenceTable(SequenceTable::Full);
    fillCallSlot(*type);
    fillDescriptiveTables(*type, cls);
    type->tp_base = genericCallableType();
    (void)PyType_Ready(type);
    PyErr_Clear();
    Py_IncRef(reinterpret_cast<PyObject*>(type));  // the class map's reference
    return type;
}

// Host class -> its per-class wrapper type. Entries are never removed; the map holds one
// reference to each type. `lock` guards the map; the caller holds the interpreter lock.
struct PerClassTypes {
    spinlock lock;
    std::unordered_map<const internal::ClassCell*, PyTypeObject*> types;
};

PerClassTypes& perClassTypes() {
    static auto* table = new PerClassTypes();
    return *table;
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

PyTypeObject* wrapperTypeFor(const Class_Generic& cls) {
    if (belongsToModule(cls)) {
        PerClassTypes& table = perClassTypes();
        // Building a type may run Python code (the signature of a method that is a Python
        // function), which lets other threads in: they wait for the map without the lock.
        const std::unique_lock<spinlock> lock = lockReleasingGil(table.lock);
        auto found = table.types.find(cls.cell());
        if (found != table.types.end()) return found->second;
        PyTypeObject* type = buildPerClassType(cls);
        table.types.emplace(cls.cell(), type);
        return type;
    }
    if (cls.hasFlag(class_flags::Invokable)) return genericCallableType();
    const bool mapping = cls.hasFlag(class_flags::Mapping);
    const bool sequence = cls.hasFlag(class_flags::Sequence);
    if (mapping && sequence) return genericSequenceMappingType();
    if (mapping) return genericMappingType();
    if (sequence) return genericSequenceType();
    return genericMinimalType();
}

PyObject* wrapHostValue(const Any& value) {
    GilGuard gil;
    return wrapHostValueLocked(value);
}

PyObject* wrapHostValueLocked(const Any& value) {
    PyTypeObject* type = wrapperTypeFor(raw_class_of(value));
    auto* wrapper = reinterpret_cast<TalaObject*>(_PyObject_New(type));
    if (wrapper == nullptr) return nullptr;
    wrapper->value = new Any(value);
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

PyTypeObject* testing::genericType(int which) {
    switch (which) {
        case 0: return genericCallableType();
        case 1: return genericMinimalType();
        case 2: return genericSequenceType();
        case 3: return genericMappingType();
        default: return genericSequenceMappingType();
    }
}

}  // namespace tala::python
