// host/sqlite/sqlite_module.cpp: the host module "sqlite" and the registration of its classes.
#include "sqlite_module.hpp"

#include <sqlite3.h>

#include "database.hpp"
#include "errors.hpp"
#include "row.hpp"

namespace tala::sqlite {

Module sqliteModule() {
    return Module::create("sqlite",
                          String("SQLite databases: Database (a connection; Database.open(path) opens one), Row (one "
                                 "row of a result, read by column name, attribute or position) and SqlError (every "
                                 "failure, with SQLite's own message). Uses SQLite {}.")
                              .arg(String(sqlite3_libversion())));
}

void registerModule() {
    const Module module = sqliteModule();
    for (const Class_Generic& cls : {Database::getClass(), Row::getClass(), sqlErrorClass()}) {
        if (!module.classes().contains(cls.name())) module.addClass(cls);
    }
}

namespace {

// Registered while the library loads, like every extension's classes: the host runs it with the
// other init handlers (tala::load_extension does so right after the entry point).
[[maybe_unused]] const bool g_registered = [] {
    internal::add_init_handler(1, registerModule);
    return true;
}();

}  // namespace

}  // namespace tala::sqlite
