// python/bridge/python_names.cpp: host names as Python's interned strings, made once.
#include "bridge/python_names.hpp"

#include <array>
#include <functional>

#include "extension/gil.hpp"

namespace tala::python {

namespace {

// A small table keyed by the host string's cell: a slot keeps the host string (so its cell
// cannot be freed and its address taken by another text) and one reference to the interned
// Python string. A clash replaces the slot. Read and written under the interpreter lock only;
// the process-wide instance is never destroyed.
struct NameCache {
    struct Slot {
        String name;
        PyObject* text = nullptr;
    };
    std::array<Slot, 256> slots;
};

NameCache& nameCache() {
    static auto* cache = new NameCache();
    return *cache;
}

}  // namespace

PyObject* pythonName(const String& name) {
    const internal::Cell* cell = name.cell();
    NameCache::Slot& slot = nameCache().slots[(std::hash<const void*>()(cell) >> 4) % nameCache().slots.size()];
    if (slot.text != nullptr && slot.name.cell() == cell) return slot.text;
    PyObject* text = PyUnicode_DecodeUTF8(name.data(), static_cast<Py_ssize_t>(name.size()), nullptr);
    if (text == nullptr) return nullptr;
    PyUnicode_InternInPlace(&text);  // as names in code are: found by identity
    PyObject* old = slot.text;
    slot.name = name;
    slot.text = text;
    if (old != nullptr) Py_DecRef(old);
    return text;
}

}  // namespace tala::python
