// tests/fuzz/sandbox.hpp: limits for running fuzzed Python code: a step budget, no files, no
// waiting for input, no process control, imports only of modules that compute.
#pragma once

#include <Python.h>

#include <cstdint>

#include "fuzz_support.hpp"

namespace tala_fuzz {

// Python code runs with a budget of trace events (lines, calls, returns), so that a mutated
// loop ends with an exception instead of running for ever.
class StepBudget {
public:
    explicit StepBudget(std::int64_t steps) : gil_() {
        remaining() = steps;
        PyEval_SetTrace(&StepBudget::trace, nullptr);
    }
    ~StepBudget() { PyEval_SetTrace(nullptr, nullptr); }
    StepBudget(const StepBudget&) = delete;
    StepBudget& operator=(const StepBudget&) = delete;

private:
    static std::int64_t& remaining() {
        static thread_local std::int64_t steps = 0;
        return steps;
    }
    static int trace(PyObject*, PyFrameObject*, int, PyObject*) {
        if (--remaining() >= 0) return 0;
        PyErr_SetString(PyExc_RuntimeError, "The fuzzed code ran out of steps.");
        return -1;
    }

    GilGuard gil_;
};

// Takes away what lets fuzzed code reach outside the process or wait: open, input, the
// interactive helpers, and imports of anything but a list of modules that only compute (for
// code whose globals are an evaluation's, named "__main__"; the standard library's own imports
// are left alone). print writes nowhere.
inline void sandboxBuiltins() {
    (void)runSetup(R"(
import builtins, sys
import math, cmath, json, decimal, fractions, datetime, collections, itertools, functools
import operator, string, textwrap, statistics, heapq, bisect, enum, dataclasses, typing, copy
import types, abc, numbers, contextlib, struct, array, base64, binascii, unicodedata, keyword

ALLOWED = frozenset({
    'math', 'cmath', 'json', 'decimal', 'fractions', 'datetime', 'collections', 'itertools',
    'functools', 'operator', 'string', 'textwrap', 'statistics', 'heapq', 'bisect', 'enum',
    'dataclasses', 'typing', 'copy', 'types', 'abc', 'numbers', 'contextlib', 'struct', 'array',
    'base64', 'binascii', 'unicodedata', 'keyword',
})
original_import = builtins.__import__

def guarded_import(name, globals=None, locals=None, fromlist=(), level=0):
    if (globals is None or globals.get('__name__') == '__main__') and (
            level != 0 or name.partition('.')[0] not in ALLOWED):
        raise ImportError('not available to fuzzed code: ' + str(name))
    return original_import(name, globals, locals, fromlist, level)

builtins.__import__ = guarded_import
for name in ('open', 'input', 'breakpoint', 'help', 'exit', 'quit', 'copyright', 'credits', 'license'):
    if hasattr(builtins, name):
        delattr(builtins, name)

class Nowhere:
    def write(self, text):
        return len(text)
    def flush(self):
        pass

sys.stdout = Nowhere()
sys.setrecursionlimit(400)
)");
}

}  // namespace tala_fuzz
