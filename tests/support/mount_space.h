// Small file systems that only this process sees.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace kel::testing {

/// Mounts in a mount namespace of this process's own, gone with the object.
class MountSpace {
 public:
  MountSpace() {
    static const bool made = ::unshare(CLONE_NEWNS) == 0 &&
                             ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    allowed_ = made;
  }
  ~MountSpace() {
    for (const std::string& path : mounted_) ::umount2(path.c_str(), MNT_DETACH);
  }
  MountSpace(const MountSpace&) = delete;
  MountSpace& operator=(const MountSpace&) = delete;

  /// False where the process may not mount.
  bool allowed() const { return allowed_; }

  /// A file system in memory of `size` ("64k") at a new folder.
  void memory(const std::string& path, const std::string& size) {
    put("tmpfs", path, "tmpfs", 0, ("size=" + size).c_str());
  }
  /// A second way to `folder`, at a new one.
  void bind(const std::string& folder, const std::string& path) {
    put(folder.c_str(), path, nullptr, MS_BIND, nullptr);
  }

 private:
  void put(const char* what, const std::string& path, const char* type, unsigned long flags,
           const char* options) {
    std::filesystem::create_directory(path);
    if (::mount(what, path.c_str(), type, flags, options) == 0)
      mounted_.push_back(path);
    else
      ADD_FAILURE() << "cannot mount " << path << ": " << std::strerror(errno);
  }

  bool allowed_;
  std::vector<std::string> mounted_;
};

}  // namespace kel::testing
