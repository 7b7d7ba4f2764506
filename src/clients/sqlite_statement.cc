// Prepared statements and their rows. A run that has no row is reset at once: SQLite would refuse
// to bind before that, and would repeat the run's failure as if it were the next one's.
#include <sqlite3.h>

#include <new>
#include <utility>

#include "clients/sqlite_record.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

/// SQLite's parameter indexes are signed; what does not fit is as far out of range as -1.
int position(unsigned int index) { return static_cast<int>(index); }

int bind_text(sqlite3_stmt* statement, unsigned int index, const std::string& text,
              sqlite3_destructor_type copying) {
  return sqlite3_bind_text64(statement, position(index), text.data(), text.size(), copying,
                             SQLITE_UTF8);
}

}  // namespace

SQLitePreparedStatement::SQLitePreparedStatement(SQLiteConnection* connection,
                                                 sqlite3_stmt* statement)
    : connection_(connection), statement_(statement), next_(connection->statements_) {
  if (next_ != nullptr) next_->previous_ = this;
  connection->statements_ = this;
}

SQLitePreparedStatement::~SQLitePreparedStatement() { Detach(); }

void SQLitePreparedStatement::Detach() {
  if (connection_ == nullptr) return;
  sqlite3_finalize(std::exchange(statement_, nullptr));
  (previous_ != nullptr ? previous_->next_ : connection_->statements_) = next_;
  if (next_ != nullptr) next_->previous_ = previous_;
  connection_ = nullptr;
}

bool SQLitePreparedStatement::KeepFailure(int code) {
  if (untold_ == SQLITE_OK) untold_ = code;
  return code == SQLITE_OK;
}

/// Ends a run that stands on a row. Only there can the reset tell something new: a commit that
/// was due at the end and failed.
void SQLitePreparedStatement::EndRun() {
  if (sqlite3_data_count(statement_) != 0) KeepFailure(sqlite3_reset(statement_));
}

bool SQLitePreparedStatement::SetString(unsigned int index, const std::string& text) {
  EndRun();
  return KeepFailure(bind_text(statement_, index, text, SQLITE_STATIC));
}

bool SQLitePreparedStatement::SetString(unsigned int index, std::string&& text) {
  EndRun();
  return KeepFailure(bind_text(statement_, index, text, SQLITE_TRANSIENT));
}

bool SQLitePreparedStatement::SetInt64(unsigned int index, long long value) {
  EndRun();
  return KeepFailure(sqlite3_bind_int64(statement_, position(index), value));
}

bool SQLitePreparedStatement::SetInt(unsigned int index, int value) {
  return SetInt64(index, value);
}

bool SQLitePreparedStatement::SetDouble(unsigned int index, double value) {
  EndRun();
  return KeepFailure(sqlite3_bind_double(statement_, position(index), value));
}

bool SQLitePreparedStatement::SetBoolean(unsigned int index, bool value) {
  return SetInt64(index, value ? 1 : 0);
}

int SQLitePreparedStatement::Step(SQLiteException* error) {
  const int code = sqlite3_step(statement_);
  record(error, connection_, code);
  if (code != SQLITE_ROW) sqlite3_reset(statement_);
  return code;
}

/// Runs from the start and returns the code, which is in `error` too.
int SQLitePreparedStatement::Run(SQLiteException* error) {
  EndRun();
  const int untold = std::exchange(untold_, SQLITE_OK);
  if (untold == SQLITE_OK) return Step(error);
  record(error, nullptr, untold);  // the connection's last error may be another one by now
  return untold;
}

bool SQLitePreparedStatement::Execute(SQLiteException* error) { return is_good(Run(error)); }

SQLiteResultSet SQLitePreparedStatement::ExecuteQuery(SQLiteException* error) {
  return {connection_, this, Run(error) == SQLITE_DONE};
}

/// Copies the bytes of a column; false when there is no memory for them.
bool SQLitePreparedStatement::ReadText(int col, std::string* text) const try {
  // In this order: asking for the text converts the value, and the size is that of the result.
  const auto* bytes = reinterpret_cast<const char*>(sqlite3_column_text(statement_, col));
  const auto size = static_cast<size_t>(sqlite3_column_bytes(statement_, col));
  if (bytes == nullptr)
    return statement_ == nullptr || sqlite3_errcode(sqlite3_db_handle(statement_)) != SQLITE_NOMEM;
  text->assign(bytes, size);
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

bool SQLiteResultSet::Next(SQLiteException* error) {
  if (last_) return true;
  // A step without a row to go on from would start the statement anew.
  if (sqlite3_data_count(statement_->statement_) == 0) return record(error, nullptr, SQLITE_MISUSE);
  const int code = statement_->Step(error);
  last_ = code == SQLITE_DONE;
  return is_good(code);
}

bool SQLiteResultSet::IsLast() const { return last_; }

std::string SQLiteResultSet::GetString(int col) const {
  std::string text;
  if (!statement_->ReadText(col, &text))
    fail_allocation(0, static_cast<size_t>(sqlite3_column_bytes(statement_->statement_, col)),
                    __func__);
  return text;
}

double SQLiteResultSet::GetDouble(int col) const {
  return sqlite3_column_double(statement_->statement_, col);
}

long long SQLiteResultSet::GetInt64(int col) const {
  return sqlite3_column_int64(statement_->statement_, col);
}

int SQLiteResultSet::GetInt(int col) const {
  return sqlite3_column_int(statement_->statement_, col);
}

bool SQLiteResultSet::GetBoolean(int col) const { return GetInt64(col) > 0; }
