#include "config/ini_cache.h"

#include <kel/inifile.h>

#include "config/folded_names.h"
#include "frame/stop_hook.h"
#include "internal/report.h"

namespace kel::config {
namespace {

using namespace kel::internal;

// Never destroyed: a static object of the program may use files until the very end.
constinit std::mutex inilock;

struct LoadedFiles {
  IniFile* first = nullptr;
  IniFile* last = nullptr;
  IniFile* recent = nullptr;   ///< the one that was asked for last; may be null
  HashIndex<IniFile> index;    ///< by path; folded, like all hashes here, but compared as it is
  std::uint64_t serials = 0;   ///< given out so far
  std::uint64_t releases = 0;  ///< files forgotten so far
};
constinit LoadedFiles loadedSpecs;

auto has_path(std::string_view path) noexcept {
  return [path](const IniFile& file) { return file.path() == path; };
}

IniFile* find_file(std::string_view path, std::uint64_t hash) noexcept {
  return loadedSpecs.index.find(hash, has_path(path));
}

/// Takes a file over; null, with errno, when the index cannot grow.
IniFile* add_file(std::unique_ptr<IniFile> loaded, std::uint64_t hash) noexcept {
  if (!loadedSpecs.index.reserve()) return nullptr;
  set_stop_hook([] { InifileReleaseAll(); });
  IniFile* const file = loaded.release();
  file->serial = ++loadedSpecs.serials;
  file->previous = loadedSpecs.last;
  (file->previous != nullptr ? file->previous->next : loadedSpecs.first) = file;
  loadedSpecs.last = file;
  loadedSpecs.index.put(loadedSpecs.index.probe(hash, has_path(file->path())), hash, file);
  return file;
}

std::unique_ptr<IniFile> take_file(IniFile& file) noexcept {
  loadedSpecs.index.erase(loadedSpecs.index.probe(folded_hash(file.path(), hash_seed()),
                                                  [&](const IniFile& f) { return &f == &file; }));
  (file.previous != nullptr ? file.previous->next : loadedSpecs.first) = file.next;
  (file.next != nullptr ? file.next->previous : loadedSpecs.last) = file.previous;
  loadedSpecs.recent = nullptr;
  ++loadedSpecs.releases;
  return std::unique_ptr<IniFile>(&file);
}

IniFile* take_all() noexcept {
  const std::lock_guard lock(inilock);
  loadedSpecs.index.release();
  ++loadedSpecs.releases;
  loadedSpecs.last = nullptr;
  loadedSpecs.recent = nullptr;
  return std::exchange(loadedSpecs.first, nullptr);
}

}  // namespace

Hold::Hold(const char* path, Missing missing) : lock_(inilock) {
  if (path == nullptr) return;
  file_ = loadedSpecs.recent;
  if (file_ != nullptr && std::strcmp(file_->path(), path) == 0) return;
  find_or_load(path, missing);
  loadedSpecs.recent = file_;
}

void Hold::find_or_load(const char* path, Missing missing) {
  const std::uint64_t hash = folded_hash(path, hash_seed());
  for (;;) {
    file_ = find_file(path, hash);
    if (file_ != nullptr || missing == Missing::kLeave) return;
    const std::uint64_t releases = loadedSpecs.releases;
    lock_.unlock();
    std::unique_ptr<IniFile> loaded = load_file(path);
    lock_.lock();
    if (!loaded) return;
    // Another thread may have loaded the file meanwhile; if it also changed, saved and released
    // it, what was read here may be out of date.
    file_ = find_file(path, hash);
    if (file_ != nullptr) return;
    if (releases != loadedSpecs.releases) continue;
    file_ = add_file(std::move(loaded), hash);
    if (file_ == nullptr) report_unlocked();
    return;
  }
}

void Hold::report_unlocked() {
  lock_.unlock();
  fail_allocation(0, sizeof(IniFile), "InifileLoadA");
  lock_.lock();
}

std::unique_lock<std::mutex> lock_files() { return std::unique_lock(inilock); }

IniFile* first_file() noexcept { return loadedSpecs.first; }

}  // namespace kel::config

using namespace kel::config;

int InifileLoadA(const char* path) {
  if (path == nullptr)
    return kel::internal::fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  return Hold(path, Hold::Missing::kLoad) ? 0 : -1;
}

int InifileReleaseA(const char* path) {
  std::unique_ptr<IniFile> released;  // freed when the hold is over
  const Hold file(path, Hold::Missing::kLeave);
  if (!file) return 0;
  released = take_file(*file);
  return 1;
}

int InifileReleaseAll(void) {
  for (IniFile* file = take_all(); file != nullptr;) {
    const std::unique_ptr<IniFile> released(file);
    file = file->next;
  }
  return 0;
}
