// examples/make_shop_db.cpp: makes the example database from its SQL script, anew each time:
//
//     tala_make_shop_db examples/shop.sql build/examples/shop.db
//
// The database is made under a temporary name and renamed at the end, so that an interrupted
// build never leaves half a database behind.
#include <sqlite3.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: tala_make_shop_db SCRIPT.sql DATABASE\n");
        return 2;
    }
    std::ifstream input(argv[1], std::ios::binary);
    if (!input) {
        std::fprintf(stderr, "Cannot read the script '%s'.\n", argv[1]);
        return 1;
    }
    std::stringstream script;
    script << input.rdbuf();

    const std::filesystem::path target(argv[2]);
    const std::filesystem::path partial = target.string() + ".partial";
    std::error_code ignored;
    std::filesystem::remove(partial, ignored);

    sqlite3* database = nullptr;
    if (sqlite3_open(partial.c_str(), &database) != SQLITE_OK) {
        std::fprintf(stderr, "Cannot make '%s': %s\n", partial.c_str(), sqlite3_errmsg(database));
        sqlite3_close(database);
        return 1;
    }
    char* message = nullptr;
    const int code = sqlite3_exec(database, script.str().c_str(), nullptr, nullptr, &message);
    if (code != SQLITE_OK) std::fprintf(stderr, "%s: %s\n", argv[1], message != nullptr ? message : sqlite3_errstr(code));
    sqlite3_free(message);
    sqlite3_close(database);
    if (code != SQLITE_OK) {
        std::filesystem::remove(partial, ignored);
        return 1;
    }
    std::filesystem::rename(partial, target);
    return 0;
}
