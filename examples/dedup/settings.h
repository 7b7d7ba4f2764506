// What a repository is made with, and its file: an INI file, written once and whole.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace dedup {

enum class Compression { kLzo, kZlib, kNone };

struct Settings {
  /// The size that most chunks come near to; other chunks would be found again in no other
  /// snapshot, so that it stays.
  uint32_t chunk_size = uint32_t{16} << 10;
  Compression compression = Compression::kLzo;
};

/// Whether the size is a power of two from 1 KiB to 1 MiB.
bool is_chunk_size(uint64_t size);
const char* compression_name(Compression compression);
/// The compression of that name; nothing, after a report, when there is none.
std::optional<Compression> find_compression(std::string_view name);

/// Reads the file of a repository; `key_id` tells which key belongs to it. False after a report.
bool read_settings(const std::string& path, Settings& settings, std::string& key_id);
/// Writes it as a new file; false after a report.
bool write_settings(const std::string& path, const Settings& settings, const std::string& key_id);

}  // namespace dedup
