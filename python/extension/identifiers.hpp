// python/extension/identifiers.hpp: the object-model identifiers the extension uses.
#pragma once

#include "tala/identifier.hpp"

namespace tala::python {

inline const Identifier $$defaults{"$$defaults"};
inline const Identifier $importAllModules{"$importAllModules"};
inline const Identifier $_sign{"$_sign"};
inline const Identifier $_pyobj{"$_pyobj"};

}  // namespace tala::python
