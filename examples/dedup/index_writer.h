// Writes an index file: takes sorted records as a stream, and forms blocks, seals and the filter.
#pragma once

#include <cstdio>
#include <memory>

#include "index_file.h"

namespace dedup {

class IndexWriter {
 public:
  explicit IndexWriter(const KelKey& key) : key_(key) {}
  ~IndexWriter();
  IndexWriter(const IndexWriter&) = delete;
  IndexWriter& operator=(const IndexWriter&) = delete;

  bool create(const std::string& path);
  /// Takes the records, IndexRecords in their order. Owned by the writer.
  FILE* stream() { return stream_.get(); }
  /// How many records will come at most; to be known when the first one is written.
  void set_limit(uint64_t records) { limit_ = records; }
  /// Whether no record came, which no file can be made of.
  bool is_empty() const { return records_ == 0 && content_.empty(); }
  /// Writes the rest of the file; it stays at its path as long as the writer lives. False after a
  /// report.
  bool finish(const std::vector<CoveredContainer>& containers);
  /// finish(), and makes the file durable as `final_path`, which is in `folder`.
  bool commit(const std::vector<CoveredContainer>& containers, const std::string& final_path,
              const std::string& folder);

 private:
  struct CloseStream {
    void operator()(FILE* stream) const { std::fclose(stream); }
  };

  static ssize_t take(void* self, const char* bytes, size_t size);
  bool add(Bytes bytes);
  bool write_block();
  bool write(Bytes bytes);
  bool fails();

  const KelKey& key_;
  Descriptor file_;
  std::string path_;
  std::unique_ptr<FILE, CloseStream> stream_;
  uint64_t limit_ = 0;
  uint64_t size_ = 0;
  uint64_t records_ = 0;
  std::vector<unsigned char> content_;  ///< of the block that fills
  std::optional<BloomFilter> filter_;
  std::vector<uint64_t> first_names_;
};

}  // namespace dedup
