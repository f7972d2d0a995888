// python/language/namespace.hpp: the host's modules as Python names.
#pragma once

#include <Python.h>

#include <cstdint>
#include <vector>

#include "extension/gil.hpp"

namespace tala::python {

// A new dict (a new reference) of the host's modules: every top-level module that is not
// marked internal under its name, and the classes and functions of modules marked inlined
// under their own names; a later module wins a name. The caller holds the interpreter lock.
PyObject* buildHostNamespace();

// The globals every evaluation starts from: the host namespace, "__name__" set to "__main__"
// and "__builtins__". Built once and again only when the host's modules changed; each evaluation takes
// a copy (`evaluationGlobals`). The caller holds the interpreter lock.
PyObjectPtr evaluationGlobals();

// One name an evaluation stores into its globals, and its value.
struct GlobalEntry {
    PyObjectPtr name;  // an interned str
    PyObjectPtr value;
};

// The globals of one evaluation: a copy of the template with `entries` stored in order (a later
// entry wins a name), exactly as evaluationGlobals() and then storing each would give it. Null
// with the error pending when it cannot be made. The dictionary may be one that an earlier
// evaluation gave back (`giveBackGlobals`) and is then made equal to that copy at less cost;
// `laterName`, when not null, is a name the caller stores after (storeOwnGlobal), whose old
// value may then be there until it does.
PyObjectPtr evaluationGlobals(const std::vector<GlobalEntry>& entries, PyObject* laterName = nullptr);

// Stores a name beyond `entries` (self) as the evaluation's own, not a change made by code; the
// caller adds it to the entries it gives back. False with the error pending when it failed.
bool storeOwnGlobal(PyObject* globals, PyObject* name, PyObject* value);

// What the code of an evaluation changed in any globals made by evaluationGlobals(entries), and
// the template they were made from: taken right after they were made, before the code runs, and
// compared by giveBackGlobals after it.
class GlobalsChanges {
public:
    GlobalsChanges();
    bool changedSince() const;
    std::uint64_t generation() const { return generation_; }

private:
    std::uint64_t count_;
    std::uint64_t generation_;
};

// Ends an evaluation with its globals: when nothing but `globals` holds the dictionary and the
// code changed no globals, it is kept for the next evaluation; otherwise it simply goes.
void giveBackGlobals(PyObjectPtr globals, const std::vector<GlobalEntry>& entries, const GlobalsChanges& changes);

// An empty dictionary for the locals of an expression, and its return after the evaluation: a
// dictionary that nothing else holds and that stayed empty serves the next one.
PyObjectPtr expressionLocals();
void giveBackExpressionLocals(PyObjectPtr locals);

}  // namespace tala::python
