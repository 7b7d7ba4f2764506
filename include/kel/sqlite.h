/**
 * @file
 * SQLite without exceptions: a connection to one database file, prepared statements, result sets
 * that are read forwards, transactions, and the registry, a table of names and values.
 *
 * Every operation takes a `SQLiteException*`, a plain record (nothing is thrown), which receives
 * SQLite's code and text, and returns whether that code is a good one. The record may be null and
 * may be used for any number of operations; it tells about the last. Nothing is reported to the
 * log, with one exception: a lack of memory for a text that has no record to go to.
 *
 * A statement waits 10 seconds for a lock of another process or connection and then fails with code
 * 5. SQLite does not wait where that would be of no use: a transaction that began by reading and
 * wants to write while another one does, which is why SetAutoCommit() takes the write lock at once.
 *
 * Not every failure leaves a transaction open: a full disk (13), a failed read or write (10) or a
 * lack of memory (7) may have rolled it back. Call Rollback() after any failure; when there is
 * nothing left to roll back it fails, which does no harm.
 *
 * Threads: a connection with its statements and result sets is used by one thread at a time.
 * Different connections are independent, also to the same file. No connection survives fork(2).
 *
 * The header needs none of SQLite's. The handle from GetHandle() serves all of SQLite's interface
 * to those who include it; statements that they prepare there are theirs to finalise before
 * Close().
 *
 * @code
 * SQLiteException error;
 * SQLiteConnection db;
 * db.SetDBFilename("/var/lib/svc/settings.db");
 * if (!db.Open(&error) || !db.CreateRegistryTable(&error))
 *   return fail(error.GetErrorCode(), error.what());
 *
 * if (!db.SetAutoCommit(false, &error) || !db.SetRegistryItem("host", host, &error) ||
 *     !db.SetRegistryItem("port", port, &error) || !db.Commit(&error))
 *   db.Rollback(nullptr);
 *
 * const auto above = db.PrepareStatement("SELECT name, size FROM files WHERE size > ?");
 * above->SetInt64(1, 1 << 20);
 * SQLiteResultSet row = above->ExecuteQuery(&error);
 * while (error.IsGood() && !row.IsLast()) {
 *   print(row.GetString(0), row.GetInt64(1));
 *   row.Next(&error);
 * }
 * @endcode
 */
#ifndef KEL_SQLITE_H
#define KEL_SQLITE_H

#include <kel/export.h>

#ifdef __cplusplus

#include <memory>
#include <string>

struct sqlite3;
struct sqlite3_stmt;
class SQLiteConnection;
class SQLitePreparedStatement;

/** What the last operation came to; starts as good. No exception, in spite of its name. */
class KEL_API SQLiteException {
 public:
  int code = 0;         ///< SQLite's result code; 0: none
  std::string message;  ///< SQLite's text for it; empty for code 0

  /// Whether the code is 0, 100 (there is a row) or 101 (done).
  bool IsGood() const;
  /// The message; valid until the record changes.
  const char* what() const;
  int GetErrorCode() const;
  /**
   * Stores a code and, unless it is 0, its text: the last error's own ("no such table: x") when
   * there is a connection that is open, else what the code means in general.
   *
   * @param connection  whose last operation gave the code; may be null
   */
  void SetErrorCode(SQLiteConnection* connection, int result);
};

/**
 * The rows of a statement's run, one at a time. It borrows the statement: copies, and sets from
 * another run of it, all stand on the one row that the statement stands on.
 *
 * Columns count from 0. Without a row, and for columns that there are not, they are 0 or empty, as
 * they are for null. Other types are converted in SQLite's way: the text "12 MB" is the number 12.
 */
class KEL_API SQLiteResultSet {
 public:
  /**
   * Goes to the next row. At the end nothing happens any more, and the result is true.
   *
   * @param error  receives the code: 100 on a row, 101 at the end, 21 where the run had failed
   * @return false when the step failed: then there is no row, although IsLast() is false
   */
  bool Next(SQLiteException* error);
  /// Whether the rows have come to their end: the last step gave code 101, and there is no row.
  bool IsLast() const;

  /// The bytes of a text or blob, NUL bytes included. Empty too, and reported, without memory.
  std::string GetString(int col) const;
  double GetDouble(int col) const;
  long long GetInt64(int col) const;
  /// The lower 32 bits of GetInt64().
  int GetInt(int col) const;
  /// Whether GetInt64() is greater than 0.
  bool GetBoolean(int col) const;

 private:
  friend class SQLitePreparedStatement;
  SQLiteResultSet(SQLiteConnection* connection, SQLitePreparedStatement* statement, bool last)
      : connection_(connection), statement_(statement), last_(last) {}

  SQLiteConnection* connection_;
  SQLitePreparedStatement* statement_;
  bool last_;
};

/**
 * A statement that was compiled once and runs any number of times; made by
 * SQLiteConnection::PrepareStatement().
 *
 * A run is over when it came to its end or failed; its locks are then released. A run that stands
 * on a row is over with the next bind, run, or the end of the statement: until then it keeps the
 * database locked for reading, and what an "INSERT ... RETURNING" changed is not committed.
 *
 * Once its connection is closed or gone, a statement does nothing but fail with code 21, also when
 * the connection is opened again.
 */
class KEL_API SQLitePreparedStatement {
 public:
  SQLitePreparedStatement(const SQLitePreparedStatement&) = delete;
  SQLitePreparedStatement& operator=(const SQLitePreparedStatement&) = delete;
  ~SQLitePreparedStatement();

