#include "chunk_index.h"

#include <kel/logging.h>
#include <kel/path.h>
#include <kel/safeio.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "index_sort.h"
#include "index_writer.h"

namespace dedup {
namespace {

/// Chunks in memory beside those of the file, about 80 bytes each. As the file grows it is written
/// less often: a chunk is copied some 32 times, whatever their number.
constexpr uint64_t kFewChunks = uint64_t{1} << 17;
constexpr uint64_t kShare = 32;
/// Containers whose tables may be read each time the repository is opened.
constexpr size_t kFewContainers = 8;
/// Chunks in each half of the tables that were read last.
constexpr uint64_t kRecentChunks = uint64_t{1} << 16;

/// A folder for files that have no place in the repository.
class TemporaryFolder {
 public:
  TemporaryFolder() : path_(std::filesystem::temp_directory_path() / "kel-dedup-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr) {
      ErrorA(errno, "could not make %s: %s; set TMPDIR to a folder with room", path_.c_str(),
             std::strerror(errno));
      path_.clear();
    }
  }
  ~TemporaryFolder() {
    if (!path_.empty()) DeleteTreeA(path_.c_str());
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  /// Empty when it could not be made, which is reported.
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

bool by_number(const NumberedFile& file, uint32_t number) { return file.number < number; }

}  // namespace

uint64_t ChunkIndex::most_fresh() const {
  return kFewChunks + (file_ ? file_->records() / kShare : 0);
}

bool ChunkIndex::open() {
  if (!fresh_.good() || !recent_[0].good() || !recent_[1].good()) return false;
  // The file before the containers: those that it covers are then there, also while a store runs.
  open_file();
  if (!repository_.list_containers(containers_)) return false;
  if (!containers_.empty()) last_container_ = containers_.back().number;
  if (file_ && !file_->containers().empty())
    last_container_ = std::max(last_container_, file_->containers().back().number);
  if (file_ && !is_file_current()) {
    WarningA(-1, "%s is of other containers than those that are there; they are read instead",
             file_path().c_str());
    file_is_wrong_ = true;
    forget_file();
  }
  return learn();
}

void ChunkIndex::open_file() {
  file_.emplace(repository_.key());
  if (file_->open(file_path())) return;
  if (!file_->problem().empty()) {
    WarningA(-1, "%s %s; the containers are read instead", file_path().c_str(),
             file_->problem().c_str());
    file_is_wrong_ = file_is_bad_ = true;
  }
  file_.reset();
}

/// Whether the containers that the file covers are all there, and of the same size. When one is
/// gone, a copy of its chunks in another one is in no list: only the containers can tell.
bool ChunkIndex::is_file_current() const {
  return std::all_of(
      file_->containers().begin(), file_->containers().end(), [&](const auto& covered) {
        const auto at =
            std::lower_bound(containers_.begin(), containers_.end(), covered.number, by_number);
        return at != containers_.end() && at->number == covered.number &&
               file_size(at->path) == covered.size;
      });
}

std::vector<NumberedFile> ChunkIndex::uncovered() const {
  std::vector<NumberedFile> result;
  const auto covered = file_ ? std::span(file_->containers()) : std::span<const CoveredContainer>();
  auto at = covered.begin();
  for (const NumberedFile& file : containers_) {
    while (at != covered.end() && at->number < file.number) ++at;
    if (at == covered.end() || at->number != file.number) result.push_back(file);
  }
  return result;
}

/// Takes the containers that the file does not cover into memory; when they are too many, a file is
/// made that covers all.
bool ChunkIndex::learn() {
  std::string problem;
  for (const NumberedFile& file : uncovered()) {
    if (!read_table(repository_, file.path, table_, problem)) {
      report(file.number, problem);
      continue;
    }
    ++fresh_containers_;
    for (const auto& [chunk, offset, length] : table_)
      if (!fresh_.put(chunk, {file.number, offset, length})) return false;
    if (is_full()) return rebuild();
  }
  return true;
}

bool ChunkIndex::rebuild() {
  if (use_ == Use::kStore) return update();
  const TemporaryFolder folder;
  IndexWriter out(repository_.key());
  std::vector<CoveredContainer> all;
  if (folder.path().empty() || !out.create(folder.path() + "/index") ||
      !sort_into(out, folder.path(), all) || !out.finish(all))
    return false;
  forget_file();
  file_.emplace(repository_.key());
  file_is_own_ = file_->open(folder.path() + "/index");
  if (!file_is_own_) ErrorA(EIO, "%s/index %s", folder.path().c_str(), file_->problem().c_str());
  return file_is_own_;
}

/// Sorts what the file covers and what it does not; all of it from the containers when the file
/// turns out to be damaged.
bool ChunkIndex::sort_into(IndexWriter& out, const std::string& folder,
                           std::vector<CoveredContainer>& all) {
  IndexSort sort(repository_,
                 [this](uint32_t number, const std::string& problem) { report(number, problem); });
  if (file_ && file_->damaged()) forget_file();
  bool sorted = sort.run(file_ ? &*file_ : nullptr, uncovered(), folder, out);
  if (!sorted && file_ && file_->damaged()) {
    forget_file();
    sorted = out.create(folder + "/index") && sort.run(nullptr, containers_, folder, out);
  }
  all = sort.containers();
  if (!sorted) ErrorA(EIO, "could not make the index in %s; make room there", folder.c_str());
  return sorted;
}

bool ChunkIndex::update() {
  containers_.clear();
  const std::string folder = repository_.temporaries();
  IndexWriter out(repository_.key());
  std::vector<CoveredContainer> all;
  if (!repository_.list_containers(containers_) || !out.create(folder + "/index") ||
      !sort_into(out, folder, all))
    return false;
  const bool is_empty = out.is_empty();
  if (is_empty ? !remove_file() : !out.commit(all, file_path(), repository_.path())) return false;
  forget_file();
  file_is_wrong_ = file_is_bad_ = false;
  if (is_empty) return true;
  file_.emplace(repository_.key());
  file_is_own_ = file_->open(file_path());
  if (!file_is_own_) ErrorA(EIO, "%s %s", file_path().c_str(), file_->problem().c_str());
  return file_is_own_;
}

bool ChunkIndex::remove_file() const {
  return ::access(file_path().c_str(), F_OK) != 0 ||
         unlink_dirfsync(file_path().c_str(), repository_.path().c_str(), false) == 0;
}

void ChunkIndex::forget_file() {
  file_.reset();
  fresh_.clear();
  fresh_containers_ = 0;
  last_put_ = 0;
  for (Index& half : recent_) half.clear();
}

std::optional<Location> ChunkIndex::find(const Fingerprint& chunk) {
  const auto location = fresh_.find(chunk);
  return location || !file_ ? location : find_in_file(chunk);
}

std::optional<Location> ChunkIndex::find_in_file(const Fingerprint& chunk) {
  for (const size_t half : {young_, 1 - young_})
    if (const auto location = recent_[half].find(chunk)) return location;
  const bool was_damaged = file_->damaged();
  const auto container = file_->find(chunk);
  if (container && load_table(*container)) {
    if (const auto location = recent_[young_].find(chunk)) return location;
    file_->set_damaged();
  }
  if (file_->damaged() && !was_damaged)
    WarningA(-1, "%s is damaged; what it does not lead to is looked for in the containers",
             file_path().c_str());
  return std::nullopt;
}

/// Reads the table of a container that the file names.
bool ChunkIndex::load_table(uint32_t number) {
  const auto file = std::lower_bound(containers_.begin(), containers_.end(), number, by_number);
  if (file == containers_.end() || file->number != number) {
    file_->set_damaged();
    return false;
  }
  std::string problem;
  if (!read_table(repository_, file->path, table_, problem)) {
    report(number, problem);
    return false;
  }
  if (recent_[young_].size() + table_.size() > kRecentChunks) {
    young_ = 1 - young_;
    recent_[young_].clear();
  }
  return std::all_of(table_.begin(), table_.end(), [&](const StoredChunk& entry) {
    return recent_[young_].put(entry.chunk, {number, entry.offset, entry.length});
  });
}

std::optional<Location> ChunkIndex::find_stored(const Fingerprint& chunk) {
  const auto location = find(chunk);
  if (location || !file_ || file_is_own_) return location;
  forget_file();
  // From here on nothing is asked twice, also when this fails, which is reported.
  file_is_own_ = true;
  return learn() ? find(chunk) : std::nullopt;
}

bool ChunkIndex::put(const Fingerprint& chunk, const Location& location) {
  if (std::exchange(last_put_, location.container) != location.container) ++fresh_containers_;
  return fresh_.put(chunk, location);
}

bool ChunkIndex::is_update_due() const {
  const size_t covered = file_ ? file_->containers().size() : 0;
  return file_is_wrong_ || (file_ && file_->damaged()) ||
         fresh_containers_ > kFewContainers + covered / kShare;
}

void ChunkIndex::report(uint32_t container, const std::string& problem) {
  if (reported_.insert(container).second)
    ErrorA(EIO, "container %s/%s %s; move it away and store its source again",
           repository_.containers().c_str(), Repository::container_name(container).c_str(),
           problem.c_str());
}

bool ChunkIndex::check_file() {
  if (file_is_bad_ || !file_ || file_is_own_) return !file_is_bad_;
  for (uint64_t block = 0; block < file_->blocks(); ++block) file_->read_block(block);
  if (!file_->damaged()) return true;
  ErrorA(EIO, "%s is damaged; remove it, the next store makes it anew", file_path().c_str());
  return false;
}

}  // namespace dedup
