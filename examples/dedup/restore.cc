// Restoring: the catalogue from its beginning to its end; what cannot be brought back whole is
// named and left out.
#include <kel/logging.h>
#include <kel/path.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "catalogue.h"
#include "chunk_reader.h"
#include "commands.h"
#include "progress.h"
#include "remote.h"
#include "text.h"
#include "walk.h"

namespace dedup {
namespace {

std::array<timespec, 2> times_of(const Entry& entry) {
  const timespec modified{entry.seconds, static_cast<long>(entry.nanoseconds)};
  return {modified, modified};
}

/// Whether `path` is below `folder`.
bool is_below(const std::string& path, const std::string& folder) {
  return folder.empty() ||
         (path.size() > folder.size() && path[folder.size()] == '/' && path.starts_with(folder));
}

bool is_zero(Bytes data) {
  return data[0] == 0 && std::equal(data.begin() + 1, data.end(), data.begin());
}

class Restore {
 public:
  Restore(ChunkReader& chunks, std::string target, bool quiet)
      : chunks_(chunks), target_(std::move(target)), progress_("restoring", quiet) {}

  /// Restores everything that can be; false when the catalogue is damaged.
  bool run(CatalogueReader& catalogue);
  void print_summary();
  uint64_t problems() const { return problems_; }

 private:
  struct OpenFolder {
    Descriptor descriptor;
    Entry entry;
  };

  std::optional<std::string> find_place(const Entry& entry);
  void make_folder(const Entry& entry);
  void make_link(const Entry& entry);
  void make_file(CatalogueReader& catalogue);
  const char* write_chunk(int file, const CatalogueReader& catalogue, uint64_t offset);
  bool give_attributes(int file, const Entry& entry);
  void leave_folder();
  void fails(const Entry& entry, const char* why);
  int folder() const { return folders_.back().descriptor.get(); }

