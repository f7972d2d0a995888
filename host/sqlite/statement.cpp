// host/sqlite/statement.cpp: one prepared statement, stepped to its rows or to its end.
#include "statement.hpp"

#include "column_values.hpp"
#include "errors.hpp"

namespace tala::sqlite {

Any Statement::prepare(sqlite3* connection, std::string_view sql) {
    connection_ = connection;
    const char* tail = nullptr;
    int code = sqlite3_prepare_v2(connection, sql.data(), static_cast<int>(sql.size()), &statement_, &tail);
    if (code != SQLITE_OK) return connectionError(connection);
    if (statement_ == nullptr) return sqlError(SQLITE_MISUSE, String("The SQL text holds no statement."));
    // A second statement would silently not run; only blanks and comments may follow. Whatever
    // else follows is a second statement, also one that could not be prepared now (it may need
    // what the first makes).
    const std::string_view rest = sql.substr(static_cast<std::size_t>(tail - sql.data()));
    if (rest.find_first_not_of(" \t\r\n;") == std::string_view::npos) return Any();
    sqlite3_stmt* next = nullptr;
    code = sqlite3_prepare_v2(connection, rest.data(), static_cast<int>(rest.size()), &next, nullptr);
    const bool another = code != SQLITE_OK || next != nullptr;
    sqlite3_finalize(next);
    if (another) {
        return sqlError(SQLITE_MISUSE, String("The SQL text holds more than one statement: run one at a time, or "
                                              "several without parameters with executeScript."));
    }
    return Any();
}

std::shared_ptr<const Columns> Statement::columns() const {
    auto columns = std::make_shared<Columns>();
    const int count = sqlite3_column_count(statement_);
    columns->names.reserve(static_cast<std::size_t>(count));
    columns->types.reserve(static_cast<std::size_t>(count));
    for (int index = 0; index < count; ++index) {
        const char* name = sqlite3_column_name(statement_, index);
        columns->names.emplace_back(name == nullptr ? "" : name);
        columns->types.push_back(classifyDeclaredType(sqlite3_column_decltype(statement_, index)));
    }
    return columns;
}

Any Statement::run(const ParameterSet& parameters, List<Row>* rows, std::int64_t& changes) {
    changes = 0;
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
    if (Any bound = bindParameters(statement_, parameters); is_error_result(bound)) return bound;
    std::shared_ptr<const Columns> columns;
    const int count = sqlite3_column_count(statement_);
    if (rows != nullptr && count > 0) columns = this->columns();
    // sqlite3_changes keeps the count of the last INSERT, UPDATE or DELETE, also when another
    // statement ran since; the total moves only when this statement changed something.
    const std::int64_t totalBefore = sqlite3_total_changes64(connection_);
    for (;;) {
        const int code = sqlite3_step(statement_);
        if (code == SQLITE_DONE) break;
        if (code != SQLITE_ROW) {
            Error error = connectionError(connection_);
            sqlite3_reset(statement_);
            return error;
        }
        if (rows == nullptr || count == 0) continue;
        std::vector<Any> values;
        values.reserve(static_cast<std::size_t>(count));
        for (int index = 0; index < count; ++index) {
            values.push_back(readColumn(statement_, index, columns->types[static_cast<std::size_t>(index)]));
        }
        rows->append(makeRow(columns, std::move(values)));
    }
    if (sqlite3_total_changes64(connection_) != totalBefore) changes = sqlite3_changes64(connection_);
    sqlite3_reset(statement_);
    return Any();
}

}  // namespace tala::sqlite
