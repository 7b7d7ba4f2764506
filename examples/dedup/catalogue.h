// Catalogues: what a snapshot holds, in the order of the walk, a folder before what is in it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "records.h"
#include "segment_rows.h"
#include "summary.h"

namespace dedup {

enum class Item : uint8_t {
  kFolder = 1,
  kFile = 2,  ///< its chunks and a kFileEnd follow
  kLink = 3,
  kChunk = 4,
  kFileEnd = 5,
  kEnd = 6,  ///< of the catalogue
};

/// What is kept of every entry.
struct Entry {
  std::string path;  ///< relative to what was stored, which itself is ""
  uint32_t mode = 0;
  uint32_t owner = 0;
  uint32_t group = 0;
  int64_t seconds = 0;  ///< modification time
  uint32_t nanoseconds = 0;
  std::string target;  ///< of a symbolic link
};

class CatalogueWriter {
 public:
  CatalogueWriter(const KelKey& key, Compression compression) : file_(key, compression) {}

  bool create(const std::string& temporary) { return file_.create(temporary); }
  /// A folder, a file or a link.
  bool add(Item item, const Entry& entry);
  bool add_chunk(const Fingerprint& chunk, uint32_t length);
  /// Ends a file of `size` bytes; `complete` is false when not all of it could be read.
  bool end_file(uint64_t size, bool complete);
  /// Writes the summary and makes the catalogue visible in `directory`.
  bool commit(const Summary& summary, const std::string& directory);

 private:
  bool flush_when_full();
  bool flush();

  RowWriter file_;
  RecordWriter records_;
};

/// Reads one item after the other; the members of the item that was read last are public.
class CatalogueReader {
 public:
  CatalogueReader(const KelKey& key, const std::string& path) : file_(key, path) {}

  /// False when the file cannot be read; problem() then says why.
  bool open() { return file_.open(); }
  /// Null when the catalogue is damaged; problem() then says how. Chunks and a file's end come
  /// behind a file and nowhere else.
  std::optional<Item> next();
  /// The summary alone, without reading the entries.
  bool read_summary();
  /// Checks what next() does not need: the file as a database.
  bool check_database() { return file_.check(); }
  const std::string& problem() const { return problem_.empty() ? file_.problem() : problem_; }

  Entry entry;             ///< after kFolder, kFile, kLink
  Fingerprint chunk;       ///< after kChunk
  uint32_t length = 0;     ///< after kChunk
  uint64_t file_size = 0;  ///< after kFileEnd
  bool complete = false;   ///< after kFileEnd
  Summary summary;         ///< after kEnd, or read_summary()

 private:
  std::nullopt_t damaged();
  bool parse_item(Item item);

  RowReader file_;
  RecordReader records_;
  std::string problem_;
  bool in_file_ = false;
};

}  // namespace dedup
