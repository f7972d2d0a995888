// python/language/interruption.hpp: stopping an evaluation that runs on another host thread.
#pragma once

#include <Python.h>

#include <cstdint>

namespace tala::python {

// Marks an evaluation (or a call of a Python function) running on this thread, so that
// `interruptEvaluation` can stop it. Made and dropped with the interpreter lock held; nests.
// When the outermost one ends, an interruption meant for it is spent: it can never reach code
// that this thread runs later.
class EvaluationScope {
public:
    EvaluationScope() noexcept;
    ~EvaluationScope();
    EvaluationScope(const EvaluationScope&) = delete;
    EvaluationScope& operator=(const EvaluationScope&) = delete;
};

// The identifier of the calling thread as the interpreter knows it (threading.get_ident() in
// that thread): what `interruptEvaluation` takes. Needs no lock and no interpreter.
std::int64_t currentThreadId() noexcept;

// Stops the evaluation running on the thread `threadId`: the evaluation ends with the error of
// a `tala.python.Interrupted` exception (a KeyboardInterrupt, "The evaluation was
// interrupted."), raised again and again until the evaluation has ended, so that code that
// catches it with a bare `except:` is stopped all the same. Other threads' evaluations are not
// touched. True when an evaluation was running there; on a thread that runs none it does
// nothing and answers false. Safe to call at any moment from any thread.
bool interruptEvaluation(std::int64_t threadId);

// The exception type raised in an interrupted evaluation (borrowed, kept for the process).
// The caller holds the interpreter lock.
PyObject* interruptedType();

}  // namespace tala::python
