// python/pyside/cycles.cpp: what a wrapper's host value holds of Python's, reported to Python's cycle collector.
//
// A Python object that holds a wrapper, whose host value holds that Python object again (through
// a proxy or a FunctionPython), is a reference cycle that passes through the host, where Python's
// collector cannot look: without help it would live as long as the process. The wrapper types
// therefore take part in collection. A wrapper reports the Python objects that its host value
// holds, and when the collector finds the wrapper unreachable, clearing it lets go of the host
// value, whose release gives those objects back.
//
// The rule. The collector subtracts, from each object's reference count, the references that
// the objects it examines report; what is left is held from outside, and what cannot be reached
// from there is freed. A wrapper may therefore report only references that it really holds, and
// for references inside a host value that means: the wrapper must be the only way to them. So a
// host cell is walked only when its count is 1, the one reference being the one the walk came
// through (the wrapper's own for its value, the container's for what it contains), and inside it
// only the cells that it alone holds, by a count of 1 again. Immortal cells (classes, types,
// shared constants) are never walked. Whatever something else in the host also holds is alive
// as far as Python can know: it is neither walked nor cleared, and the Python objects it holds
// stay alive with it, as if the host held them from outside.
//
// Why a count of 1 can be trusted while host threads run without the interpreter lock: a thread
// that uses a value holds a reference to it, so a cell with one reference is used by its one
// holder alone, and the holder this walk came through is the wrapper, read and written only
// under the lock the collector holds. No thread can take a new reference to such a cell but
// through that holder, so between the collector's passes counts can fall (a thread lets go of
// its copy) but never rise to hide something an earlier pass reported; a later pass that walks
// more only keeps more objects alive. The count is read with acquire order, so that what a
// thread did to a cell before it let go is seen. Slots that let go of the interpreter lock while
// host code runs (blocking calls) keep a copy of the value meanwhile, so that what such a call
// uses is not counted as the wrapper's alone.
#include "pyside/cycles.hpp"

#include <memory>
#include <utility>
#include <vector>

#include "extension/interpreters.hpp"
#include "pyside/tala_object.hpp"
#include "tala/children.hpp"

namespace tala::python {

namespace {

const char kPythonHeap = 0;

// Kinds whose cells can hold values or foreign references. Text, bytes, lazy and external values
// are not walked: the first two hold nothing, and the others make their value only when asked.
constexpr bool mayHoldChildren(Kind kind) noexcept {
    switch (kind) {
        case Kind::List:
        case Kind::HashMap:
        case Kind::Set:
        case Kind::Function:
        case Kind::Object:
        case Kind::Tuple:
        case Kind::Boxed: return true;
        default: return false;
    }
}

// A cell that the walk may go into: one of those kinds, held by the one reference the walk came
// through and by nothing else.
const internal::Cell* walkableCell(const Any& value) noexcept {
    if (!mayHoldChildren(value.kind())) return nullptr;
    const internal::Cell* cell = value.cell();
    return cell->isSolelyHeld() ? cell : nullptr;
}

using CellStack = std::vector<const internal::Cell*>;

// The stack of cells still to walk, kept by each thread between walks so that a collection does
// not allocate one per wrapper. A walk never starts another on its thread; should one, it gets a
// stack of its own.
thread_local std::unique_ptr<CellStack> t_spareStack;

class PythonReferences final : public ChildVisitor {
public:
    // The collection runs in the calling thread's interpreter: only its objects are reported.
    PythonReferences(visitproc visit, void* arg) noexcept
        : visit_(visit), arg_(arg), heap_(pythonHeapTag(currentInterpreter())) {
        stack_ = t_spareStack ? std::move(t_spareStack) : nullptr;
    }
    ~PythonReferences() {
        if (stack_ != nullptr) {
            stack_->clear();
            t_spareStack = std::move(stack_);
        }
    }
    PythonReferences(const PythonReferences&) = delete;
    PythonReferences& operator=(const PythonReferences&) = delete;

    // Walks what `root` holds, depth first without recursion (host values may nest deeper than
    // the C stack allows); the first non-zero answer of `visit` ends the walk and is returned.
    int walk(const internal::Cell* root) noexcept {
        root->visitChildren(*this);
        while (result_ == 0 && stack_ != nullptr && !stack_->empty()) {
            const internal::Cell* cell = stack_->back();
            stack_->pop_back();
            cell->visitChildren(*this);
        }
        return result_;
    }

    void child(const Any& value) noexcept override {
        if (const internal::Cell* cell = walkableCell(value)) push(cell);
    }

    void foreign(const void* runtime, void* reference) noexcept override {
        if (runtime != heap_ || reference == nullptr || result_ != 0) return;
        result_ = visit_(static_cast<PyObject*>(reference), arg_);
    }

private:
    void push(const internal::Cell* cell) noexcept {
        // Running out of memory here leaves no sound choice: the passes of one collection must
        // see the same references, and a walk cut short in one of them could let the collector
        // free what a host value still holds.
        try {
            if (stack_ == nullptr) stack_ = std::make_unique<CellStack>();
            stack_->push_back(cell);
        } catch (...) {
            Py_FatalError("out of memory while the cycle collector walks host values");
        }
    }

    visitproc visit_;
    void* arg_;
    const void* heap_;
    int result_ = 0;
    std::unique_ptr<CellStack> stack_;
};

}  // namespace

const void* pythonHeapTag(const Interpreter* owner) noexcept {
    if (interpreterLayout() == InterpreterLayout::Shared || owner == nullptr) return &kPythonHeap;
    return owner;
}

int traverseWrapper(PyObject* self, visitproc visit, void* arg) noexcept {
    Py_VISIT(Py_TYPE(self));  // every instance holds its (heap) type
    const Any* value = reinterpret_cast<TalaObject*>(self)->value;
    if (value == nullptr) return 0;
    const internal::Cell* root = walkableCell(*value);
    if (root == nullptr) return 0;
    return PythonReferences(visit, arg).walk(root);
}

int clearWrapper(PyObject* self) noexcept {
    // Emptied before the value goes: its release may run any host code and Python code (a
    // proxy's finalizer gives its object back), which must find this wrapper empty already.
    delete std::exchange(reinterpret_cast<TalaObject*>(self)->value, nullptr);
    return 0;
}

}  // namespace tala::python