  ChunkReader& chunks_;
  std::string target_;
  std::vector<OpenFolder> folders_;  ///< from the target down to the one that is being filled
  const bool may_set_owner_ = ::geteuid() == 0;
  Progress progress_;
  uint64_t files_ = 0;
  uint64_t made_folders_ = 0;
  uint64_t bytes_ = 0;
  uint64_t problems_ = 0;
};

void Restore::fails(const Entry& entry, const char* why) {
  progress_.clear();
  const std::string path = entry.path.empty() ? target_ : target_ + "/" + entry.path;
  ErrorA(EIO, "%s is not restored: %s", path_text(path).c_str(), why);
  ++problems_;
}

/// Leaves the folders that an entry is not below, and gives the entry's name in the folder that is
/// then the last; nothing, after a report, when it belongs elsewhere. So no path leads out of the
/// target, and none through a link.
std::optional<std::string> Restore::find_place(const Entry& entry) {
  while (!folders_.empty() && !is_below(entry.path, folders_.back().entry.path)) leave_folder();
  const size_t slash = entry.path.rfind('/');
  const bool at_top = slash == std::string::npos;
  const std::string parent = at_top ? "" : entry.path.substr(0, slash);
  std::string name = at_top ? entry.path : entry.path.substr(slash + 1);
  const bool is_name =
      !name.empty() && name != "." && name != ".." && name.find('\0') == std::string::npos;
  if (is_name && !folders_.empty() && folders_.back().entry.path == parent) return name;
  fails(entry, "it has no folder to be in");
  return std::nullopt;
}

void Restore::make_folder(const Entry& entry) {
  int parent = AT_FDCWD;
  std::optional<std::string> name = target_;
  // The folder of the snapshot itself is the target, which is there already.
  if (!entry.path.empty() || !folders_.empty()) {
    name = find_place(entry);
    if (!name) return;
    parent = folder();
    if (::mkdirat(parent, name->c_str(), 0700) != 0) return fails(entry, std::strerror(errno));
  }
  const int links = parent == AT_FDCWD ? 0 : O_NOFOLLOW;
  Descriptor made(::openat(parent, name->c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | links));
  if (!made) return fails(entry, std::strerror(errno));
  folders_.push_back({std::move(made), entry});
  ++made_folders_;
}

void Restore::make_link(const Entry& entry) {
  const auto name = find_place(entry);
  if (!name) return;
  const auto times = times_of(entry);
  if (::symlinkat(entry.target.c_str(), folder(), name->c_str()) != 0 ||
      (may_set_owner_ &&
       ::fchownat(folder(), name->c_str(), entry.owner, entry.group, AT_SYMLINK_NOFOLLOW) != 0) ||
      ::utimensat(folder(), name->c_str(), times.data(), AT_SYMLINK_NOFOLLOW) != 0)
    fails(entry, std::strerror(errno));
}

/// Writes one chunk; null, or why it could not. Chunks of zeros become holes.
const char* Restore::write_chunk(int file, const CatalogueReader& catalogue, uint64_t offset) {
  const Bytes data = chunks_.read(catalogue.chunk, catalogue.length);
  if (data.empty()) return "a chunk of it is missing or damaged";
  progress_.add_bytes(data.size());
  bytes_ += data.size();
  if (is_zero(data)) return nullptr;
  return safe_pwrite(file, data.data(), data.size(), static_cast<off_t>(offset)) ==
                 static_cast<ssize_t>(data.size())
             ? nullptr
             : std::strerror(errno);
}

/// Gives a file or folder its owner, mode and time; false with errno. Who may not set the owner
/// does not get the set-id bits that were meant for another.
bool Restore::give_attributes(int file, const Entry& entry) {
  mode_t mode = entry.mode;
  struct stat status;
  if (::fstat(file, &status) != 0) return false;
  if (status.st_uid != entry.owner || status.st_gid != entry.group) {
    // The owner first: a change of it takes the set-user-id bit away.
    if (!may_set_owner_)
      mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
    else if (::fchown(file, entry.owner, entry.group) != 0)
      return false;
  }
  const auto times = times_of(entry);
  return ::fchmod(file, mode) == 0 && ::futimens(file, times.data()) == 0;
}

/// Makes the file that the catalogue has come to, all of it or none.
void Restore::make_file(CatalogueReader& catalogue) {
  const Entry entry = catalogue.entry;
  const auto name = find_place(entry);
  Descriptor file;
  const char* problem = nullptr;
  if (name) {
    file = Descriptor(::openat(folder(), name->c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) problem = std::strerror(errno);
  }
  const bool created = static_cast<bool>(file);
  uint64_t size = 0;
  std::optional<Item> item;
  while ((item = catalogue.next()) == Item::kChunk) {
    if (created && problem == nullptr) problem = write_chunk(file.get(), catalogue, size);
    size += catalogue.length;
  }
  if (!name) return;
  if (problem == nullptr) {
    if (item != Item::kFileEnd || size != catalogue.file_size)
      problem = "the catalogue is damaged";
    else if (!catalogue.complete)
      problem = "it could not be read to its end when it was stored";
    else if (safe_ftruncate(file.get(), static_cast<off_t>(size)) != 0 ||
             !give_attributes(file.get(), entry) || file.close() != 0)
      problem = std::strerror(errno);
  }
  if (problem != nullptr) {
    fails(entry, problem);
    if (created) ::unlinkat(folder(), name->c_str(), 0);
  } else {
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
  while (!folders_.empty()) leave_folder();
  progress_.clear();
  return item.has_value();
}

/// Mode and time of a folder come last: what is made in it changes the time, and the mode may
/// forbid to make anything.
void Restore::leave_folder() {
  const OpenFolder left = std::move(folders_.back());
  folders_.pop_back();
  if (!give_attributes(left.descriptor.get(), left.entry)) fails(left.entry, std::strerror(errno));
}

void Restore::print_summary() {
  const double seconds = progress_.seconds() + 1e-9;
  std::printf("restored %lu files, %lu folders, %s, %.0f MB/s\n",
              static_cast<unsigned long>(files_), static_cast<unsigned long>(made_folders_),
              size_text(bytes_).c_str(), static_cast<double>(bytes_) / 1e6 / seconds);
}

/// Makes the folder to restore into, or takes an empty one.
bool make_target(const std::string& target) {
  std::vector<std::string> names;
  if (CreateDirA(target.c_str(), 0700) == 1 && list_names(target, names)) {
    if (names.empty()) return true;
    errno = ENOTEMPTY;
  }
  ErrorA(errno, "could not restore into %s: %s; name a new or an empty folder",
         path_text(target).c_str(), std::strerror(errno));
  return false;
}

}  // namespace

int restore(const std::string& path, const std::string& snapshot, const std::string& target,
            const Options& options) {
  const Fetched fetched = fetch(path, options);
  if (fetched == Fetched::kFailed) return 1;
  Repository repository(path, options.key_file);
  NumberedFile file;
  // The snapshot before the index: what it needs is then there.
  if (!repository.open() || !repository.find_snapshot(snapshot, file) || !make_target(target))
    return 1;
  ChunkIndex index(repository, ChunkIndex::Use::kRead);
  if (!index.open()) return 1;
  ChunkReader chunks(repository, index);
  CatalogueReader catalogue(repository.key(), file.path);
  Restore restoring(chunks, target, options.quiet);
  const bool whole = catalogue.open() && restoring.run(catalogue);
  if (!whole)
    ErrorA(EIO, "snapshot %s %s; what came behind the damage is not restored", file.path.c_str(),
           catalogue.problem().c_str());
  restoring.print_summary();
  return whole && restoring.problems() == 0 && fetched == Fetched::kAll ? 0 : 1;
}

}  // namespace dedup
