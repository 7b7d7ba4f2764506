// A walk over a tree of files: a folder before what is in it, names in byte order.
#pragma once

#include <string>
#include <vector>

#include "catalogue.h"

struct stat;

namespace dedup {

/// Told what a walk finds. False from a member ends the walk.
class WalkVisitor {
 public:
  virtual bool folder(const Entry& entry) = 0;
  virtual bool link(const Entry& entry) = 0;
  /// A regular file `name` in the open folder; the visitor opens it itself.
  virtual bool file(const Entry& entry, int folder, const std::string& name) = 0;
  /// An entry at `path`, below the root, could not be read for the reason `error`.
  virtual bool problem(const std::string& path, int error) = 0;
  /// An entry is of no kind that is kept: it "is ...".
  virtual bool left_out(const std::string& path, const char* why) = 0;

 protected:
  ~WalkVisitor() = default;
};

/// Visits the folder `root` and all below it, except the folder `excluded` with all in it. False
/// when the visitor ended the walk. What is found goes by the open folder that holds it, so that no
/// path is too long and no link leads elsewhere; that needs a descriptor for each level.
bool walk(const std::string& root, const struct stat& excluded, WalkVisitor& visitor);

/// What is kept of a file of that status.
Entry entry_of(std::string path, const struct stat& status);

/// The names in a folder; false with errno when they cannot be read.
bool list_names(const std::string& folder, std::vector<std::string>& names);

}  // namespace dedup
