// tala/src/tala_module.hpp: the module "tala" before its members, for the classes declared in it.
#pragma once

#include "tala/module.hpp"

namespace tala::internal {

// The registered module "tala", without the members tala_module() adds: a class declared in it
// names it as its declaring context while the module is still being filled.
Module bareTalaModule();

}  // namespace tala::internal
