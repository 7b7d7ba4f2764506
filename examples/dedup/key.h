// The key of a repository, and the key file that protects it. The key file lies outside the
// repository, so that nobody can read what he has only the repository of.
#pragma once

#include <kel/cipher.h>

#include <string>

namespace dedup {

/// The key file of whoever names none; empty when there is no folder for it in the environment.
std::string default_key_file();

/// Makes a key file with a random key, and says so on standard output; leaves one that is there as
/// it is. False after a report.
bool make_key_file(const std::string& path);

/// The key as its repository keeps it: one line, of use with the key file alone. Empty after a
/// report.
std::string protect_key(const KelKey& key, const std::string& key_file);
/// Reads the key from the file at `path` that holds such a line; false after a report.
bool read_key(const std::string& path, const std::string& key_file, KelKey& key);

}  // namespace dedup
