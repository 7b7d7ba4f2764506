// Restoring: the catalogue from its beginning to its end; what cannot be brought back whole is
// named and left out.
#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <unordered_set>

#include "catalogue.h"
#include "chunk_reader.h"
#include "commands.h"
#include "progress.h"
#include "text.h"

namespace dedup {
namespace {

/// Whether the process may give files to others.
bool may_set_owner() { return ::geteuid() == 0; }

std::array<timespec, 2> times_of(const Entry& entry) {
  const timespec modified{entry.seconds, static_cast<long>(entry.nanoseconds)};
  return {modified, modified};
}

class Restore {
 public:
  Restore(ChunkReader& chunks, std::string target) : chunks_(chunks), target_(std::move(target)) {}

  /// Restores everything that can be; false when the catalogue is damaged.
  bool run(CatalogueReader& catalogue);
  void print_summary();
  uint64_t problems() const { return problems_; }

 private:
  bool has_place(const Entry& entry);
  void make_folder(const Entry& entry);
  void make_link(const Entry& entry);
  void make_file(CatalogueReader& catalogue);
  const char* write_chunk(const Descriptor& file, const CatalogueReader& catalogue);
  const char* finish_file(Descriptor& file, const Entry& entry);
  void finish_folders();
  void fails(const Entry& entry, const char* why);

  std::string full_path(const Entry& entry) const {
    return entry.path.empty() ? target_ : target_ + "/" + entry.path;
  }

