// The registry table. Its two statements are kept, as compiling them takes longer than running.
#include "clients/sqlite_record.h"

using namespace kel::internal;

bool SQLiteConnection::CreateRegistryTable(SQLiteException* error) {
  constexpr char kSchema[] =
      "CREATE TABLE IF NOT EXISTS registry (name TEXT PRIMARY KEY, value TEXT)";
  return RunOnce(kSchema, sizeof kSchema - 1, error);
}

bool SQLiteConnection::SetRegistryItem(const std::string& name, const std::string& value,
                                       SQLiteException* error) {
  SQLitePreparedStatement* set =
      Cached(&set_item_, "INSERT OR REPLACE INTO registry(name, value) VALUES(?,?)", error);
  if (set == nullptr) return false;
  set->SetString(1, name);
  set->SetString(2, value);
  return set->Execute(error);
}

std::string SQLiteConnection::GetRegistryItem(const std::string& name, SQLiteException* error) {
  SQLitePreparedStatement* get =
      Cached(&get_item_, "SELECT value FROM registry WHERE name=?", error);
  if (get == nullptr) return {};
  get->SetString(1, name);
  get->Execute(error);
  std::string value;
  if (!get->ReadText(0, &value)) record(error, nullptr, SQLITE_NOMEM);
  get->EndRun();  // else the row would keep the database locked
  return value;
}
