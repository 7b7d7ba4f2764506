// INI text out, in a way that a crash cannot spoil: docs/formats/ini.md describes the protocol.
#include <kel/inifile.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <array>
#include <climits>

#include "config/ini_cache.h"
#include "internal/report.h"
#include "internal/transfer.h"

namespace kel::config {
namespace {

void put(std::string_view bytes, FILE* out) {
  if (!bytes.empty()) ::fwrite_unlocked(bytes.data(), 1, bytes.size(), out);
}

void write_definition(const Entry& entry, FILE* out) {
  if (!entry.comment.inherited()) put(entry.comment.bytes(), out);
  put(entry.key.bytes(), out);
  ::putc_unlocked('=', out);
  if (!entry.value.inherited()) put(entry.value.bytes(), out);
  ::putc_unlocked('\n', out);
}

void write_header(const Section& section, FILE* out) {
  for (const Remark* remark = section.first_remark; remark != nullptr; remark = remark->next)
    put(remark->text.bytes(), out);
  put(section.comment.bytes(), out);
  ::putc_unlocked('[', out);
  put(section.name.bytes(), out);
  put("]\n", out);
}

}  // namespace

void IniFile::write(FILE* out) const {
  put(header.bytes(), out);
  for (const Section* section = first_; section != nullptr; section = section->next) {
    if (section != first_) write_header(*section, out);
    for (const Entry* latest = section->first; latest != nullptr; latest = latest->next) {
      const Entry* definition = latest;
      while (definition->older != nullptr) definition = definition->older;
      for (; definition != latest; definition = definition->next)
        write_definition(*definition, out);
      write_definition(*latest, out);
    }
  }
  put(trailing.bytes(), out);
}

}  // namespace kel::config

using namespace kel::internal;
using namespace kel::config;

