// The place that a seal binds is the number of the row, counted from 1.
//
// Nobody sees the database before it is whole, and nobody changes it afterwards. So there is no
// journal, neither when it is written, which an interruption ends anyway, nor when it is read.
#include "segment_rows.h"

#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include "base64.h"
#include "descriptor.h"
#include "publish.h"

namespace dedup {
namespace {

constexpr char kFormat[] = "Format";
constexpr char kVersion[] = "Version";
constexpr char kThisFormat[] = "kel-dedup snapshot";
constexpr char kThisVersion[] = "1";

// What a database begins with that no journal belongs to: a mark, and behind it the size of pages
// and the versions that writers and readers need, 1 for files without a write-ahead log.
constexpr unsigned char kMark[16] = {'S', 'Q', 'L', 'i', 't', 'e', ' ', 'f',
                                     'o', 'r', 'm', 'a', 't', ' ', '3', '\0'};
constexpr size_t kVersionsAt = 18;

constexpr int kIoError = 10;  // of SQLite; its extended codes have more above the low byte

}  // namespace

RowWriter::~RowWriter() {
  insert_.reset();
  database_.Close();
  if (is_open_) ::unlink(path_.c_str());
}

bool RowWriter::fails(const SQLiteException& error) const {
  ErrorA(error.GetErrorCode(), "could not write %s: %s; make room and store again", path_.c_str(),
         error.what());
  return false;
}

bool RowWriter::create(const std::string& temporary) {
  path_ = temporary;
  rows_ = 0;
  SQLiteException error;
  database_.SetDBFilename(path_);
  // SQLite gives new files the rights of its own choice.
  if (!Descriptor(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))) {
    ErrorA(errno, "could not create %s: %s", path_.c_str(), std::strerror(errno));
    return false;
  }
  is_open_ = true;
  if (!database_.Open(&error)) return fails(error);
  for (const char* sql : {"PRAGMA journal_mode=OFF", "PRAGMA synchronous=OFF"})
    if (!database_.Execute(sql, &error)) return fails(error);
  if (!database_.SetAutoCommit(false, &error) || !database_.CreateRegistryTable(&error) ||
      !database_.SetRegistryItem(kFormat, kThisFormat, &error) ||
      !database_.SetRegistryItem(kVersion, kThisVersion, &error) ||
      !database_.Execute("CREATE TABLE segments (number INTEGER PRIMARY KEY, size INTEGER NOT NULL,"
                         " seal TEXT NOT NULL, stream TEXT NOT NULL)",
                         &error))
    return fails(error);
  insert_ = database_.PrepareStatement(
      "INSERT INTO segments(number, size, seal, stream) VALUES(?,?,?,?)");
  if (insert_ != nullptr) return true;
  error.SetErrorCode(&database_, 1);
  return fails(error);
}

bool RowWriter::append(Tag tag, Bytes content) {
  const long long number = rows_ + 1;
  const auto segment = sealer_.seal(tag, content, path_, static_cast<uint64_t>(number));
  if (!segment) return false;
  write_base64(segment->seal.bytes, seal_);
  write_base64(segment->stream, stream_);
  insert_->SetInt64(1, number);
  insert_->SetInt64(2, static_cast<long long>(segment->payload));
  insert_->SetString(3, seal_);
  insert_->SetString(4, stream_);
  SQLiteException error;
  if (!insert_->Execute(&error)) return fails(error);
  rows_ = number;
  return true;
}

bool RowWriter::commit(const std::string& directory) {
  SQLiteException error;
  insert_.reset();
  if (!database_.Commit(&error)) return fails(error);
  database_.Close();
  const Descriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) {
    ErrorA(errno, "could not open %s: %s", path_.c_str(), std::strerror(errno));
    return false;
  }
  if (!publish(file.get(), path_, directory)) return false;
  is_open_ = false;
  return true;
}

bool RowReader::fails(std::string problem) {
  problem_ = std::move(problem);
  row_.reset();
  return false;
}

