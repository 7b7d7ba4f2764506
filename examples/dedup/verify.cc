// Verifying: every chunk of every container against its fingerprint, then every snapshot against
// the chunks that the index leads to. What is remembered are the bad ones.
#include <kel/logging.h>

#include <cerrno>
#include <cstdio>

#include "catalogue.h"
#include "chunk_index.h"
#include "commands.h"
#include "progress.h"
#include "remote.h"
#include "text.h"

namespace dedup {
namespace {

class Verify {
 public:
  Verify(const Repository& repository, ChunkIndex& index, bool quiet)
      : repository_(repository), index_(index), progress_("verifying", quiet) {}

  /// Checks the index file, before it gives way to the containers; a damaged one is reported.
  void check_index() { is_index_good_ = index_.check_file(); }
  /// Checks a container; one that is not good is reported.
  void check_container(const NumberedFile& file);
  /// Checks a snapshot; its damage and the files that cannot be restored are reported.
  void check_snapshot(const NumberedFile& file);
  /// Prints what was found; the exit status.
  int finish(size_t snapshots);

 private:
  std::string find_problem(const NumberedFile& file);
  /// Goes through the chunks of the file that the catalogue has come to.
  bool is_whole(CatalogueReader& catalogue);
  bool is_good(const Fingerprint& chunk, uint32_t length);

  const Repository& repository_;
  ChunkIndex& index_;
  std::set<uint32_t> unreadable_;
  std::set<std::pair<uint32_t, uint32_t>> bad_;  ///< container and offset of chunks
  std::vector<StoredChunk> table_;
  std::vector<unsigned char> data_;
  Progress progress_;
  uint64_t bytes_ = 0;
  uint64_t chunks_ = 0;
  bool is_index_good_ = true;
  size_t damaged_snapshots_ = 0;
  size_t broken_files_ = 0;
};

/// Reads a container and notes its bad chunks; what is wrong with it, or nothing.
std::string Verify::find_problem(const NumberedFile& file) {
  std::string problem;
  if (!read_container(repository_, file.path, table_, data_, problem)) {
    unreadable_.insert(file.number);
    return problem;
  }
  size_t bad = 0;
  for (const auto& [chunk, offset, length] : table_) {
    const bool inside = uint64_t{offset} + length <= data_.size();
    if (!inside || fingerprint_of({data_.data() + offset, length}) != chunk) {
      ++bad;
      bad_.emplace(file.number, offset);
    }
    bytes_ += length;
    progress_.add_bytes(length);
  }
  chunks_ += table_.size();
  if (bad == 0) return {};
  return "is damaged: " + std::to_string(bad) + " of " + std::to_string(table_.size()) +
         " chunks do not match their fingerprints";
}

void Verify::check_container(const NumberedFile& file) {
  progress_.add_file();
  const std::string problem = find_problem(file);
  if (problem.empty()) return;
  progress_.clear();
  index_.report(file.number, problem);
}

bool Verify::is_good(const Fingerprint& chunk, uint32_t length) {
  const auto location = index_.find_stored(chunk);
  return location && location->length == length && !unreadable_.contains(location->container) &&
         !bad_.contains({location->container, location->offset});
}

bool Verify::is_whole(CatalogueReader& catalogue) {
  uint64_t size = 0;
  bool whole = true;
  std::optional<Item> item;
  while ((item = catalogue.next()) == Item::kChunk) {
    whole = whole && is_good(catalogue.chunk, catalogue.length);
    size += catalogue.length;
  }
  return whole && item == Item::kFileEnd && size == catalogue.file_size;
}

void Verify::check_snapshot(const NumberedFile& file) {
  CatalogueReader catalogue(repository_.key(), file.path);
  std::optional<Item> item;
  if (catalogue.open()) {
    while ((item = catalogue.next()) && item != Item::kEnd) {
      if (item != Item::kFile) continue;
      const std::string path = catalogue.entry.path;
      if (is_whole(catalogue)) continue;
      progress_.clear();
      ErrorA(EIO, "snapshot %u: %s cannot be restored", file.number, path_text(path).c_str());
      ++broken_files_;
    }
  }
  if (item && catalogue.check_database()) return;
  progress_.clear();
  ErrorA(EIO, "snapshot %s %s; move it away and store its source again", file.path.c_str(),
         catalogue.problem().c_str());
  ++damaged_snapshots_;
}

int Verify::finish(size_t snapshots) {
  progress_.clear();
  const double rate = static_cast<double>(bytes_) / 1e6 / (progress_.seconds() + 1e-9);
  std::printf("verified %zu containers, %zu snapshots, %lu chunks, %s, %.0f MB/s\n",
              index_.containers().size(), snapshots, static_cast<unsigned long>(chunks_),
              size_text(bytes_).c_str(), rate);
  const size_t damaged = index_.damaged() + damaged_snapshots_;
  if (damaged == 0 && broken_files_ == 0) return is_index_good_ ? 0 : 1;
  std::printf("damaged: %zu containers and snapshots, %zu files cannot be restored\n", damaged,
              broken_files_);
  return 1;
}

}  // namespace

int verify(const std::string& path, const Options& options) {
  const Fetched fetched = fetch(path, options);
  if (fetched == Fetched::kFailed) return 1;
  Repository repository(path, options.key_file);
  std::vector<NumberedFile> snapshots;
  ChunkIndex index(repository, ChunkIndex::Use::kRead);
  // The snapshots before the containers: what they need is then there, also while a store runs.
  if (!repository.open() || !repository.list_snapshots(snapshots) || !index.open()) return 1;
  Verify verifying(repository, index, options.quiet);
  verifying.check_index();
  for (const NumberedFile& file : index.containers()) verifying.check_container(file);
  for (const NumberedFile& file : snapshots) verifying.check_snapshot(file);
  const int status = verifying.finish(snapshots.size());
  return fetched == Fetched::kAll ? status : 1;
}

}  // namespace dedup
