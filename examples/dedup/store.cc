// Storing: walk, cut, look up, keep what is new; the snapshot becomes visible when all is safe.
#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "catalogue.h"
#include "chunk_index.h"
#include "chunker.h"
#include "commands.h"
#include "container.h"
#include "progress.h"
#include "remote.h"
#include "text.h"
#include "walk.h"

namespace dedup {
namespace {

constexpr size_t kReadSize = size_t{1} << 20;

/// Whether a file of which `size` bytes were read stayed as it was.
bool is_unchanged(const struct stat& before, const struct stat& after, uint64_t size) {
  return before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == after.st_mtim.tv_nsec &&
         static_cast<uint64_t>(after.st_size) == size;
}

class Store final : public WalkVisitor {
 public:
  Store(const Repository& repository, ChunkIndex& index, ContainerNumbers& numbers, bool quiet)
      : repository_(repository),
        index_(index),
        containers_(repository, numbers),
        catalogue_(repository.key(), repository.settings().compression),
        chunker_(repository.settings().chunk_size),
        progress_("storing", quiet),
        buffer_(kReadSize + chunker_.largest()) {}

  /// Stores the folder `source` as snapshot `number`; false when there is none, after a report.
  bool run(const std::string& source, uint32_t number);
  void print_summary(uint32_t number);
  const Summary& summary() const { return summary_; }

  bool folder(const Entry& entry) override {
    ++summary_.folders;
    return catalogue_.add(Item::kFolder, entry);
  }
  bool link(const Entry& entry) override {
    ++summary_.links;
    return catalogue_.add(Item::kLink, entry);
  }
  bool file(const Entry& entry, int folder, const std::string& name) override;
  bool problem(const std::string& path, int error) override;
  bool left_out(const std::string& path, const char* why) override;

 private:
  std::string full_path(const std::string& path) const;
  bool store_data(int file, uint64_t& size, int& error);
  bool store_chunk(Bytes data);