  /** @name Values for the statement's "?", of which the first has the index 1
   * They stay bound from one run to the next. False: the value was not bound (25 for an index that
   * there is not, 18 for more than 1,000,000,000 bytes, 7 for a lack of memory). The next run then
   * fails with that code instead of going on with an old value. @{ */
  /// Binds text, NUL bytes included, without copying it: the string must stay as it is until the
  /// statement has run for the last time, or has got another value there.
  bool SetString(unsigned int index, const std::string& text);
  /// As above for a temporary, which cannot stay: this one is copied.
  bool SetString(unsigned int index, std::string&& text);
  bool SetInt64(unsigned int index, long long value);
  bool SetInt(unsigned int index, int value);
  bool SetDouble(unsigned int index, double value);
  /// Binds 1 or 0.
  bool SetBoolean(unsigned int index, bool value);
  /** @} */

  /**
   * Runs the statement, from its start, to its first row or its end.
   *
   * @param error  receives the code: 100 on a row, 101 at the end, or the failure
   * @return false when it failed. That is told once; the next run does not repeat it. When a run
   *         that stood on a row cannot be ended (its change not be committed), that failure is
   *         told here, or by the Execute() after a bind, and nothing is run.
   */
  bool Execute(SQLiteException* error);
  /// Execute(); then the first row is current, unless IsLast() or the run has failed.
  SQLiteResultSet ExecuteQuery(SQLiteException* error);

 private:
  friend class SQLiteConnection;
  friend class SQLiteResultSet;
  SQLitePreparedStatement(SQLiteConnection* connection, sqlite3_stmt* statement);

  int Run(SQLiteException* error);
  int Step(SQLiteException* error);
  void EndRun();
  bool KeepFailure(int code);
  bool ReadText(int col, std::string* text) const;
  void Detach();

  SQLiteConnection* connection_;  // null once that is closed
  sqlite3_stmt* statement_;       // owned
  int untold_ = 0;                // the failure of a bind, or of ending a run, for the next run
  SQLitePreparedStatement* previous_ = nullptr;  // of the connection's statements
  SQLitePreparedStatement* next_ = nullptr;
};

/** A connection to one database file. Closed at first. */
class KEL_API SQLiteConnection {
 public:
  SQLiteConnection();
  /// Close().
  ~SQLiteConnection();
  SQLiteConnection(const SQLiteConnection&) = delete;
  SQLiteConnection& operator=(const SQLiteConnection&) = delete;

  /** @name The file
   * ":memory:" is a database in memory, and "" one in a temporary file. @{ */
  /// Names the file for the next Open(). Without memory for the name (reported) it becomes "/",
  /// which cannot be opened.
  void SetDBFilename(const std::string& path);
  const std::string& GetDBFilename() const;
  /**
   * Opens the file, made when it is missing; where it cannot be written, it is opened for reading.
   * An open connection is closed first. What is in the file is looked at by the first statement: it
   * fails with 26 where that is no database, and with 11 where a page is damaged.
   *
   * @return false with no handle, and the general text of the code in `error` (14 for a path in a
   *         missing directory, for a directory, or with a NUL byte)
   */
  bool Open(SQLiteException* error);
  /// Open(), unless it is open.
  bool CheckOpen(SQLiteException* error);
  bool IsOpen();
  /// Finalises all statements, also those that callers still hold, rolls an open transaction back
  /// and closes the file.
  void Close();
  /// SQLite's handle, owned by the connection; null when closed.
  sqlite3* GetHandle();
  /** @} */

  /// The caller's own mark that the file is damaged; Open() takes it away.
  void SetCorrupted();
  bool IsCorrupted() const;

  /**
   * Compiles the first statement of `sql` and runs it to its first row or its end. What follows
   * that statement is not looked at, and text without one fails with code 21.
   */
  bool Execute(const std::string& sql, SQLiteException* error);
  /// The first statement of `sql`; null when the connection is closed, when SQLite refuses the
  /// text, or when there is no statement in it.
  std::unique_ptr<SQLitePreparedStatement> PrepareStatement(const std::string& sql);

  /** @name Transactions
   * Outside of them each statement is one of its own, with a flush to the disk each. @{ */
  /// False begins a transaction with the write lock; true does nothing.
  bool SetAutoCommit(bool on, SQLiteException* error);
  /// Makes the transaction last. When that fails because others are reading (5), it is still open,
  /// and Commit() can be called again.
  bool Commit(SQLiteException* error);
  bool Rollback(SQLiteException* error);
  /** @} */

  /** @name The registry: names and values, both texts of any bytes
   * A table of the database (docs/formats/registry-table.md). @{ */
  /// Makes the table; true too when it is there.
  bool CreateRegistryTable(SQLiteException* error);
  /// Sets the one value of `name`.
  bool SetRegistryItem(const std::string& name, const std::string& value, SQLiteException* error);
  /// The value of `name`; empty when there is none (`error` then has code 101; 100 when there is
  /// one) or when it failed.
  std::string GetRegistryItem(const std::string& name, SQLiteException* error);
  /** @} */

 private:
  friend class SQLitePreparedStatement;
  using Statement = std::unique_ptr<SQLitePreparedStatement>;

  Statement Prepare(const char* sql, size_t length, unsigned int flags, SQLiteException* error);
  bool RunOnce(const char* sql, size_t length, SQLiteException* error);
  SQLitePreparedStatement* Cached(Statement* cache, const char* sql, SQLiteException* error);
  bool RunCached(Statement* cache, const char* sql, SQLiteException* error);

  bool corrupted_ = false;
  std::string filename_;
  sqlite3* handle_ = nullptr;
  // Prepared when they are first used, kept until Close().
  Statement begin_;
  Statement commit_;
  Statement rollback_;
  Statement set_item_;
  Statement get_item_;
  SQLitePreparedStatement* statements_ = nullptr;  // all that live, these five included
};

#endif
#endif
