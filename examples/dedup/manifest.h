// What a remote holds, as its last file says: it is written when all that it names is there.
#pragma once

#include <kel/cipher.h>

#include <cstdint>
#include <map>
#include <string>

#include "fingerprint.h"

namespace dedup {

class Manifest {
 public:
  struct File {
    uint64_t size;
    Fingerprint fingerprint;
  };

  static constexpr char kName[] = "manifest.json";

  /// Reads the text of a manifest; null, or what is wrong with it. `key_id` tells the key that the
  /// repository has to have.
  const char* parse(Bytes text, const KelKey& key, const std::string& key_id);
  /// The text, or nothing without memory for it.
  std::string text(const KelKey& key, const std::string& key_id) const;

  std::map<std::string, File> files;  ///< by their paths in the repository

 private:
  Fingerprint seal(const KelKey& key) const;
};

}  // namespace dedup
