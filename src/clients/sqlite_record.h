// Filling the error record, which callers may leave out.
#pragma once

#include <kel/sqlite.h>

#include <sqlite3.h>

namespace kel::internal {

inline bool is_good(int code) noexcept {
  return code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE;
}

/// Stores `code` with its text in `error`, if there is one, and returns whether it is good.
inline bool record(SQLiteException* error, SQLiteConnection* connection, int code) {
  const bool good = is_good(code);
  // A connection's last text is that of its last failure, also after a step that went well.
  if (error != nullptr) error->SetErrorCode(good ? nullptr : connection, code);
  return good;
}

}  // namespace kel::internal
