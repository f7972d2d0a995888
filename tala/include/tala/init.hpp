// tala/init.hpp: start-up handlers and the loading of extension libraries.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tala/any.hpp"

namespace tala {

namespace internal {

using InitHandler = std::function<void()>;

// Registers a handler to run when the host runs the handlers (usually from a static
// initialiser of an extension library).
void add_init_handler(int priority, InitHandler handler);
// The handler list itself, for those who append to it directly. Entries are never removed.
std::vector<std::pair<int, InitHandler>>& init_handlers_unsafe();

}  // namespace internal

// Settings a host gives its language extensions before they start, by dotted name
// ("python.interpreters"): each extension documents the names it reads and reads them when it
// starts. Safe from any thread; an unset name reads as the empty value.
void set_language_option(std::string_view name, Any value);
Any language_option(std::string_view name);

// Runs the handlers that have not run yet, in ascending priority and, within one priority, in
// the order they were added. Handlers added while they run are run too. A handler that throws
// is reported in the returned Error (after the others have run); None when all went well.
Any run_init_handlers();

// Loads an extension: opens the shared library at `path`, calls its exported
// `quarto_extension_init`, then runs the init handlers. None, or an Error that names the path.
Any load_extension(const std::string& path);

}  // namespace tala
