// The record that operations on a database fill.
#include <new>

#include "clients/sqlite_record.h"

bool SQLiteException::IsGood() const { return kel::internal::is_good(code); }

const char* SQLiteException::what() const { return message.c_str(); }

int SQLiteException::GetErrorCode() const { return code; }

void SQLiteException::SetErrorCode(SQLiteConnection* connection, int result) try {
  code = result;
  if (result == SQLITE_OK)
    message.clear();
  else if (connection != nullptr && connection->IsOpen())
    message = sqlite3_errmsg(connection->GetHandle());
  else
    message = sqlite3_errstr(result);
} catch (const std::bad_alloc&) {
  message.clear();  // the code alone still tells
}
