// python/stubs/typed_protocols.hpp: what the wrapper of a host class is on the Python side: its abstract bases and special methods.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "stubs/typed_annotations.hpp"

namespace tala::python {

// The Python side of a host class's wrapper, as its kind flags and interfaces decide it.
struct ClassProtocols {
    // The abstract collections that the wrapper registers as (annotation texts): a map is a
    // Mapping (a mutable one a MutableMapping), a sequence a Sequence (or MutableSequence), a
    // set a Set (or MutableSet), an iterator an Iterator, any other iterable an Iterable.
    std::vector<std::string> bases;
    // The stubs of the special methods it supports, at the indentation of a class body:
    // __len__, __getitem__ (by position and slice for sequences, by key for maps), __setitem__
    // and __delitem__ for mutable ones, __iter__, __contains__, __next__ for iterators,
    // __call__ for invokables, __getattr__ for a class that answers its own member look-ups
    // (its instances take names the class does not declare), and the operators of the host
    // methods __add__ (or concat), __sub__, __mul__ (or repeat), __div__, their in-place forms,
    // and __compare__ (the orderings).
    std::string text;
    // The members that the bases define: a host member of such a name is declared with the
    // host's own signature, which the type checker is told not to hold against the base's.
    std::set<std::string> baseMembers;
};

ClassProtocols class_protocols(const Class_Generic& cls, AnnotationPlace& place);

// The comment that lets a member differ from the abstract base's member of the same name.
extern const char* const kOverrideComment;

}  // namespace tala::python
