// Snapshots as files: SQLite databases with a segment in each row of one table. What their rows
// hold is sealed and encrypted; what SQLite itself keeps about them says only how many there are.
#pragma once

#include <kel/sqlite.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "segment.h"

namespace dedup {

class RowWriter {
 public:
  RowWriter(const KelKey& key, Compression compression) : sealer_(key, compression) {}
  ~RowWriter();
  RowWriter(const RowWriter&) = delete;
  RowWriter& operator=(const RowWriter&) = delete;

  /// Starts the database under `temporary`, a path that ends in the name it will have.
  bool create(const std::string& temporary);
  bool append(Tag tag, Bytes content);
  /// Closes the database, makes it durable, and then visible in `directory`.
  bool commit(const std::string& directory);

 private:
  bool fails(const SQLiteException& error) const;

  SegmentSealer sealer_;
  std::string path_;
  bool is_open_ = false;  ///< and to be removed
  SQLiteConnection database_;
  std::unique_ptr<SQLitePreparedStatement> insert_;
  long long rows_ = 0;
  std::string seal_;
  std::string stream_;
};

/// Reads the segments, one after the other. Problems of the file are not reported but described by
/// problem(): only the caller knows what they mean.
class RowReader {
 public:
  RowReader(const KelKey& key, std::string path) : opener_(key), path_(std::move(path)) {}

  bool open();
  /// Reads the next segment: content() is what it holds. Nothing at the end, which is a problem.
  std::optional<Tag> read();
  /// Reads the last segment instead.
  std::optional<Tag> read_last();
  /// Whether no segment is left.
  bool at_end();
  /// Whether SQLite finds nothing wrong anywhere in the file.
  bool check();

  Bytes content() const { return opener_.content(); }
  const std::string& problem() const { return problem_; }

 private:
  bool starts_as_database();
  bool query(const char* sql);
  std::optional<Tag> read_row(long long number);
  bool fails(std::string problem);

  SegmentOpener opener_;
  std::string path_;
  SQLiteConnection database_;
  SQLiteException error_;
  std::unique_ptr<SQLitePreparedStatement> select_;
  std::optional<SQLiteResultSet> row_;
  long long rows_ = 0;  ///< read so far
  std::vector<unsigned char> seal_;
  std::vector<unsigned char> stream_;
  std::string problem_;
};

}  // namespace dedup
