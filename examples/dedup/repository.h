// A repository on disk: its folders, its key, its lock, and the names of what it holds.
#pragma once

#include <kel/cipher.h>
#include <kel/daemon.h>

#include <mutex>
#include <string>
#include <vector>

#include "settings.h"

namespace dedup {

/// A numbered file: a container or a snapshot.
struct NumberedFile {
  uint32_t number;
  std::string path;
};

class Repository {
 public:
  /// `key_file` protects the key.
  Repository(std::string path, std::string key_file)
      : path_(std::move(path)), key_file_(std::move(key_file)) {}
  ~Repository() { key_.AssignZero(); }

  /// Opens an existing repository for reading. Needs no lock: files appear whole and stay.
  bool open();
  /// Opens or makes the repository for the one process that may store, waiting for another to end,
  /// and removes what an interrupted one left behind. `wanted` is for one that is made; one that is
  /// there keeps what it has, which is said when something else than the usual was wanted.
  bool open_for_store(const Settings& wanted);

  /// Takes the lock and makes the folders of a repository of which nothing but the key has to be
  /// there yet. What is there has to belong to the key.
  bool open_for_fetch();

  /// In the order of their numbers; what is not named like one is ignored.
  bool list_containers(std::vector<NumberedFile>& files) const;
  bool list_snapshots(std::vector<NumberedFile>& files) const;

  /// What a copy needs beside the key, by paths in the repository: containers, snapshots, and what
  /// makes it a repository. All that comes before a kind has to be there before it appears.
  static constexpr size_t kCopiedKinds = 3;
  bool list_copied(std::vector<std::vector<std::string>>& kinds) const;
  /// The kind of a path; kCopiedKinds for one that is not copied.
  static size_t copied_kind(const std::string& name);

  /// Finds the snapshot "latest" or of a number; false after a report.
  bool find_snapshot(const std::string& wanted, NumberedFile& file) const;

  std::string containers() const { return path_ + "/containers"; }
  std::string snapshots() const { return path_ + "/snapshots"; }
  std::string temporaries() const { return path_ + "/tmp"; }
  const std::string& path() const { return path_; }
  const KelKey& key() const { return key_; }
  /// Tells one key from another, and nothing about it.
  std::string key_id() const;
  const Settings& settings() const { return settings_; }

  static std::string container_name(uint32_t number);
  static std::string snapshot_name(uint32_t number);

 private:
  bool make(const Settings& wanted);
  bool make_folders();
  bool lock();
  bool load_key();
  bool make_key();
  bool write_settings_file(const Settings& wanted);
  void compare_settings(const Settings& wanted) const;
  bool clean_temporaries();
  bool write_small_file(const std::string& name, const std::string& text);
  std::string key_path() const { return path_ + "/key"; }
  std::string settings_path() const;

  std::string path_;
  std::string key_file_;
  std::mutex mutex_;
  KelFileLock lock_{mutex_};
  KelKey key_;
  Settings settings_;
};

}  // namespace dedup