  const Repository& repository_;
  ChunkIndex& index_;
  ContainerWriter containers_;
  CatalogueWriter catalogue_;
  Summary summary_;
  Chunker chunker_;
  Progress progress_;
  std::vector<unsigned char> buffer_;
};

bool Store::run(const std::string& source, uint32_t number) {
  struct stat own;
  struct stat root;
  if (::stat(repository_.path().c_str(), &own) != 0 || ::stat(source.c_str(), &root) != 0) {
    ErrorA(errno, "could not store %s: %s", path_text(source).c_str(), std::strerror(errno));
    return false;
  }
  if (own.st_dev == root.st_dev && own.st_ino == root.st_ino) {
    ErrorA(EINVAL, "could not store %s: it is the repository itself", path_text(source).c_str());
    return false;
  }
  const std::string name = Repository::snapshot_name(number);
  if (!catalogue_.create(repository_.temporaries() + "/" + name)) return false;
  summary_.time = std::time(nullptr);
  summary_.source = source;
  const bool walked = walk(source, own, *this);
  progress_.clear();
  if (!walked || !containers_.finish()) return false;
  summary_.stored_bytes = containers_.stored_bytes();
  return catalogue_.commit(summary_, repository_.snapshots());
}

std::string Store::full_path(const std::string& path) const {
  return path_text(path.empty() ? summary_.source : summary_.source + "/" + path);
}

bool Store::problem(const std::string& path, int error) {
  progress_.clear();
  ErrorA(error, "could not read %s: %s", full_path(path).c_str(), std::strerror(error));
  ++summary_.problems;
  return true;
}

bool Store::left_out(const std::string& path, const char* why) {
  progress_.clear();
  WarningA(-1, "%s %s: not stored", full_path(path).c_str(), why);
  return true;
}

bool Store::file(const Entry& entry, int folder, const std::string& name) {
  // The file may have given way to something else since the walk saw it.
  const Descriptor file(
      ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status;
  const bool readable = file && ::fstat(file.get(), &status) == 0;
  if (!readable || !S_ISREG(status.st_mode)) return problem(entry.path, readable ? ESTALE : errno);
  uint64_t size = 0;
  int error = 0;
  if (!catalogue_.add(Item::kFile, entry_of(entry.path, status)) ||
      !store_data(file.get(), size, error) || !catalogue_.end_file(size, error == 0))
    return false;
  if (error != 0) return problem(entry.path, error);
  struct stat after;
  if (::fstat(file.get(), &after) == 0 && !is_unchanged(status, after, size)) {
    progress_.clear();
    WarningA(-1, "%s changed while it was read: old and new parts may be mixed",
             full_path(entry.path).c_str());
    ++summary_.problems;
  }
  ++summary_.files;
  progress_.add_file();
  return true;
}

/// Stores what a file holds; `error` is why it could not be read to its end, or 0.
bool Store::store_data(int file, uint64_t& size, int& error) {
  size_t held = 0;
  for (;;) {
    const ssize_t count = safe_read(file, buffer_.data() + held, kReadSize);
    if (count < 0) {
      error = errno;
      return true;
    }
    held += static_cast<size_t>(count);
    const bool at_end = static_cast<size_t>(count) < kReadSize;
    size_t done = 0;
    // A cut needs a whole chunk's worth to look at, except at the end of the file.
    while (held - done >= (at_end ? 1 : chunker_.largest())) {
      const size_t length = chunker_.first_chunk(buffer_.data() + done, held - done);
      if (!store_chunk({buffer_.data() + done, length})) return false;
      done += length;
    }
    size += done;
    held -= done;
    std::memmove(buffer_.data(), buffer_.data() + done, held);
    if (at_end) return true;
  }
}

bool Store::store_chunk(Bytes data) {
  const Fingerprint chunk = fingerprint_of(data);
  ++summary_.chunks;
  summary_.bytes += data.size();
  progress_.add_bytes(data.size());
  if (!index_.find(chunk)) {
    ++summary_.new_chunks;
    summary_.new_bytes += data.size();
    Location location;
    if (!containers_.add(chunk, data, location) || !index_.put(chunk, location)) return false;
    if (index_.is_full() && (!containers_.finish() || !index_.update())) return false;
  }
  return catalogue_.add_chunk(chunk, static_cast<uint32_t>(data.size()));
}

void Store::print_summary(uint32_t number) {
  const auto row = [](const char* name, uint64_t count, const std::string& size) {
    std::printf("%-10s %12lu  %12s\n", name, static_cast<unsigned long>(count), size.c_str());
  };
  const double megabytes = static_cast<double>(summary_.bytes) / 1e6;
  std::printf("snapshot %u of %s\n", number, path_text(summary_.source).c_str());
  std::printf("%-10s %12s  %12s\n", "", "count", "bytes");
  row("files", summary_.files, size_text(summary_.bytes));
  row("folders", summary_.folders, "");
  row("links", summary_.links, "");
  row("chunks", summary_.chunks, size_text(summary_.bytes));
  row("new", summary_.new_chunks, size_text(summary_.new_bytes));
  // What the new chunks take in the repository, compressed and encrypted.
  std::printf("%-10s %12s  %12s\n", "stored", "", size_text(summary_.stored_bytes).c_str());
  std::printf("%-10s %12.0f  %12s\n", "speed", megabytes / (progress_.seconds() + 1e-9), "MB/s");
}

/// The folder behind a name that a user gave; empty after a report.
std::string resolve_folder(const std::string& name) {
  const std::unique_ptr<char, void (*)(void*)> path(::realpath(name.c_str(), nullptr), std::free);
  struct stat status;
  if (path != nullptr && ::stat(path.get(), &status) == 0) {
    if (S_ISDIR(status.st_mode)) return path.get();
    errno = ENOTDIR;
  }
  ErrorA(errno, "could not store %s: %s", path_text(name).c_str(), std::strerror(errno));
  return {};
}

}  // namespace

int store(const std::string& path, const std::string& source, const Options& options) {
  const std::string folder = resolve_folder(source);
  if (folder.empty()) return 1;
  Repository repository(path, options.key_file);
  std::vector<NumberedFile> snapshots;
  ChunkIndex index(repository, ChunkIndex::Use::kStore);
  ContainerNumbers numbers;
  if (!repository.open_for_store(options.settings) || !repository.list_snapshots(snapshots) ||
      !index.open() || !numbers.open(path + "/last-container", path, index.last_container()))
    return 1;
  const uint32_t number = snapshots.empty() ? 1 : snapshots.back().number + 1;
  Store storing(repository, index, numbers, options.quiet);
  if (!storing.run(folder, number)) return 1;
  // The snapshot is safe; without a new index file the next store only has more to read.
  const bool is_indexed = !index.is_update_due() || index.update();
  storing.print_summary(number);
  const bool is_pushed = push(repository, options);
  return storing.summary().problems == 0 && index.damaged() == 0 && is_indexed && is_pushed ? 0 : 1;
}

}  // namespace dedup
