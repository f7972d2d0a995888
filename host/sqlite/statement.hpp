// host/sqlite/statement.hpp: one prepared statement, stepped to its rows or to its end. Every
// function here runs with the connection's lock held.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string_view>

#include "parameters.hpp"
#include "row.hpp"
#include "tala/tala.hpp"

namespace tala::sqlite {

// Owns a prepared statement and finalizes it when it goes.
class Statement {
public:
    Statement() = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { sqlite3_finalize(statement_); }

    // Compiles `sql`, which must hold exactly one statement (comments and blanks around it are
    // fine). None, or an SqlError with SQLite's message.
    Any prepare(sqlite3* connection, std::string_view sql);

    sqlite3_stmt* get() const noexcept { return statement_; }

    // The statement's result columns, made once for all its rows.
    std::shared_ptr<const Columns> columns() const;

    // Binds, then steps to the end: a list of the rows when `rows` is given, and the number of
    // rows the statement changed. None, or an SqlError.
    Any run(const ParameterSet& parameters, List<Row>* rows, std::int64_t& changes);

private:
    sqlite3_stmt* statement_ = nullptr;
    sqlite3* connection_ = nullptr;
};

}  // namespace tala::sqlite