  ChunkReader& chunks_;
  std::string target_;
  std::vector<Entry> folders_;  // made, without their modes and times
  std::unordered_set<std::string> folder_paths_;
  Progress progress_{"restoring"};
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
  uint64_t problems_ = 0;
};

void Restore::fails(const Entry& entry, const char* why) {
  progress_.clear();
  ErrorA(EIO, "%s is not restored: %s", path_text(full_path(entry)).c_str(), why);
  ++problems_;
}

/// Whether an entry belongs into a folder that was made here: no path leads out of the target, and
/// none through a link.
bool Restore::has_place(const Entry& entry) {
  const std::string& path = entry.path;
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const bool is_name =
      !name.empty() && name != "." && name != ".." && name.find('\0') == std::string::npos;
  if (is_name && folder_paths_.count(folder) != 0) return true;
  fails(entry, "it has no folder to be in");
  return false;
}

void Restore::make_folder(const Entry& entry) {
  // The folder of the snapshot itself is the target, which is there already.
  const bool is_target = entry.path.empty() && folder_paths_.empty();
  if (!is_target) {
    if (!has_place(entry)) return;
    if (::mkdir(full_path(entry).c_str(), 0700) != 0) return fails(entry, std::strerror(errno));
  }
  folders_.push_back(entry);
  folder_paths_.insert(entry.path);
}

void Restore::make_link(const Entry& entry) {
  if (!has_place(entry)) return;
  const std::string path = full_path(entry);
  const auto times = times_of(entry);
  if (::symlink(entry.target.c_str(), path.c_str()) != 0 ||
      (may_set_owner() && ::lchown(path.c_str(), entry.owner, entry.group) != 0) ||
      ::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0)
    fails(entry, std::strerror(errno));
}

/// Writes one chunk; null, or why it could not.
const char* Restore::write_chunk(const Descriptor& file, const CatalogueReader& catalogue) {
  const Bytes data = chunks_.read(catalogue.chunk, catalogue.length);
  if (data.empty()) return "a chunk of it is missing or damaged";
  progress_.add_bytes(data.size());
  bytes_ += data.size();
  return safe_write(file.get(), data.data(), data.size()) == static_cast<ssize_t>(data.size())
             ? nullptr
             : std::strerror(errno);
}

/// Gives a file its owner, mode and time and closes it; null, or why it could not.
const char* Restore::finish_file(Descriptor& file, const Entry& entry) {
  const auto times = times_of(entry);
  // The owner first: a change of it takes the set-user-id bit away.
  if ((may_set_owner() && ::fchown(file.get(), entry.owner, entry.group) != 0) ||
      ::fchmod(file.get(), entry.mode) != 0 || ::futimens(file.get(), times.data()) != 0 ||
      file.close() != 0)
    return std::strerror(errno);
  return nullptr;
}

/// Makes the file that the catalogue has come to, all of it or none.
void Restore::make_file(CatalogueReader& catalogue) {
  const Entry entry = catalogue.entry;
  const std::string path = full_path(entry);
  const bool has_folder = has_place(entry);
  Descriptor file;
  const char* problem = nullptr;
  if (has_folder) {
    file = Descriptor(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) problem = std::strerror(errno);
  }
  const bool created = static_cast<bool>(file);
  uint64_t size = 0;
  std::optional<Item> item;
  while ((item = catalogue.next()) == Item::kChunk) {
    size += catalogue.length;
    if (created && problem == nullptr) problem = write_chunk(file, catalogue);
  }
  const bool ended = item == Item::kFileEnd;
  if (has_folder && problem == nullptr) {
    if (!ended || size != catalogue.file_size)
      problem = "the catalogue is damaged";
    else if (!catalogue.complete)
      problem = "it could not be read to its end when it was stored";
    else
      problem = finish_file(file, entry);
  }
  if (problem != nullptr) {
    fails(entry, problem);
    if (created) ::unlink(path.c_str());
  } else if (has_folder) {
    ++files_;
    progress_.add_file();
  }
}

bool Restore::run(CatalogueReader& catalogue) {
  std::optional<Item> item;
  while ((item = catalogue.next()) && item != Item::kEnd) {
    if (item == Item::kFolder)
      make_folder(catalogue.entry);
    else if (item == Item::kLink)
      make_link(catalogue.entry);
    else
      make_file(catalogue);
  }
  finish_folders();
  progress_.clear();
  return item.has_value();
}

/// Modes and times of folders come last: what was made in them changed the times, and a mode may
/// forbid to make anything.
void Restore::finish_folders() {
  for (auto entry = folders_.rbegin(); entry != folders_.rend(); ++entry) {
    const std::string path = full_path(*entry);
    const auto times = times_of(*entry);
    if ((may_set_owner() && ::chown(path.c_str(), entry->owner, entry->group) != 0) ||
        ::chmod(path.c_str(), entry->mode) != 0 ||
        ::utimensat(AT_FDCWD, path.c_str(), times.data(), 0) != 0)
      fails(*entry, std::strerror(errno));
  }
}

void Restore::print_summary() {
  const double seconds = progress_.seconds() + 1e-9;
  std::printf("restored %lu files, %lu folders, %s, %.0f MB/s\n",
              static_cast<unsigned long>(files_), static_cast<unsigned long>(folders_.size()),
              size_text(bytes_).c_str(), static_cast<double>(bytes_) / 1e6 / seconds);
}

/// Makes the folder to restore into, or takes an empty one.
bool make_target(const std::string& target) {
  if (::mkdir(target.c_str(), 0700) == 0) return true;
  std::error_code error;
  if (errno == EEXIST && std::filesystem::is_empty(target, error) && !error) return true;
  ErrorA(EEXIST, "could not restore into %s: name a new or an empty folder", target.c_str());
  return false;
}

}  // namespace

int restore(const std::string& path, const std::string& snapshot, const std::string& target) {
  Repository repository(path);
  NumberedFile file;
  // The snapshot before the index: what it needs is then there.
  if (!repository.open() || !repository.find_snapshot(snapshot, file) || !make_target(target))
    return 1;
  ChunkReader chunks(repository);
  if (!chunks.load()) return 1;
  CatalogueReader catalogue(repository.key(), file.path);
  Restore restoring(chunks, target);
  const bool whole = catalogue.open() && restoring.run(catalogue);
  if (!whole)
    ErrorA(EIO, "snapshot %s %s; what came behind the damage is not restored", file.path.c_str(),
           catalogue.problem().c_str());
  restoring.print_summary();
  return whole && restoring.problems() == 0 ? 0 : 1;
}

}  // namespace dedup
