#include "remote.h"

#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base64.h"
#include "descriptor.h"
#include "manifest.h"
#include "progress.h"
#include "publish.h"
#include "remote_folder.h"
#include "text.h"

namespace dedup {
namespace {

/// The whole of a file; false after a report.
bool read_file(const std::string& path, std::string& text) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (file && ::fstat(file.get(), &status) == 0) {
    text.resize(static_cast<size_t>(status.st_size));
    const ssize_t count = safe_pread(file.get(), text.data(), text.size(), 0);
    if (count == status.st_size) return true;
    if (count >= 0) errno = EIO;
  }
  ErrorA(errno, "could not read %s: %s", path.c_str(), std::strerror(errno));
  return false;
}

/// Reads the manifest; a remote without one is empty.
RemoteFolder::Found read_manifest(RemoteFolder& remote, const Repository& repository,
                                  Manifest& manifest) {
  using Found = RemoteFolder::Found;
  const Found found = remote.get(Manifest::kName);
  if (found != Found::kYes) return found;
  const char* problem = manifest.parse(remote.body(), repository.key(), repository.key_id());
  if (problem == nullptr) return Found::kYes;
  ErrorA(EINVAL, "%s %s; look at --remote", remote.url_of(Manifest::kName).c_str(), problem);
  return Found::kFailed;
}

class Push {
 public:
  Push(const Repository& repository, const Options& options)
      : repository_(repository), remote_(options.remote), progress_("pushing", options.quiet) {}

  bool run();
  void print_summary();

 private:
  bool push_files(const std::vector<std::string>& names);
  bool push_file(const std::string& name);
  bool is_same(const std::string& name, bool by_content);

  const Repository& repository_;
  RemoteFolder remote_;
  Manifest manifest_;
  Progress progress_;
  std::string body_;
  bool has_manifest_ = false;
  /// Whether a container may be there that the manifest does not name. It begins with the seal of
  /// its table, so that the first bytes tell it from any other.
  bool may_be_there_ = true;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
};

bool Push::run() {
  if (!remote_.open()) return false;
  const auto found = read_manifest(remote_, repository_, manifest_);
  if (found == RemoteFolder::Found::kFailed) return false;
  has_manifest_ = found == RemoteFolder::Found::kYes;
  const size_t known = manifest_.files.size();
  std::vector<std::vector<std::string>> kinds;
  if (!repository_.list_copied(kinds)) return false;
  for (const auto& names : kinds)
    if (!push_files(names)) return false;
  if (manifest_.files.size() == known) return true;
  const std::string text = manifest_.text(repository_.key(), repository_.key_id());
  return !text.empty() && remote_.put(Manifest::kName, text);
}

/// Pushes those of one kind, in the order of their numbers, that the manifest does not name.
bool Push::push_files(const std::vector<std::string>& names) {
  const std::string* last_known = nullptr;
  for (const std::string& name : names) {
    if (!manifest_.files.contains(name)) continue;
    if (!is_same(name, false)) return false;
    last_known = &name;
  }
  // Repositories that went different ways from the same beginning differ in the last number that
  // both have.
  if (last_known != nullptr && !is_same(*last_known, true)) return false;
  return std::all_of(names.begin(), names.end(), [this](const std::string& name) {
    return manifest_.files.contains(name) || push_file(name);
  });
}

/// Whether a file here is the one of the manifest, by its size or by all of it; false after a
/// report.
bool Push::is_same(const std::string& name, bool by_content) {
  const Manifest::File& known = manifest_.files.at(name);
  const std::string path = repository_.path() + "/" + name;
  struct stat status;
  bool same =
      ::stat(path.c_str(), &status) == 0 && static_cast<uint64_t>(status.st_size) == known.size;
  if (same && by_content)
    same = read_file(path, body_) && fingerprint_of(bytes_of(body_)) == known.fingerprint;
  if (!same)
    ErrorA(EINVAL,
           "%s differs from %s; verify the repository: if it is damaged move the file away and "
           "fetch it with 'verify', else name another remote",
           path.c_str(), remote_.url_of(name).c_str());
  return same;
}

bool Push::push_file(const std::string& name) {
  if (!read_file(repository_.path() + "/" + name, body_)) return false;
  const Manifest::File file{body_.size(), fingerprint_of(bytes_of(body_))};
  bool is_there = false;
  if (may_be_there_ && Repository::copied_kind(name) == 0) {
    // From a push that was interrupted.
    uint64_t size = 0;
    const auto found = remote_.get_start(name, size);
    if (found == RemoteFolder::Found::kFailed) return false;
    is_there = found == RemoteFolder::Found::kYes && size == file.size &&
               body_.starts_with(remote_.text());
    // Pushes keep to their order: behind one that is missing there is none. Without a manifest
    // somebody may have taken single files away.
    may_be_there_ = is_there || !has_manifest_;
  }
  if (!is_there) {
    if (!remote_.put(name, body_)) return false;
    ++files_;
    bytes_ += file.size;
    progress_.add_file();
    progress_.add_bytes(file.size);
  }
  manifest_.files.emplace(name, file);
  return true;
}

void Push::print_summary() {
  progress_.clear();
  std::printf("%-10s %12lu  %12s\n", "pushed", static_cast<unsigned long>(files_),
              size_text(bytes_).c_str());
}

class Fetch {
 public:
  Fetch(const Repository& repository, const Options& options)
      : repository_(repository), remote_(options.remote), progress_("fetching", options.quiet) {}

