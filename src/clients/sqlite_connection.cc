// One database file: opening and closing it, making statements, transactions.
#include <algorithm>
#include <climits>
#include <new>
#include <utility>

#include "clients/c_text.h"
#include "clients/sqlite_record.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr int kBusyTimeout = 10'000;  // milliseconds

}  // namespace

SQLiteConnection::SQLiteConnection() = default;

SQLiteConnection::~SQLiteConnection() { Close(); }

void SQLiteConnection::SetDBFilename(const std::string& path) try {
  filename_ = path;
} catch (const std::bad_alloc&) {
  filename_.assign(1, '/');  // any other name could be a file that is not meant
  fail_allocation(0, path.size(), __func__);
}

const std::string& SQLiteConnection::GetDBFilename() const { return filename_; }

bool SQLiteConnection::Open(SQLiteException* error) {
  Close();
  sqlite3* handle = nullptr;
  const int code =
      is_c_text(filename_) ? sqlite3_open(filename_.c_str(), &handle) : SQLITE_CANTOPEN;
  if (code != SQLITE_OK) {
    sqlite3_close(handle);  // there is one after most failures
    return record(error, nullptr, code);
  }
  sqlite3_busy_timeout(handle, kBusyTimeout);
  handle_ = handle;
  corrupted_ = false;
  return record(error, this, SQLITE_OK);
}

bool SQLiteConnection::CheckOpen(SQLiteException* error) {
  return IsOpen() ? record(error, this, SQLITE_OK) : Open(error);
}

bool SQLiteConnection::IsOpen() { return handle_ != nullptr; }

void SQLiteConnection::Close() {
  for (Statement* cached : {&begin_, &commit_, &rollback_, &set_item_, &get_item_}) cached->reset();
  while (statements_ != nullptr) statements_->Detach();
  // What callers made through the handle and still hold keeps it, unlike sqlite3_close(), from
  // being refused: it then goes with the last of that.
  sqlite3_close_v2(std::exchange(handle_, nullptr));
}

sqlite3* SQLiteConnection::GetHandle() { return handle_; }

void SQLiteConnection::SetCorrupted() { corrupted_ = true; }

bool SQLiteConnection::IsCorrupted() const { return corrupted_; }

/// `length` bytes of `sql`, and a terminator, as a statement; null with the failure in `error`.
SQLiteConnection::Statement SQLiteConnection::Prepare(const char* sql, size_t length,
                                                      unsigned int flags, SQLiteException* error) {
  sqlite3_stmt* compiled = nullptr;
  // With the terminator counted, SQLite need not copy the text. A length beyond int is beyond
  // SQLite's limit in any case.
  const auto size = static_cast<int>(std::min<size_t>(length + 1, INT_MAX));
  const int code =
      IsOpen() ? sqlite3_prepare_v3(handle_, sql, size, flags, &compiled, nullptr) : SQLITE_MISUSE;
  if (!record(error, this, code)) return nullptr;
  if (compiled == nullptr) {  // nothing but comments
    record(error, nullptr, SQLITE_MISUSE);
    return nullptr;
  }
  Statement statement(new (std::nothrow) SQLitePreparedStatement(this, compiled));
  if (statement == nullptr) {
    sqlite3_finalize(compiled);
    record(error, nullptr, SQLITE_NOMEM);
  }
  return statement;
}

bool SQLiteConnection::Execute(const std::string& sql, SQLiteException* error) {
  return RunOnce(sql.c_str(), sql.size(), error);
}

bool SQLiteConnection::RunOnce(const char* sql, size_t length, SQLiteException* error) {
  const Statement once = Prepare(sql, length, 0, error);
  if (once == nullptr || !once->Execute(error)) return false;
  once->EndRun();
  return once->untold_ == SQLITE_OK || record(error, this, once->untold_);
}

std::unique_ptr<SQLitePreparedStatement> SQLiteConnection::PrepareStatement(
    const std::string& sql) {
  return Prepare(sql.c_str(), sql.size(), SQLITE_PREPARE_PERSISTENT, nullptr);
}

/// The statement in `cache`, made when it is not there; null with the failure in `error`.
SQLitePreparedStatement* SQLiteConnection::Cached(Statement* cache, const char* sql,
                                                  SQLiteException* error) {
  if (*cache == nullptr)
    *cache = Prepare(sql, std::char_traits<char>::length(sql), SQLITE_PREPARE_PERSISTENT, error);
  return cache->get();
}

bool SQLiteConnection::RunCached(Statement* cache, const char* sql, SQLiteException* error) {
  SQLitePreparedStatement* statement = Cached(cache, sql, error);
  return statement != nullptr && statement->Execute(error);
}

bool SQLiteConnection::SetAutoCommit(bool on, SQLiteException* error) {
  return on ? record(error, this, SQLITE_OK)
            : RunCached(&begin_, "BEGIN IMMEDIATE TRANSACTION", error);
}

bool SQLiteConnection::Commit(SQLiteException* error) {
  return RunCached(&commit_, "COMMIT", error);
}

bool SQLiteConnection::Rollback(SQLiteException* error) {
  return RunCached(&rollback_, "ROLLBACK", error);
}
