// host/sqlite/errors.cpp: the error class SqlError, and errors made from a connection's state.
#include "errors.hpp"

#include "result_codes.hpp"
#include "sqlite_module.hpp"

namespace tala::sqlite {

namespace {

const Identifier kCodeField{"$_code"};
const Identifier kCode{"$$code"};
const Identifier kCodeName{"$$codeName"};

}  // namespace

Class_Generic sqlErrorClass() {
    static const ClassRegistration registration("SqlError", [] {
        return ClassBuilder("SqlError")
            .doc("An error of the database: its message is SQLite's own (\"no such table: x\",\n"
                 "\"UNIQUE constraint failed: products.sku\"), or for a misuse of the module a sentence\n"
                 "saying what was wrong. Raised in Python as the exception type sqlite.SqlError,\n"
                 "derived from RuntimeError: its message is str(e), and its code and codeName read\n"
                 "on the exception (e.code, e.codeName).")
            .declaringContext(sqliteModule())
            .parent(Error::getClass())
            .field(kCodeField, Integer::getType())
            .property(kCode, [](const Any& self) -> Integer {
                const Any code = self.fieldValue(kCodeField);
                return code.kind() == Kind::Integer ? Integer(internal::unchecked, code) : Integer(SQLITE_ERROR);
            }, "SQLite's extended result code (19 or 2067 for a constraint, 21 for a misuse, 25 for a "
               "parameter out of range, ...); 1 when none was given.")
            .property(kCodeName, [](const Any& self) -> Any {
                const Any code = self.fieldValue(kCodeField);
                return String(resultCodeName(code.kind() == Kind::Integer ? int(code.rawInteger()) : SQLITE_ERROR));
            }, "The name of the result code, as sqlite3.h names it (\"SQLITE_CONSTRAINT_UNIQUE\").")
            .build();
    });
    return registration.get();
}

Error sqlError(int code, String message) {
    Error error(sqlErrorClass(), std::move(message));
    (void)error.setFieldValue(kCodeField, Integer(code));
    return error;
}

Error connectionError(sqlite3* connection) {
    return sqlError(sqlite3_extended_errcode(connection), String(sqlite3_errmsg(connection)));
}

Error closedError() { return sqlError(SQLITE_MISUSE, String("The database is closed.")); }

}  // namespace tala::sqlite
