// host/sqlite/entry.cpp: the library's one exported entry point.
#include <sqlite3.h>

// Called once by the host after loading the library. The module's classes are registered by the
// init handler that the library added while it loaded, which the host runs next; nothing is left
// to do here but make sure that SQLite itself is ready before any thread opens a database.
extern "C" __attribute__((visibility("default"))) void quarto_extension_init() { sqlite3_initialize(); }
