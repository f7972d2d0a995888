// tala/children.hpp: what a value holds, for walkers of the graph of values (a language runtime's cycle collector).
#pragma once

#include "tala/any.hpp"

namespace tala {

// Receives what one cell holds: each value it keeps a reference to, and each reference into a
// language runtime's own heap that it owns (the Python object of a proxy, say). A language runtime
// that collects its own reference cycles walks the host values its objects hold with a visitor,
// to find the references that lead back into its heap.
//
// The cell reports only what it holds itself; the walk is the visitor's (it decides which child
// cells it goes into, and how: see Cell::isSolelyHeld). Visitors run inside a collector, with its
// locks held: they must not call host or foreign code, nor allocate without need.
class ChildVisitor {
public:
    virtual void child(const Any& value) noexcept = 0;
    // A reference the cell owns into the heap of the runtime `runtime`: each language bridge
    // tags its references with an address of its own, and ignores the references of others.
    virtual void foreign(const void* runtime, void* reference) noexcept = 0;

protected:
    ChildVisitor() = default;
    ~ChildVisitor() = default;
    ChildVisitor(const ChildVisitor&) = default;
    ChildVisitor& operator=(const ChildVisitor&) = default;
};

// Reports to `visitor` the values and foreign references that `value`'s cell holds; nothing for a
// scalar.
inline void visit_children(const Any& value, ChildVisitor& visitor) noexcept {
    if (const internal::Cell* cell = value.cell()) cell->visitChildren(visitor);
}

}  // namespace tala