/// SQLite makes files that are missing, and brings others beside those that have a journal.
bool RowReader::starts_as_database() {
  const Descriptor file(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return fails(std::string("cannot be opened: ") + std::strerror(errno));
  unsigned char head[kVersionsAt + 2];
  const ssize_t count = safe_pread(file.get(), head, sizeof head, 0);
  if (count < 0) return fails(std::string("cannot be read: ") + std::strerror(errno));
  return (count == sizeof head && std::memcmp(head, kMark, sizeof kMark) == 0 &&
          head[kVersionsAt] == 1 && head[kVersionsAt + 1] == 1) ||
         fails("is damaged: it does not begin as a snapshot");
}

bool RowReader::open() {
  if (!starts_as_database()) return false;
  database_.SetDBFilename(path_);
  // What a stranger has put into the schema is not run.
  if (!database_.Open(&error_) || !database_.Execute("PRAGMA trusted_schema=OFF", &error_))
    return fails(std::string("cannot be opened: ") + error_.what());
  const std::string format = database_.GetRegistryItem(kFormat, &error_);
  if (!error_.IsGood()) return fails(std::string("is damaged: ") + error_.what());
  if (format != kThisFormat) return fails("is damaged: it is another database than a snapshot");
  return database_.GetRegistryItem(kVersion, &error_) == kThisVersion ||
         fails("is damaged or of another version");
}

/// Runs a query up to its first row.
bool RowReader::query(const char* sql) {
  row_.reset();
  select_ = database_.PrepareStatement(sql);
  if (select_ == nullptr)
    error_.SetErrorCode(&database_, 1);
  else
    row_ = select_->ExecuteQuery(&error_);
  return error_.IsGood();
}

/// Reads the segment from the row that the query stands on. `number` is what it has to be, 0 where
/// its own will do, which the seal confirms.
std::optional<Tag> RowReader::read_row(long long number) {
  if (!error_.IsGood()) {
    const char* problem =
        (error_.GetErrorCode() & 0xff) == kIoError ? "cannot be read: " : "is damaged: ";
    fails(problem + std::string(error_.what()));
    return std::nullopt;
  }
  const long long found = row_->GetInt64(0);
  if (row_->IsLast() || (number != 0 && found != number)) {
    fails("is damaged: a segment is missing");
    return std::nullopt;
  }
  const auto payload = static_cast<uint64_t>(row_->GetInt64(1));
  if (!read_base64(row_->GetString(2), seal_) || !read_base64(row_->GetString(3), stream_) ||
      seal_.size() != sizeof(Fingerprint)) {
    fails("is damaged: a segment makes no sense");
    return std::nullopt;
  }
  Fingerprint seal;
  std::memcpy(seal.bytes.data(), seal_.data(), seal.bytes.size());
  if (const char* problem =
          opener_.open({payload, seal, stream_}, path_, static_cast<uint64_t>(found))) {
    fails(problem);
    return std::nullopt;
  }
  return opener_.tag();
}

std::optional<Tag> RowReader::read() {
  if (rows_ == 0)
    query("SELECT number, size, seal, stream FROM segments ORDER BY number");
  else if (!row_)
    return std::nullopt;
  else
    row_->Next(&error_);
  return read_row(++rows_);
}

std::optional<Tag> RowReader::read_last() {
  query("SELECT number, size, seal, stream FROM segments ORDER BY number DESC LIMIT 1");
  return read_row(0);
}

bool RowReader::at_end() {
  if (row_) row_->Next(&error_);
  if (error_.IsGood() && row_ && row_->IsLast()) return true;
  return fails(error_.IsGood() ? "is damaged: a segment too many"
                               : std::string("is damaged: ") + error_.what());
}

bool RowReader::check() {
  const bool ran = query("PRAGMA integrity_check(1)");
  const std::string found = ran ? row_->GetString(0) : error_.what();
  return (ran && found == "ok") || fails("is damaged: " + found);
}

}  // namespace dedup
