// Makes an index file out of the tables of containers, with the external sort: in memory are a
// batch of records, the filter and the beginnings of the blocks.
#pragma once

#include <functional>

#include "container.h"
#include "index_writer.h"

namespace dedup {

class IndexSort {
 public:
  /// Told of a container whose table cannot be read. It is left out.
  using Report = std::function<void(uint32_t number, const std::string& problem)>;

  IndexSort(const Repository& repository, Report report)
      : repository_(repository), report_(std::move(report)) {}

  /// Gives `out` the records of `old`, which may be null, and of `fresh` containers; of a chunk in
  /// several containers the one in the last. The files that it needs meanwhile are in `folder`.
  /// False after a report. Ends with no chunks at all as with any number.
  bool run(IndexFile* old, const std::vector<NumberedFile>& fresh, const std::string& folder,
           IndexWriter& out);

  /// The containers whose chunks the writer got, in the order of their numbers.
  const std::vector<CoveredContainer>& containers() const { return containers_; }

 private:
  static void* read(void* self, FILE* run, uint64_t* size);
  static int compare(void*, uint64_t, void** a, uint64_t, void** b);
  static int choose(void*, uint64_t, void** a, uint64_t, void** b);
  static ssize_t write(void*, void* record, FILE* out, uint64_t);

  bool next(IndexRecord& record);
  bool next_old(IndexRecord& record);
  bool next_fresh(IndexRecord& record);

  const Repository& repository_;
  Report report_;
  std::vector<CoveredContainer> containers_;
  IndexWriter* out_ = nullptr;
  uint64_t given_ = 0;  ///< records so far

  IndexFile* old_ = nullptr;
  uint64_t next_block_ = 0;
  std::span<const IndexRecord> block_;  ///< what is left of it

  std::span<const NumberedFile> fresh_;  ///< still to be read
  uint32_t number_ = 0;                  ///< of the container that is being read
  std::vector<StoredChunk> table_;
  size_t done_ = 0;  ///< of the table
};

}  // namespace dedup
