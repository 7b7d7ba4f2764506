// Reading a whole file into memory.
#include <fcntl.h>
#include <sys/stat.h>

#include "config/ini_cache.h"
#include "internal/report.h"
#include "internal/transfer.h"

namespace kel::config {
namespace {

using namespace kel::internal;

constexpr char kReader[] = "__openReader";

struct Contents {
  MallocPtr<char> text;
  std::size_t size = 0;
};

enum class Reading { kDone, kUnreadable, kNoMemory };

void report_open_failure(const char* path) {
  if (errno == ENOENT)
    report_warning(ENOENT, "%s: could not open file %s", kReader, path);
  else
    report_error(errno, "%s: could not open file %s", kReader, path);
}

/// Raises the room for the text to `room` bytes; false, reported, when that cannot be had.
bool grow(Contents& contents, std::size_t room) {
  auto* grown = static_cast<char*>(std::realloc(contents.text.get(), room));
  if (grown == nullptr) return fail_allocation(false, room, __func__);
  contents.text.release();  // NOLINT(bugprone-unused-return-value): realloc took it over
  contents.text.reset(grown);
  return true;
}

/// Reads to the end of the file, whatever its size was or was said to be.
Reading read_whole(int fd, std::size_t expected, const char* path, Contents& contents) {
  constexpr std::size_t kLeastRoom = 512;
  std::size_t room = std::max(expected + 1, kLeastRoom);
  for (;; room *= 2) {
    if (!grow(contents, room)) return Reading::kNoMemory;
    const Transfer read =
        transfer_whole(room - contents.size, [&](std::size_t done, std::size_t remaining) {
          return ::read(fd, contents.text.get() + contents.size + done, remaining);
        });
    if (read.failed) {
      report_error(errno, "%s: failed to read file %s", kReader, path);
      return Reading::kUnreadable;
    }
    contents.size += read.done;
    if (contents.size < room) return Reading::kDone;
  }
}

Reading read_file(const char* path, Contents& contents) {
  const UniqueFd fd(retry_interrupted([&] { return ::open(path, O_RDONLY | O_CLOEXEC); }));
  if (!fd) {
    report_open_failure(path);
    return Reading::kUnreadable;
  }
  struct stat status = {};
  if (::fstat(fd.get(), &status) != 0) {
    report_error(errno, "%s: could not stat file", kReader);
    return Reading::kUnreadable;
  }
  if (S_ISDIR(status.st_mode))
    return fail(Reading::kUnreadable, EISDIR,
                "%s: directory passed as parameter where file was expected", kReader);
  return read_whole(fd.get(), static_cast<std::size_t>(status.st_size), path, contents);
}

}  // namespace

std::unique_ptr<IniFile> load_file(const char* path) {
  Contents contents;
  const Reading reading = read_file(path, contents);
  if (reading == Reading::kNoMemory) return nullptr;
  if (reading == Reading::kUnreadable) {
    if (!grow(contents, 1)) return nullptr;
    *contents.text = '\n';
    contents.size = 1;
  }
  std::unique_ptr<IniFile> file = IniFile::create(path);
  if (!file || !file->parse(std::move(contents.text), contents.size))
    return fail_allocation(std::unique_ptr<IniFile>(), sizeof(IniFile), __func__);
  return file;
}

}  // namespace kel::config
