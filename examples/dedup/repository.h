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

  /// In the order of their numbers; what is not named like one is ignored.
  bool list_containers(std::vector<NumberedFile>& files) const;
  bool list_snapshots(std::vector<NumberedFile>& files) const;

  /// Finds the snapshot "latest" or of a number; false after a report.
  bool find_snapshot(const std::string& wanted, NumberedFile& file) const;

  std::string containers() const { return path_ + "/containers"; }
  std::string snapshots() const { return path_ + "/snapshots"; }
  std::string temporaries() const { return path_ + "/tmp"; }
  const std::string& path() const { return path_; }
  const KelKey& key() const { return key_; }
  const Settings& settings() const { return settings_; }

  static std::string container_name(uint32_t number);
  static std::string snapshot_name(uint32_t number);

 private:
  bool make(const Settings& wanted);
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
