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

    // Once the code has run: when the evaluation was interrupted, leaves the interruption as the
    // pending exception and answers true, so that the evaluation fails with it whatever the code
    // gave. The interruption the code let out stays as it is; one the code caught (and then
    // returned, or raised something else) is raised again as it was first raised, with the
    // frames it passed; one that came too late to be raised is made now.
    bool endsInterrupted() noexcept;

private:
    bool counted_;  // false inside UncountedEvaluations: the scope does nothing
};

// While one lives, the calling thread's evaluations are the extension's own (an interpreter's
// first ones, run when it starts): they do not count as running, so an interruption asked for
// meanwhile is not taken by them but waits for the host's evaluation.
class UncountedEvaluations {
public:
    UncountedEvaluations() noexcept;
    ~UncountedEvaluations();
    UncountedEvaluations(const UncountedEvaluations&) = delete;
    UncountedEvaluations& operator=(const UncountedEvaluations&) = delete;

private:
    bool previous_;
};

// The identifier of the calling thread as the interpreter knows it (threading.get_ident() in
// that thread): what `interruptEvaluation` takes. Needs no lock and no interpreter.
std::int64_t currentThreadId() noexcept;

// How long code may go on after the interruption before it is interrupted again at every jump.
constexpr double kDefaultGraceSeconds = 1.0;

// Stops the evaluation running on the thread `threadId`. The evaluation sees a
// `tala.python.Interrupted` exception (a KeyboardInterrupt, "The evaluation was interrupted."),
// raised once where it runs: in Python code at its next jump or call, in a wait of Python's own
// in C on the interpreter's main thread (a signal ends the wait: interrupt_signal.hpp), or in a
// blocking host function, which is asked to stop (tala::cancel_blocking_call). `except` and
// `finally` blocks then run; code still running `graceSeconds` later is interrupted again at
// every jump, so that a bare `except: pass` loop ends too. The evaluation ends with the
// interruption's error whatever the code does. Interrupting an evaluation that was interrupted
// already ends its grace period at once. Other threads' evaluations are not touched. True when
// an evaluation was running there; on a thread that runs none it does nothing and answers
// false. Safe to call at any moment from any thread.
bool interruptEvaluation(std::int64_t threadId, double graceSeconds = kDefaultGraceSeconds);

// After a blocking host call that was asked to stop gave its error: raises the interruption of
// this thread's evaluation in its place and answers true; false (nothing raised) when the
// evaluation was not interrupted. The caller holds the interpreter lock.
bool raisePendingInterruption() noexcept;

// The exception type raised in an interrupted evaluation (borrowed, kept for the process).
// The caller holds the interpreter lock.
PyObject* interruptedType();

}  // namespace tala::python
