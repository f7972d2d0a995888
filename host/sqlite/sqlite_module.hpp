// host/sqlite/sqlite_module.hpp: the host module "sqlite" and the registration of its classes.
#pragma once

#include "tala/tala.hpp"

namespace tala::sqlite {

// The module "sqlite", registered on first use.
Module sqliteModule();

// Adds Database, Row and SqlError to the module. Run once by the library's priority-1 init
// handler; safe to run again.
void registerModule();

}  // namespace tala::sqlite
