// python/extension/init_table.hpp: the extension's start-up handlers, as a table that tests can read.
#pragma once

#include <span>

namespace tala::python {

// One start-up handler: its priority, a name that says what it registers, and the function the
// object model runs. The object model's handler list holds these very functions.
struct InitEntry {
    int priority;
    const char* name;
    void (*handler)();
};

// Every handler the extension registers, in the order it registers them (by priority): the
// class registrations (1), the logging bridge (2), the documentation of module "tala.python"
// (3), and its module functions (4).
std::span<const InitEntry> initTable();

}  // namespace tala::python
