// host/sqlite/errors.hpp: the error class SqlError, and errors made from a connection's state.
#pragma once

#include <sqlite3.h>

#include "tala/tala.hpp"

namespace tala::sqlite {

// The class of every error of the module: derived from Error, declared in "sqlite", with the
// result code in its property `code`.
Class_Generic sqlErrorClass();

// An SqlError with SQLite's (extended) result code and a message.
Error sqlError(int code, String message);

// The error SQLite reports for the last failed call on `connection`: its extended result code
// and its own message. Read it before anything else runs on the connection (the caller holds
// the connection's lock), or another call replaces it.
Error connectionError(sqlite3* connection);

// The error of every operation on a closed database.
Error closedError();

}  // namespace tala::sqlite
