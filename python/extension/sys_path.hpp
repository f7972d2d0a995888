// python/extension/sys_path.hpp: registering directories and archives on Python's search path.
#pragma once

#include <string>
#include <vector>

#include "tala/tala.hpp"

namespace tala::python {

// Adds `path` to sys.path once (an exact string match; no normalisation). Before the interpreter
// runs, the path is queued and added when it starts. In the isolated layout every interpreter
// gets it: the calling thread's at once, the others at the next entry of a thread, those made
// later when they start. None, or the error of a failed `import sys`.
Union<None, Lazy<None>, Error> python_add_sys_path(const String& path);

// A copy of the paths queued before the interpreter ran, in the order they were requested.
std::vector<String> pendingSysPaths();

// Registers the search paths that lie beside the library in `ownDirectory`: the ".zip" archives
// in "/site-packages", that directory itself, then the ".zip" archives in "/python3/lib". A
// directory that cannot be listed throws the filesystem error and registers nothing after it.
void registerSearchPaths(const std::string& ownDirectory);

class Interpreter;
// Gives `interpreter` (whose lock the caller holds) the paths added since it last had them, and a
// new isolated interpreter also those queued before Python ran.
void applySearchPaths(Interpreter& interpreter);

}  // namespace tala::python
