// host/sqlite/database.hpp: Database, one connection to an SQLite database, shared by any number of
// host threads.
#pragma once

#include <sqlite3.h>

#include <mutex>
#include <vector>

#include "tala/tala.hpp"

namespace tala::sqlite {

// The cell of a database. The lock serializes every use of the connection: SQLite's own error
// message and change counts belong to the connection, so a statement, its steps and the reading
// of its outcome must not interleave with another thread's. The connection is closed by
// close() or, at the latest, when the last reference goes.
class DatabaseCell final : public internal::ObjectCell {
public:
    DatabaseCell(const internal::ClassCell* databaseClass, sqlite3* connection, String path);
    ~DatabaseCell() override;

    std::mutex lock;
    sqlite3* connection;  // guarded by `lock`; null once closed
    const String path;
    // One entry per `with` block open on the connection, innermost last: whether that block
    // began the transaction (a block inside a transaction someone else began leaves it alone).
    // Guarded by `lock`.
    std::vector<bool> scopes;
};

// A value whose cell is a DatabaseCell.
class Database : public internal::View<Database> {
public:
    using View::View;
    static bool matches(const Any& value) noexcept;
    DatabaseCell* cell() const noexcept { return static_cast<DatabaseCell*>(internal::objectCellOf(*this)); }
    static Class_Generic getClass();
    static Type getType();
};

// Opens (creating it if need be) the database at `path`; ":memory:" is a new in-memory database,
// and "file:" names are URIs ("file:shop.db?mode=ro"). A Database, or an SqlError.
Any openDatabase(const String& path);

namespace testing {
// Database cells alive right now in this process.
std::int64_t liveDatabases() noexcept;
}  // namespace testing

}  // namespace tala::sqlite
