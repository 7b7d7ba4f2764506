// A walk over a tree of files: a folder before what is in it, names in byte order.
#pragma once

#include <string>

#include "catalogue.h"

struct stat;

namespace dedup {

/// Told what a walk finds. False from a member ends the walk.
class WalkVisitor {
 public:
  virtual bool folder(const Entry& entry) = 0;
  virtual bool link(const Entry& entry) = 0;
  /// A regular file at `path`; the visitor opens it itself.
  virtual bool file(const Entry& entry, const std::string& path) = 0;
  /// Something could not be read, which was reported; the walk goes on.
  virtual void problem() = 0;

 protected:
  ~WalkVisitor() = default;
};

/// Visits the folder `root` and all below it, except the folder `excluded` with all in it. False
/// when the visitor ended the walk.
bool walk(const std::string& root, const struct stat& excluded, WalkVisitor& visitor);

/// What is kept of a file of that status.
Entry entry_of(std::string path, const struct stat& status);

}  // namespace dedup
