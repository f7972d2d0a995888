// python/pyside/member_names.cpp: a cache from Python attribute-name objects to host identifiers.
#include "pyside/member_names.hpp"

#include <unordered_map>

#include "extension/interpreters.hpp"

namespace tala::python {

std::optional<std::string_view> utf8Of(PyObject* name) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(name, &size);
    if (text == nullptr) return std::nullopt;
    return std::string_view(text, static_cast<std::size_t>(size));
}

// Attribute-name objects to host identifiers, one cache per interpreter (its InterpreterState),
// guarded by its lock, which every caller holds. Each key holds a reference to its str, so a
// key's address cannot be reused by another str while it is cached. The cache is emptied
// (references dropped) when it grows past its bound.
struct MemberNameCache {
    std::unordered_map<PyObject*, Identifier> names;
};

Identifier identifierOf(PyObject* name, std::string_view text) {
    auto* cache = &partHere(state().memberNames).names;
    constexpr std::size_t kBound = 4096;
    if (auto found = cache->find(name); found != cache->end()) return found->second;
    const Identifier id = Identifier::intern(text);
    if (cache->size() >= kBound) {
        for (auto& [key, value] : *cache) Py_DecRef(key);
        cache->clear();
    }
    Py_IncRef(name);
    cache->emplace(name, id);
    return id;
}

}  // namespace tala::python