namespace {

constexpr char kSave[] = "inifileSave";
constexpr char kSaveAs[] = "inifileSaveAs";
constexpr char kDoSave[] = "__doSave";
constexpr mode_t kMode = 0640;

/// A path and the terminator; longer ones the kernel does not take either.
using PathBuffer = std::array<char, 4095>;

enum class Step { kNone, kOpen, kWrite, kRename, kPermissions };

/// What went wrong in a save, for a report after the hold.
struct Outcome {
  Step failed = Step::kNone;
  int error = 0;
};

Outcome failed(Step step) noexcept { return {step, errno}; }

[[gnu::format(printf, 2, 3)]] bool format_path(PathBuffer& to, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(to.data(), to.size(), format, args);
  va_end(args);
  return length >= 0 && static_cast<size_t>(length) < to.size();
}

/// Opens a temporary file that nobody else uses: the number in its name starts at the time and
/// moves on where a file of that name is left over or another process saves at the same moment.
UniqueFile open_temporary(const char* path, PathBuffer& name) {
  constexpr int kAttempts = 1000;
  const auto now = static_cast<int>(::time(nullptr));
  for (int i = 0; i < kAttempts; ++i) {
    if (!format_path(name, "%s-%i.sav", path, now + i))
      return fail_quietly(UniqueFile(), ENAMETOOLONG);
    UniqueFd fd(::open(name.data(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
    if (!fd && errno == EEXIST) continue;
    if (!fd) return nullptr;
    UniqueFile out(::fdopen(fd.get(), "wb"));
    if (out)
      fd.release();
    else
      ::unlink(name.data());
    return out;
  }
  return nullptr;
}

bool write_whole(const IniFile& file, UniqueFile out, bool durable) {
  file.write(out.get());
  if (std::ferror(out.get()) != 0 || safe_fflush(out.get()) != 0) return false;
  if (durable && safe_fsync(::fileno(out.get())) != 0) return false;
  return std::fclose(out.release()) == 0;
}

bool copy_file(const char* from, const char* to) {
  const UniqueFd in(::open(from, O_RDONLY | O_CLOEXEC));
  if (!in) return false;
  const UniqueFd out(::open(to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
  if (!out) return false;
  std::array<char, 16384> block;
  for (;;) {
    const Transfer read = transfer_whole(block.size(), [&](size_t done, size_t remaining) {
      return ::read(in.get(), block.data() + done, remaining);
    });
    const Transfer written = transfer_whole(read.done, [&](size_t done, size_t remaining) {
      return ::write(out.get(), block.data() + done, remaining);
    });
    if (read.failed || written.failed || written.done < read.done) break;
    if (read.done < block.size()) return safe_fsync(out.get()) == 0;
  }
  ::unlink(to);
  return false;
}

/// Gives the file its backup name as well, so that there is a file at `path` at every moment. Where
/// hard links are not to be had the backup is a copy. A file that is not there leaves the backup
/// alone; failures are not worth more than having no backup.
bool keep_backup(const char* path, const char* backup) {
  if (::link(path, backup) == 0) return true;
  if (errno == ENOENT) return false;
  ::unlink(backup);
  return ::link(path, backup) == 0 || copy_file(path, backup);
}

void flush_directory(const char* path) {
  PathBuffer directory;
  const char* slash = std::strrchr(path, '/');
  if (slash == nullptr)
    format_path(directory, ".");
  else
    format_path(directory, "%.*s", static_cast<int>(slash - path + 1), path);
  // The new text is in place either way: there is nothing to undo when this fails.
  dirfsync(directory.data(), true);
}

Outcome save_file(const IniFile& file) {
  const CancelGuard whole;
  const char* const path = file.path();
  PathBuffer temporary, backup;
  UniqueFile out = format_path(backup, "%s.bak", path) ? open_temporary(path, temporary)
                                                       : fail_quietly(UniqueFile(), ENAMETOOLONG);
  if (!out) return failed(Step::kOpen);
  if (!write_whole(file, std::move(out), true)) {
    const Outcome outcome = failed(Step::kWrite);
    ::unlink(temporary.data());
    return outcome;
  }
  const bool kept = keep_backup(path, backup.data());
  if (::rename(temporary.data(), path) != 0) {
    const Outcome outcome = failed(Step::kRename);
    if (kept) ::unlink(backup.data());
    ::unlink(temporary.data());
    return outcome;
  }
  flush_directory(path);
  return ::chmod(path, kMode) == 0 ? Outcome() : failed(Step::kPermissions);
}

int report_outcome(const Outcome& outcome, const char* path) {
  const int error = outcome.error;
  switch (outcome.failed) {
    case Step::kOpen:
      return fail(-1, error, "%s: failed to open temporary file", kSave);
    case Step::kWrite:
      report_error(error, "%s: failed to close file %s", kDoSave, path);
      return fail(-1, error, "%s: failed to save temporary file", kSave);
    case Step::kRename:
      return fail(-1, error, "%s: failed to rename file", kSave);
    case Step::kPermissions:
      return fail(-1, error, "%s: failed to set permissions on %s", kSave, path);
    case Step::kNone:
      break;
  }
  return 0;
}

/// The save functions never load a file: 2 with a report when there is no such file.
int fail_unloaded(const char* function, const char* path) {
  if (names_nothing(path)) {
    report_error(EINVAL, "%s: invalid NULL parameter", function);
    return fail_quietly(2, ENOENT);
  }
  return fail(2, ENOENT, "%s: cannot find key", function);
}

int write_to_output(Hold& file) {
  ::flockfile(stdout);
  file->write(stdout);
  ::funlockfile(stdout);
  const bool written = std::ferror(stdout) == 0 && safe_fflush(stdout) == 0;
  file.end();
  return written ? 0 : fail(-1, errno, "%s: failed to close file %s", kDoSave, "(stdout)");
}

int save_as(Hold& file, const char* path, bool overwrite) {
  const CancelGuard whole;
  if (path == nullptr) return write_to_output(file);
  UniqueFile out(std::fopen(path, overwrite ? "wbe" : "wbex"));
  if (!out) {
    file.end();
    return errno == EEXIST ? fail(-1, EEXIST, "%s: file already exists", kSaveAs)
                           : fail(-1, errno, "%s: cannot open file %s", kSaveAs, path);
  }
  const bool written = write_whole(*file, std::move(out), false);
  file.end();
  return written ? 0 : fail(-1, errno, "%s: failed to close file %s", kDoSave, path);
}

/// Saves the first modified file behind `serial`, which moves there; false when there is none.
bool flush_next(uint64_t& serial) {
  std::array<char, PATH_MAX> path;
  Outcome outcome;
  {
    const auto lock = lock_files();
    const IniFile* file = first_file();
    while (file != nullptr && (file->serial <= serial || !file->modified)) file = file->next;
    if (file == nullptr) return false;
    serial = file->serial;
    std::snprintf(path.data(), path.size(), "%s", file->path());
    outcome = save_file(*file);
  }
  report_outcome(outcome, path.data());
  return true;
}

}  // namespace

int InifileSaveA(const char* path) {
  if (names_nothing(path)) return fail_unloaded(__func__, path);
  Hold file(path, Hold::Missing::kLeave);
  const bool loaded{file};
  const Outcome outcome = loaded ? save_file(*file) : Outcome();
  file.end();
  return loaded ? report_outcome(outcome, path) : fail_unloaded(__func__, path);
}

int InifileSaveNewA(const char* path) {
  {
    const Hold file(path, Hold::Missing::kLeave);
    if (file) file->modified = true;
  }
  return InifileSaveA(path);
}

int InifileSaveAsA(const char* path, const char* newPath, int overwrite) {
  if (names_nothing(path)) return fail_unloaded(__func__, path);
  Hold file(path, Hold::Missing::kLeave);
  if (file) return save_as(file, newPath, overwrite != 0);
  file.end();
  return fail_unloaded(__func__, path);
}

int IniFileLoadAndSaveAsA(const char* path, const char* newPath, int overwrite) {
  if (path == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  Hold file(path, Hold::Missing::kLoad);
  return file ? save_as(file, newPath, overwrite != 0) : -1;
}

int InifileFlushAll(void) {
  for (uint64_t serial = 0; flush_next(serial);) {
  }
  return 0;
}
