// host/sqlite/database.cpp: Database, one connection to an SQLite database, shared by any number of
// host threads.
#include "database.hpp"

#include <atomic>
#include <span>
#include <string>
#include <vector>

#include "errors.hpp"
#include "parameters.hpp"
#include "row.hpp"
#include "sqlite_module.hpp"
#include "statement.hpp"

namespace tala::sqlite {

namespace {

std::atomic<std::int64_t> g_liveDatabases{0};

// How long a statement waits for another connection (another process) to release a lock on the
// file before it fails with "database is locked".
constexpr int kBusyTimeoutMilliseconds = 5000;

const Identifier kOpen{"$open"};
const Identifier kQuery{"$query"};
const Identifier kExecute{"$execute"};
const Identifier kExecuteMany{"$executeMany"};
const Identifier kExecuteScript{"$executeScript"};
const Identifier kClose{"$close"};
const Identifier kTables{"$$tables"};
const Identifier kPath{"$$path"};
const Identifier kIsOpen{"$$isOpen"};
const Identifier kLastInsertRowId{"$$lastInsertRowId"};
const Identifier kInTransaction{"$$inTransaction"};
const Identifier kEnter{"$__enter__"};
const Identifier kExit{"$__exit__"};

// ---- Operations, each under the connection's lock -------------------------------------------

// How many virtual machine steps a statement makes between two looks at whether its call was
// asked to stop.
constexpr int kStepsBetweenStopChecks = 1000;

// Answers non-zero, which makes SQLite end the running statement with "interrupted", once the
// flag it watches is set.
int stopWhenAsked(void* asked) { return static_cast<const std::atomic<bool>*>(asked)->load(std::memory_order_relaxed) ? 1 : 0; }

// Runs `body(connection)` with the lock held, or answers the closed-database error. A runtime
// that is asked to stop the call (an interrupted evaluation) stops the statements running on the
// connection meanwhile, which are this call's own while it holds the lock: they end with
// SQLite's "interrupted". SQLite forgets an interrupt that comes while no statement runs, so the
// request also sets a flag that a progress handler watches: a statement that starts after it
// stops too. The connection stays open until the scope has ended.
template <class Body>
Any withConnection(const Database& database, Body&& body) {
    DatabaseCell* cell = database.cell();
    std::lock_guard lock(cell->lock);
    sqlite3* connection = cell->connection;
    if (connection == nullptr) return closedError();
    std::atomic<bool> asked{false};
    sqlite3_progress_handler(connection, kStepsBetweenStopChecks, stopWhenAsked, &asked);
    Any result;
    {
        const CancelScope cancellable([connection, &asked] {
            asked.store(true, std::memory_order_relaxed);
            sqlite3_interrupt(connection);
        });
        // Asked to stop while it waited for the lock: the call ends before it starts.
        result = cancellable.cancelled() ? sqlError(SQLITE_INTERRUPT, String(sqlite3_errstr(SQLITE_INTERRUPT))) : body(connection);
    }
    sqlite3_progress_handler(connection, 0, nullptr, nullptr);
    return result;
}

Any query(const Database& database, const String& sql, const Any& parameters) {
    ParameterSet set;
    if (Any collected = collectParameters(parameters, set); is_error_result(collected)) return collected;
    return withConnection(database, [&](sqlite3* connection) -> Any {
        Statement statement;
        if (Any prepared = statement.prepare(connection, sql.view()); is_error_result(prepared)) return prepared;
        List<Row> rows;
        std::int64_t changes = 0;
        if (Any ran = statement.run(set, &rows, changes); is_error_result(ran)) return ran;
        return rows;
    });
}

Any execute(const Database& database, const String& sql, const Any& parameters) {
    ParameterSet set;
    if (Any collected = collectParameters(parameters, set); is_error_result(collected)) return collected;
    return withConnection(database, [&](sqlite3* connection) -> Any {
        Statement statement;
        if (Any prepared = statement.prepare(connection, sql.view()); is_error_result(prepared)) return prepared;
        std::int64_t changes = 0;
        if (Any ran = statement.run(set, nullptr, changes); is_error_result(ran)) return ran;
        return Integer(changes);
    });
}

// Runs a statement of SQLite's own (no parameters, no rows) on a connection that is locked.
Any runPlain(sqlite3* connection, const char* sql) {
    if (sqlite3_exec(connection, sql, nullptr, nullptr, nullptr) != SQLITE_OK) return connectionError(connection);
    return Any();
}

// All or nothing: the sets run inside a savepoint, which also works inside a transaction that
// the caller opened; the first failure undoes the sets before it.
Any executeMany(const Database& database, const String& sql, const Any& rows) {
    std::vector<ParameterSet> sets;
    if (Any collected = collectParameterSets(rows, sets); is_error_result(collected)) return collected;
    return withConnection(database, [&](sqlite3* connection) -> Any {
        Statement statement;
        if (Any prepared = statement.prepare(connection, sql.view()); is_error_result(prepared)) return prepared;
        if (Any begun = runPlain(connection, "SAVEPOINT tala_execute_many"); is_error_result(begun)) return begun;
        std::int64_t total = 0;
        for (const ParameterSet& set : sets) {
            std::int64_t changes = 0;
            if (Any ran = statement.run(set, nullptr, changes); is_error_result(ran)) {
                (void)runPlain(connection, "ROLLBACK TO tala_execute_many");
                (void)runPlain(connection, "RELEASE tala_execute_many");
                return ran;
            }
            total += changes;
        }
        if (Any released = runPlain(connection, "RELEASE tala_execute_many"); is_error_result(released)) {
            (void)runPlain(connection, "ROLLBACK TO tala_execute_many");
            (void)runPlain(connection, "RELEASE tala_execute_many");
            return released;
        }
        return Integer(total);
    });
}

Any executeScript(const Database& database, const String& sql) {
    const std::string text(sql.view());  // NUL-terminated for sqlite3_exec
    return withConnection(database, [&](sqlite3* connection) -> Any {
        char* message = nullptr;
        if (sqlite3_exec(connection, text.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            Error error = message != nullptr ? sqlError(sqlite3_extended_errcode(connection), String(message))
                                             : connectionError(connection);
            sqlite3_free(message);
            return error;
        }
        return Any();
    });
}

// ---- `with db:` --------------------------------------------------------------------------------

// Opens a block: begins a transaction unless one is open already (the caller's own, or an outer
// block's), and gives the database, as Python's `with` hands it to `as`.
Any enterBlock(const Database& database) {
    Any entered = withConnection(database, [&](sqlite3* connection) -> Any {
        const bool begins = sqlite3_get_autocommit(connection) != 0;
        if (begins) {
            if (Any begun = runPlain(connection, "BEGIN"); is_error_result(begun)) return begun;
        }
        database.cell()->scopes.push_back(begins);
        return Any();
    });
    if (is_error_result(entered)) return entered;
    return database;
}

// Closes a block: a block that began the transaction commits it when the block succeeded and
// rolls it back when it raised (`error` is what it raised). A commit that fails rolls back and is
// the block's error. The block's exception is never swallowed.
Any exitBlock(const Database& database, const Any& error) {
    return withConnection(database, [&](sqlite3* connection) -> Any {
        std::vector<bool>& scopes = database.cell()->scopes;
        if (scopes.empty()) return sqlError(SQLITE_MISUSE, String("The database's with block was left without being entered."));
        const bool began = scopes.back();
        scopes.pop_back();
        const bool open = sqlite3_get_autocommit(connection) == 0;
        if (!began || !open) return Any(Boolean(false));
        if (error.isEmpty()) {
            if (Any committed = runPlain(connection, "COMMIT"); is_error_result(committed)) {
                if (sqlite3_get_autocommit(connection) == 0) (void)runPlain(connection, "ROLLBACK");
                return committed;
            }
            return Any(Boolean(false));
        }
        if (Any rolledBack = runPlain(connection, "ROLLBACK"); is_error_result(rolledBack)) return rolledBack;
        return Any(Boolean(false));
    });
}

Any tables(const Database& database) {
    return withConnection(database, [](sqlite3* connection) -> Any {
        Statement statement;
        Any prepared = statement.prepare(connection, "SELECT name FROM sqlite_schema WHERE type = 'table' AND "
                                                     "name NOT LIKE 'sqlite\\_%' ESCAPE '\\' ORDER BY name");
        if (is_error_result(prepared)) return prepared;
        List<Row> rows;
        std::int64_t changes = 0;
        if (Any ran = statement.run(ParameterSet(), &rows, changes); is_error_result(ran)) return ran;
        List<String> names;
        names.reserve(rows.size());
        for (const Any& row : rows) names.append(String(internal::unchecked, Row(internal::unchecked, row).values()[0]));
        return names;
    });
}

void close(const Database& database) {
    DatabaseCell* cell = database.cell();
    std::lock_guard lock(cell->lock);
    if (cell->connection == nullptr) return;
    sqlite3_close_v2(cell->connection);
    cell->connection = nullptr;
}

String displayDatabase(const Database& database) {
    DatabaseCell* cell = database.cell();
    std::lock_guard lock(cell->lock);
    return String(cell->connection == nullptr ? "Database({}, closed)" : "Database({})").arg(display(cell->path));
}

Any constructDatabase(std::span<const Any> arguments) {
    if (arguments.size() == 1) {
        if (auto path = String::cast(arguments[0])) return openDatabase(*path);
    }
    return sqlError(SQLITE_MISUSE, String("A database is opened with Database.open(path), or Database(path)."));
}

Class_Generic buildDatabaseClass() {
    const Class_Generic cls =
        ClassBuilder("Database")
            .doc("A connection to an SQLite database file (or an in-memory database).\n"
                 "\n"
                 "Open one with Database.open(path). Statements take their parameters by position, a\n"
                 "list for \"?\" placeholders, or by name, a map for \":name\" placeholders; a statement\n"
                 "without parameters takes None, or nothing. Values come back as Integer, Float,\n"
                 "String, ByteArray or None by their storage class, and as Decimal, Date, DateTime or\n"
                 "Boolean where the column is declared DECIMAL or NUMERIC, DATE, DATETIME or\n"
                 "TIMESTAMP, BOOLEAN. Decimals, dates and times are stored as their exact text.\n"
                 "\n"
                 "`with db:` runs a block in a transaction: committed when the block succeeds, rolled\n"
                 "back when it raises (inside a transaction opened before it, the block changes nothing).\n"
                 "\n"
                 "Any number of threads may use one database: each call runs alone on the connection.\n"
                 "Every failure is an SqlError; every call on a closed database fails with \"The\n"
                 "database is closed.\".")
            .declaringContext(sqliteModule())
            .constructor(constructDatabase, Signature({Parameter{String("path"), String::getType()}}, Type::any()))
            // The parameters may be left out, for a statement that has none.
            .method(kQuery, blocking(native_function(
                [](const Database& database, const String& sql, const std::optional<Any>& parameters) {
                    return Union<List<Row>, Error>(internal::unchecked, query(database, sql, parameters.value_or(Any())));
                },
                String("query"), {"sql", "parameters"},
                "Runs one statement and gives its rows, each a Row. Parameters: a list for \"?\", a map for "
                "\":name\", or None (or nothing) when the statement has none.", false)))
            .method(kExecute, blocking(native_function(
                [](const Database& database, const String& sql, const std::optional<Any>& parameters) {
                    return Union<Integer, Error>(internal::unchecked, execute(database, sql, parameters.value_or(Any())));
                },
                String("execute"), {"sql", "parameters"},
                "Runs one statement and gives the number of rows it inserted, changed or deleted (0 for any "
                "other statement). Parameters as for query.", false)))
            .method(kExecuteMany, blocking(native_function(
                [](const Database& database, const String& sql, const Any& rows) {
                    return Union<Integer, Error>(internal::unchecked, executeMany(database, sql, rows));
                },
                String("executeMany"), {"sql", "rows"},
                "Runs one statement once for each parameter list or map of rows and gives the total number of "
                "rows changed. All or nothing: a failure undoes the runs before it.", false)))
            .method(kExecuteScript, blocking(native_function(
                [](const Database& database, const String& sql) {
                    return Union<None, Error>(internal::unchecked, executeScript(database, sql));
                },
                String("executeScript"), {"sql"},
                "Runs any number of statements separated by semicolons, without parameters (a schema, a batch "
                "of inserts).", false)))
            .method(kClose, blocking(native_function([](const Database& database) { close(database); },
                                                     String("close"), {},
                                                     "Closes the connection. Closing a closed database does "
                                                     "nothing; anything else on it fails.", false)))
            .property(kTables, [](const Database& database) {
                return Union<List<String>, Error>(internal::unchecked, tables(database));
            },
                      "The names of the tables, in alphabetical order.")
            .property(kPath, [](const Database& database) { return database.cell()->path; },
                      "The path (or URI, or \":memory:\") the database was opened with.")
            .property(kIsOpen, [](const Database& database) {
                DatabaseCell* cell = database.cell();
                std::lock_guard lock(cell->lock);
                return cell->connection != nullptr;
            }, "Whether the connection is open.")
            .property(kLastInsertRowId, [](const Database& database) {
                return Union<Integer, Error>(internal::unchecked, withConnection(database, [](sqlite3* connection) -> Any {
                    return Integer(sqlite3_last_insert_rowid(connection));
                }));
            }, "The rowid of the last row inserted through this connection, by any thread.")
            .property(kInTransaction, [](const Database& database) {
                return Union<Boolean, Error>(internal::unchecked, withConnection(database, [](sqlite3* connection) -> Any {
                    return Boolean(sqlite3_get_autocommit(connection) == 0);
                }));
            }, "Whether a transaction is open on the connection (begun by a with block or by BEGIN).")
            // Gives the database itself (its type is not known yet while the class is built).
            .method(kEnter, blocking(native_function(
                [](const Database& database) { return Union<Any, Error>(internal::unchecked, enterBlock(database)); },
                String("__enter__"), {},
                "Begins a with block: a transaction, unless one is open already; gives the database.", false)))
            .method(kExit, blocking(native_function(
                [](const Database& database, const Any&, const Any& error, const Any&) {
                    return Union<Boolean, Error>(internal::unchecked, exitBlock(database, error));
                },
                String("__exit__"), {"type", "error", "traceback"},
                "Ends a with block: commits the transaction it began when the block succeeded, rolls it back "
                "when the block raised; a block inside a transaction opened before it changes nothing.", false)))
            .method(Any::$__display__, [](const Database& database) { return displayDatabase(database); }, {},
                    "The database as Database('path').")
            .build();
    // open names the class itself in its signature, so it is added once the class exists.
    const_cast<internal::ClassCell*>(cls.cell())
        ->addMethod(kOpen, make_function(
                               String("open"),
                               [](std::span<const Any> arguments) -> Any {
                                   if (arguments.empty()) {
                                       return ArgumentError(String("open() missing 1 required argument: 'path'"));
                                   }
                                   if (arguments.size() != 1) {
                                       return ArgumentError(String("open() takes 1 argument but {} {} given")
                                                                .arg(Integer(std::int64_t(arguments.size())),
                                                                     String(arguments.size() == 1 ? "was" : "were")));
                                   }
                                   auto path = String::cast(arguments[0]);
                                   if (!path) {
                                       return internal::wrongArgumentType(String("open"), String("path"), String::getType(),
                                                                          arguments[0]);
                                   }
                                   return openDatabase(*path);
                               },
                               Signature({Parameter{String("path"), String::getType()}}, Type(cls)), true,
                               String("Opens the database at a path, creating the file if it does not exist. "
                                      "\":memory:\" opens a new in-memory database; a \"file:\" URI may ask "
                                      "for more (\"file:shop.db?mode=ro\" opens it read-only).")));
    return cls;
}

}  // namespace

DatabaseCell::DatabaseCell(const internal::ClassCell* databaseClass, sqlite3* connection, String path)
    : ObjectCell(databaseClass), connection(connection), path(std::move(path)) {
    g_liveDatabases.fetch_add(1, std::memory_order_relaxed);
}

DatabaseCell::~DatabaseCell() {
    // The last reference is gone: nobody else can hold the lock.
    if (connection != nullptr) sqlite3_close_v2(connection);
    g_liveDatabases.fetch_sub(1, std::memory_order_relaxed);
}

bool Database::matches(const Any& value) noexcept {
    return dynamic_cast<const DatabaseCell*>(internal::objectCellOf(value)) != nullptr;
}

Class_Generic Database::getClass() {
    static const ClassRegistration registration("Database", buildDatabaseClass);
    return registration.get();
}

Type Database::getType() { return Type(getClass()); }

Any openDatabase(const String& path) {
    const std::string file(path.view());
    sqlite3* connection = nullptr;
    // The connection's own mutex is not needed: DatabaseCell::lock serializes every use.
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX;
    const int code = sqlite3_open_v2(file.c_str(), &connection, flags, nullptr);
    if (code != SQLITE_OK) {
        Error error = connection != nullptr ? connectionError(connection) : sqlError(code, String(sqlite3_errstr(code)));
        sqlite3_close_v2(connection);
        return error;
    }
    sqlite3_extended_result_codes(connection, 1);
    sqlite3_busy_timeout(connection, kBusyTimeoutMilliseconds);
    return Any::adopt(Kind::Object, new DatabaseCell(Database::getClass().cell(), connection, path));
}

std::int64_t testing::liveDatabases() noexcept { return g_liveDatabases.load(std::memory_order_relaxed); }

}  // namespace tala::sqlite
