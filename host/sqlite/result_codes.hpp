// host/sqlite/result_codes.hpp: the names of SQLite's result codes, primary and extended.
#pragma once

namespace tala::sqlite {

// The name sqlite3.h gives a result code ("SQLITE_CONSTRAINT_UNIQUE" for 2067): an extended code's
// own name, or else its primary code's.
const char* resultCodeName(int code);

}  // namespace tala::sqlite