  Fetched run();

 private:
  Fetched fetch_file(const std::string& name, const Manifest::File& file);
  bool write(const std::string& name);

  const Repository& repository_;
  RemoteFolder remote_;
  Progress progress_;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
};

Fetched Fetch::run() {
  using Found = RemoteFolder::Found;
  Manifest manifest;
  if (!remote_.open()) return Fetched::kFailed;
  const Found found = read_manifest(remote_, repository_, manifest);
  if (found == Found::kNo)
    ErrorA(ENOENT, "there is no repository at %s; look at --remote", remote_.url_of("").c_str());
  if (found != Found::kYes) return Fetched::kFailed;
  Fetched result = Fetched::kAll;
  for (size_t kind = 0; kind < Repository::kCopiedKinds; ++kind) {
    for (const auto& [name, file] : manifest.files) {
      if (Repository::copied_kind(name) != kind ||
          ::access((repository_.path() + "/" + name).c_str(), F_OK) == 0)
        continue;
      const Fetched one = fetch_file(name, file);
      if (one == Fetched::kFailed) return one;
      if (one == Fetched::kNotAll) result = one;
    }
  }
  progress_.clear();
  InfoA(-1, "fetched %lu files, %s, from %s", static_cast<unsigned long>(files_),
        size_text(bytes_).c_str(), remote_.url_of("").c_str());
  return result;
}

Fetched Fetch::fetch_file(const std::string& name, const Manifest::File& file) {
  const auto found = remote_.get(name);
  if (found == RemoteFolder::Found::kFailed) return Fetched::kFailed;
  if (found == RemoteFolder::Found::kNo || remote_.body().size() != file.size ||
      fingerprint_of(remote_.body()) != file.fingerprint) {
    progress_.clear();
    ErrorA(EIO,
           "%s is missing or damaged; where the repository is whole, remove that file and %s from "
           "the server and store with --remote again",
           remote_.url_of(name).c_str(), Manifest::kName);
    return Fetched::kNotAll;
  }
  if (!write(name)) return Fetched::kFailed;
  ++files_;
  bytes_ += file.size;
  progress_.add_file();
  progress_.add_bytes(file.size);
  return Fetched::kAll;
}

/// Writes what was fetched to where it belongs.
bool Fetch::write(const std::string& name) {
  const size_t slash = name.rfind('/');
  const std::string folder = slash == std::string::npos
                                 ? repository_.path()
                                 : repository_.path() + "/" + name.substr(0, slash);
  const std::string temporary = repository_.temporaries() + "/" +
                                (slash == std::string::npos ? name : name.substr(slash + 1));
  const Bytes body = remote_.body();
  const Descriptor file(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file ||
      safe_pwrite(file.get(), body.data(), body.size(), 0) != static_cast<ssize_t>(body.size())) {
    ErrorA(errno, "could not write %s: %s; make room and try again", temporary.c_str(),
           std::strerror(errno));
    return false;
  }
  return publish(file.get(), temporary, folder);
}

}  // namespace

bool push(const Repository& repository, const Options& options) {
  if (options.remote.url.empty()) return true;
  Push pushing(repository, options);
  const bool pushed = pushing.run();
  pushing.print_summary();
  if (!pushed) ErrorA(-1, "the remote is not complete; the next store goes on with it");
  return pushed;
}

Fetched fetch(const std::string& path, const Options& options) {
  if (options.remote.url.empty()) return Fetched::kAll;
  Repository repository(path, options.key_file);
  if (!repository.open_for_fetch()) return Fetched::kFailed;
  return Fetch(repository, options).run();
}

}  // namespace dedup
