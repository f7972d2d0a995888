// host/sqlite/parameters.hpp: the parameters of a statement, taken from host values before the
// connection's lock is taken.
#pragma once

#include <sqlite3.h>

#include <utility>
#include <vector>

#include "tala/tala.hpp"

namespace tala::sqlite {

// One set of parameter values, as plain host values. Reading them may run code of another
// language (a Python list reaches the host as a proxy whose items are read through Python), so
// it is done before the connection's lock is taken: a thread that holds the lock never waits
// for anything else.
struct ParameterSet {
    bool given = false;         // false: no parameters (None, or omitted)
    bool byPosition = false;    // `positional` holds the values
    bool byName = false;        // `named` holds the values
    std::vector<Any> positional;
    std::vector<std::pair<String, Any>> named;
};

// Reads `source`: None (no parameters), a list, tuple or other sequence (by position), a map
// (by name), or a row (both: by name for a statement with named parameters, else by position).
// None, or an SqlError for anything else.
Any collectParameters(const Any& source, ParameterSet& into);

// Reads a sequence of parameter sets, for executeMany. None, or an SqlError.
Any collectParameterSets(const Any& source, std::vector<ParameterSet>& into);

// Binds a set to a prepared statement: every parameter of the statement gets a value. By
// position the counts must agree; by name (":name", "@name", "$name") every name must be in the
// map, and entries the statement does not use are ignored. None, or an SqlError.
Any bindParameters(sqlite3_stmt* statement, const ParameterSet& parameters);

}  // namespace tala::sqlite
