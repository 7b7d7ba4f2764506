// The layout of a repository:
//
//   settings.ini  version, chunk size, compression, and which key
//   key           the key, protected by a key file elsewhere
//   lock          locked by the process that stores
//   last-container, index  the last number of a container, and where chunks are
//   containers    chunks
//   snapshots     catalogues
//   tmp           files that are being written
#include "repository.h"

#include <kel/digest.h>
#include <kel/logging.h>
#include <kel/path.h>
#include <kel/safeio.h>
#include <kel/text.h>

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "descriptor.h"
#include "fingerprint.h"
#include "key.h"
#include "walk.h"

namespace dedup {
namespace {

constexpr char kSettings[] = "settings.ini";
constexpr const char* kFolders[] = {"containers", "snapshots", "tmp"};
constexpr const char* kFiles[] = {kSettings, "index", "key", "last-container", "lock"};
constexpr char kContainers[] = "containers/";
constexpr char kSnapshots[] = "snapshots/";
constexpr char kContainerSuffix[] = ".kdc";
constexpr char kSnapshotSuffix[] = ".kds";
constexpr size_t kDigits = 8;

/// Tells one key from another, and nothing about it.
std::string id_of(const KelKey& key) {
  return text_of(fingerprint_of({key.Bytes(), KelKey::kLength})).substr(0, 16);
}

/// Whether a file, which need not be there, lies in a folder or below it.
bool lies_in(const std::string& file, const std::string& folder) {
  std::error_code problem;
  const auto from = std::filesystem::weakly_canonical(folder, problem);
  const auto way = std::filesystem::weakly_canonical(file, problem).lexically_relative(from);
  return !way.empty() && *way.begin() != "..";
}

std::string numbered_name(uint32_t number, const char* suffix) {
  char name[32];
  std::snprintf(name, sizeof name, "%0*u%s", static_cast<int>(kDigits), number, suffix);
  return name;
}

/// The number in a name that numbered_name() makes; 0 for any other name.
uint32_t number_of(const std::string& name, const char* suffix) {
  uint32_t number = 0;
  std::from_chars(name.data(), name.data() + name.size(), number);
  return number != 0 && name == numbered_name(number, suffix) ? number : 0;
}

bool list(const std::string& folder, std::vector<std::string>& names) {
  if (list_names(folder, names)) return true;
  ErrorA(errno, "could not list %s: %s", folder.c_str(), std::strerror(errno));
  return false;
}

bool list_numbered(const std::string& folder, const char* suffix,
                   std::vector<NumberedFile>& files) {
  std::vector<std::string> names;
  if (!list(folder, names)) return false;
  for (const std::string& name : names)
    if (const uint32_t number = number_of(name, suffix))
      files.push_back({number, std::string(folder).append("/").append(name)});
  std::sort(files.begin(), files.end(),
            [](const auto& a, const auto& b) { return a.number < b.number; });
  return true;
}

/// Whether that is something that make() makes: where all is, a repository could be made, possibly
/// for the second time after an interruption.
bool is_known(const std::string& name) {
  return std::find(std::begin(kFolders), std::end(kFolders), name) != std::end(kFolders) ||
         std::find(std::begin(kFiles), std::end(kFiles), name) != std::end(kFiles);
}

}  // namespace

std::string Repository::container_name(uint32_t number) {
  return numbered_name(number, kContainerSuffix);
}

std::string Repository::snapshot_name(uint32_t number) {
  return numbered_name(number, kSnapshotSuffix);
}

bool Repository::list_containers(std::vector<NumberedFile>& files) const {
  return list_numbered(containers(), kContainerSuffix, files);
}

bool Repository::list_snapshots(std::vector<NumberedFile>& files) const {
  return list_numbered(snapshots(), kSnapshotSuffix, files);
}

bool Repository::list_copied(std::vector<std::vector<std::string>>& kinds) const {
  std::vector<NumberedFile> containers;
  std::vector<NumberedFile> snapshots;
  if (!list_containers(containers) || !list_snapshots(snapshots)) return false;
  kinds.assign(kCopiedKinds, {});
  for (const NumberedFile& file : containers)
    kinds[0].push_back(kContainers + container_name(file.number));
  for (const NumberedFile& file : snapshots)
    kinds[1].push_back(kSnapshots + snapshot_name(file.number));
  kinds[2].emplace_back(kSettings);
  return true;
}

size_t Repository::copied_kind(const std::string& name) {
  const auto is_in = [&name](const std::string& folder, const char* suffix) {
    return name.starts_with(folder) && number_of(name.substr(folder.size()), suffix) != 0;
  };
  if (is_in(kContainers, kContainerSuffix)) return 0;
  if (is_in(kSnapshots, kSnapshotSuffix)) return 1;
  return name == kSettings ? 2 : kCopiedKinds;
}

std::string Repository::key_id() const { return id_of(key_); }

bool Repository::find_snapshot(const std::string& wanted, NumberedFile& file) const {
  std::vector<NumberedFile> files;
  if (!list_snapshots(files)) return false;
  uint32_t number = 0;
  const char* end = wanted.data() + wanted.size();
  if (wanted == "latest" && !files.empty())
    number = files.back().number;
  else if (std::from_chars(wanted.data(), end, number).ptr != end)
    number = 0;
  for (const NumberedFile& candidate : files) {
    if (candidate.number != number) continue;
    file = candidate;
    return true;
  }
  ErrorA(ENOENT, "%s has no snapshot %s; 'kel-dedup list %s' shows those that are there",
         path_.c_str(), wanted.c_str(), path_.c_str());
  return false;
}

std::string Repository::settings_path() const { return path_ + "/" + kSettings; }

bool Repository::open() {
  std::string key_id;
  if (!read_settings(settings_path(), settings_, key_id) || !load_key()) return false;
  if (key_id == id_of(key_)) return true;
  ErrorA(EINVAL, "%s and %s do not belong together; bring back the right ones", key_path().c_str(),
         settings_path().c_str());
  return false;
}

bool Repository::open_for_store(const Settings& wanted) {
  std::vector<std::string> names;
  if (CreateDirA(path_.c_str(), 0700) == 0) {
    ErrorA(errno, "could not make the repository %s: %s", path_.c_str(), std::strerror(errno));
    return false;
  }
  dirfsync((path_ + "/..").c_str(), true);
  if (!list(path_, names)) return false;
  if (!std::all_of(names.begin(), names.end(), is_known) &&
      ::access(settings_path().c_str(), F_OK) != 0) {
    ErrorA(errno, "%s holds other things than a repository; name a new or empty folder",
           path_.c_str());
    return false;
  }
  if (!lock() || !make(wanted) || !open() || !clean_temporaries()) return false;
  compare_settings(wanted);
  return true;
}

bool Repository::lock() {
  const std::string path = path_ + "/lock";
  {
    // Tells at once what a wait would not.
    const Descriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    struct flock held {};
    held.l_type = F_WRLCK;
    if (!file || ::fcntl(file.get(), F_GETLK, &held) != 0) {
      ErrorA(errno, "could not lock %s: %s", path.c_str(), std::strerror(errno));
      return false;
    }
    if (held.l_type != F_UNLCK)
      WarningA(-1, "another store is running on %s (process %ld); waiting until it has ended",
               path_.c_str(), static_cast<long>(held.l_pid));
  }
  return lock_.Lock(path);
}

/// Makes what is missing; the settings come last and say that all the rest is there.
bool Repository::make(const Settings& wanted) {
  if (::access(settings_path().c_str(), F_OK) == 0) return true;
  if (!make_folders()) return false;
  std::vector<NumberedFile> files;
  if (!list_containers(files) || !list_snapshots(files)) return false;
  if (!files.empty()) {
    ErrorA(ENOENT, "%s is missing from a repository that is in use; bring it back",
           settings_path().c_str());
    return false;
  }
  return make_key() && write_settings_file(wanted);
}

bool Repository::make_folders() {
  for (const char* folder : kFolders) {
    const std::string path = path_ + "/" + folder;
    if (CreateDirA(path.c_str(), 0700) == 0) {
      ErrorA(errno, "could not make %s: %s", path.c_str(), std::strerror(errno));
      return false;
    }
  }
  return true;
}

bool Repository::open_for_fetch() {
  const bool is_made = ::access(settings_path().c_str(), F_OK) == 0;
  return (is_made ? open() : load_key()) && lock() && make_folders() && clean_temporaries();
}

bool Repository::write_small_file(const std::string& name, const std::string& text) {
  const std::string temporary = temporaries() + "/" + name;
  const std::string path = path_ + "/" + name;
  const Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (file &&
      safe_pwrite(file.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
      safe_fsync(file.get()) == 0 &&
      rename_dirfsync(temporary.c_str(), path.c_str(), path_.c_str(), true) == 0)
    return true;
  ErrorA(errno, "could not write %s: %s", path.c_str(), std::strerror(errno));
  return false;
}

bool Repository::make_key() {
  if (::access(key_path().c_str(), F_OK) == 0) return load_key();
  if (lies_in(key_file_, path_)) {
    ErrorA(EINVAL,
           "the key file %s lies in the repository, where it protects nothing; name another place "
           "with --key-file",
           key_file_.c_str());
    return false;
  }
  if (!make_key_file(key_file_)) return false;
  key_ = KelKey::NewKey(nullptr);
  const std::string text = protect_key(key_, key_file_);
  return !text.empty() && write_small_file("key", text);
}

bool Repository::load_key() { return read_key(key_path(), key_file_, key_); }

/// As write_small_file(); what an interrupted save left is in the folder that is cleaned.
bool Repository::write_settings_file(const Settings& wanted) {
  const std::string temporary = temporaries() + "/" + kSettings;
  return write_settings(temporary, wanted, id_of(key_)) &&
         rename_dirfsync(temporary.c_str(), settings_path().c_str(), path_.c_str(), false) == 0;
}

void Repository::compare_settings(const Settings& wanted) const {
  const Settings usual;
  const auto differs = [&](auto Settings::*setting) {
    return wanted.*setting != settings_.*setting && wanted.*setting != usual.*setting;
  };
  if (!differs(&Settings::chunk_size) && !differs(&Settings::compression)) return;
  char size[KEL_SIZE_TEXT];
  WarningA(-1, "%s keeps the chunk size %s and the compression %s that it was made with",
           path_.c_str(), sizetostr(size, sizeof size, settings_.chunk_size),
           compression_name(settings_.compression));
}

bool Repository::clean_temporaries() {
  std::vector<std::string> names;
  if (!list(temporaries(), names)) return false;
  for (const std::string& name : names)
    if (DeleteTreeA((temporaries() + "/" + name).c_str()) == 0 && errno != ENOENT) return false;
  return true;
}

}  // namespace dedup
