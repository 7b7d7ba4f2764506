// The external sort's context, and what its stages share: records, run files and outputs.
#pragma once

#include <kel/binsort.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "internal/handles.h"
#include "internal/report.h"

namespace kel::internal::binsort {

inline constexpr std::size_t kMaxRuns = 128;

/// The names under which the stages report.
inline constexpr char kSort[] = "BinarySortFp";
inline constexpr char kMerge[] = "_binarySortFilesMerge";
inline constexpr char kRead[] = "_binarySortObjectRead";
inline constexpr char kWrite[] = "_binarySortObjectWrite";

/// A record and its number; not an owner.
struct Entry {
  std::uint64_t number;
  void* record;
};

}  // namespace kel::internal::binsort

struct binary_sort_ctx {
  using Entry = kel::internal::binsort::Entry;

  binary_sort_read_fn read_fn;
  binary_sort_compare_fn compare_fn;
  binary_sort_resolve_fn resolve_fn;  ///< or null
  binary_sort_write_fn write_fn;
  binary_sort_free_fn free_fn;
  binary_sort_next_fn next_fn;  ///< or null
  void* cbctx;
  std::uint64_t max_objects;
  std::uint64_t max_object_bytes;
  std::uint64_t num_files_to_merge;
  ssize_t temp_buffer_size;
  std::uint32_t flags;
  kel::internal::MallocPtr<char> tmpdir;
  kel::internal::MallocPtr<Entry> objects;  ///< room for one batch
  kel::internal::MallocPtr<Entry> scratch;  ///< as many, for sorting it

  bool quiet() const { return (flags & BINARY_SORT_QUIET) != 0; }
  bool keeps_runs() const { return (flags & BINARY_SORT_KEEP_RUNS) != 0; }
  bool numbered() const { return (flags & BINARY_SORT_NUMBERED) != 0; }

  int compare(Entry& a, Entry& b) const {
    return compare_fn(cbctx, a.number, &a.record, b.number, &b.record);
  }
  /// Whether the second of two equal records, in the order of the input, is the one to keep.
  bool keeps_second(Entry& a, Entry& b) const {
    return resolve_fn(cbctx, a.number, &a.record, b.number, &b.record) < 0;
  }
  /// Clean-up after a failure keeps its errno, whatever the caller's function does to it.
  void free(void* record) const {
    const kel::internal::ErrnoGuard keep;
    free_fn(cbctx, record);
  }
};

namespace kel::internal::binsort {

/// Owns one record, or none.
class Record {
 public:
  explicit Record(const binary_sort_ctx& ctx) : ctx_(ctx) {}
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;
  ~Record() { reset({}); }

  Entry& entry() { return entry_; }
  void reset(Entry entry) {
    if (entry_.record != nullptr) ctx_.free(entry_.record);
    entry_ = entry;
  }
  Entry release() noexcept { return std::exchange(entry_, {}); }

 private:
  const binary_sort_ctx& ctx_;
  Entry entry_{};
};

enum class Reading { kRecord, kSkipped, kEnd, kFailed };

/// One call of the caller's read function; on failure errno is its own and nothing is reported.
Reading read_record(const binary_sort_ctx& ctx, FILE* in, void** record, std::uint64_t* size);

/// Reports that a record could not be read or written: by `helper`, what for, and which step failed
/// with it; in one short line when the sort is quiet. errno, the cause, becomes `code`. False.
bool fail_record(const binary_sort_ctx& ctx, const char* step, const char* helper, const char* what,
                 int code, int line = __builtin_LINE());

/// Reports, unless the sort is quiet, that a run file cannot be had. errno becomes `code`. False.
bool fail_setup(const binary_sort_ctx& ctx, int code, const char* format, ...) KEL_PRINTF(3, 4);

/// Where records are written: a run file or the destination; borrowed.
class Output {
 public:
  /// Failures are reported for `step`.
  Output(const binary_sort_ctx& ctx, FILE* stream, const char* step)
      : ctx_(ctx), stream_(stream), step_(step) {}

  FILE* stream() const { return stream_; }
  bool is_empty() const { return !used_; }
  /// False after a report.
  bool write(const Entry& entry);
  /// Flushes, so that a full disk shows here and not in a close that nobody checks. False after a
  /// report.
  bool finish();

 private:
  const binary_sort_ctx& ctx_;
  FILE* stream_;
  const char* step_;
  std::uint64_t offset_ = 0;
  bool used_ = false;
};

/// A run file: written once, then read from its start; closed and, unless runs are kept, removed.
class RunFile {
 public:
  RunFile() noexcept = default;
  RunFile(RunFile&&) noexcept = default;
  RunFile& operator=(RunFile&& other) noexcept;
  ~RunFile() { close(); }

  /// Creates the `serial`th run file of this sort, for records that were merged `level` times.
  /// False after a report, unless quiet.
  bool create(const binary_sort_ctx& ctx, std::uint64_t serial, unsigned level);
  void close() noexcept;
  /// Closes and removes the file, also where runs are kept.
  void discard() noexcept;

  FILE* stream() const { return stream_.get(); }
  unsigned level() const { return level_; }
  /// Ends the writing, which was finished, and goes back to the start. False after a report.
  bool rewind(const binary_sort_ctx& ctx);
  /// Reads the next record, which gets the number `position` unless the run has numbers. Returns
  /// kRecord, kEnd, or kFailed after a report.
  Reading read(const binary_sort_ctx& ctx, std::uint64_t position, Record& record);

 private:
  Reading read_number(const binary_sort_ctx& ctx, std::uint64_t* number);
  bool reached_end();

  // The stream uses the buffer until it is closed, so it is destroyed first.
  MallocPtr<char> path_;
  MallocPtr<char> buffer_;
  UniqueFile stream_;
  off_t size_ = 0;
  unsigned level_ = 0;
  bool kept_ = false;
};

/// Makes sorted runs of the input, one after the other.
class RunMaker {
 public:
  RunMaker(const binary_sort_ctx& ctx, FILE* src) : ctx_(ctx), input_(src) {}
  RunMaker(const RunMaker&) = delete;
  RunMaker& operator=(const RunMaker&) = delete;
  ~RunMaker() { free_held(); }

  bool input_ended() const { return ended_; }
  /// Writes the next run, which is empty when there is no more input. False after a report.
  bool make(Output& out);

 private:
  Reading next_record(Record& record, std::uint64_t* size);
  bool fill_batch();
  void sort_batch();
  void collapse_equals();
  bool write_batch(Output& out, Record& last);
  bool extend(Output& out, Record& last);
  void hold(Record& record, std::uint64_t size);
  void free_held();

  const binary_sort_ctx& ctx_;
  FILE* input_;
  bool ended_ = false;
  std::uint64_t counter_ = 0;  ///< number of the last record read or passed over
  std::size_t held_ = 0;       ///< records held, at the start of the context's array
  std::uint64_t held_bytes_ = 0;
};

/// Merges `runs`, which stand in the order of the input, into `out`. False after a report.
bool merge_runs(const binary_sort_ctx& ctx, std::span<RunFile> runs, Output& out);

}  // namespace kel::internal::binsort
