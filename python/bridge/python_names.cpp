// python/bridge/python_names.cpp: host names as Python's interned strings, made once.
#include "bridge/python_names.hpp"

#include <array>
#include <atomic>
#include <vector>
#include <functional>

#include "extension/gil.hpp"
#include "extension/interpreters.hpp"

namespace tala::python {

// A small table keyed by the host string's cell: a slot keeps the host string (so its cell
// cannot be freed and its address taken by another text) and one reference to the interned
// Python string. A clash replaces the slot. One per interpreter (its InterpreterState), read and
// written under its lock only, never destroyed.
struct NameCache {
    struct Slot {
        String name;
        PyObject* text = nullptr;
    };
    std::array<Slot, 256> slots;
};

namespace {

NameCache& nameCache() { return partHere(state().nameCache); }

std::atomic<std::size_t> g_staticNames{0};

}  // namespace

StaticName::StaticName(const char* text) noexcept : text_(text), index_(g_staticNames.fetch_add(1)) {}

PyObject* StaticName::get() {
    std::vector<PyObject*>& names = state().staticNames;
    if (names.size() <= index_) names.resize(g_staticNames.load(), nullptr);
    PyObject*& name = names[index_];
    if (name == nullptr) name = PyUnicode_InternFromString(text_);
    return name;
}

PyObject* pythonName(const String& name) {
    const internal::Cell* cell = name.cell();
    NameCache& cache = nameCache();
    NameCache::Slot& slot = cache.slots[(std::hash<const void*>()(cell) >> 4) % cache.slots.size()];
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
