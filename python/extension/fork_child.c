/* python/extension/fork_child.c: the child of a fork keeps only the main interpreter, without taking the others down.
 *
 * CPython's own repair of a child (PyOS_AfterFork_Child) clears every interpreter but the main
 * one, and 3.13 does so with no thread state current, which ends the process as soon as the
 * clearing frees a list or a dict ("PyThreadState_Get: the function must be called with the GIL
 * held"). The child has none of the threads that ran in those interpreters, so nothing there can
 * run again: they are taken out of CPython's list of interpreters before the repair, and their
 * memory, a copy of the parent's, is left as it is. Written in C because it reads CPython's own
 * structures, whose headers are C. */
#define Py_BUILD_CORE 1
#include <Python.h>
#include "internal/pycore_interp.h"
#include "internal/pycore_runtime.h"

void tala_python_keep_only_the_main_interpreter(void) {
    _PyRuntimeState *runtime = &_PyRuntime;
    PyInterpreterState *main_interpreter = runtime->interpreters.main;
    if (main_interpreter == NULL) return;
    runtime->interpreters.head = main_interpreter;
    main_interpreter->next = NULL;
}
