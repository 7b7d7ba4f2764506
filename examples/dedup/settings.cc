#include "settings.h"

#include <kel/inifile.h>
#include <kel/logging.h>

#include <fcntl.h>
#include <unistd.h>

#include <bit>
#include <cerrno>
#include <cstring>

#include "chunker.h"
#include "descriptor.h"

namespace dedup {
namespace {

constexpr char kSection[] = "Repository";
constexpr char kVersion[] = "Version";
constexpr char kKey[] = "Key";
constexpr char kChunkSize[] = "ChunkSize";
constexpr char kCompression[] = "Compression";
constexpr int kThisVersion = 2;

constexpr struct {
  const char* name;
  Compression compression;
} kCompressions[] = {
    {"lzo", Compression::kLzo}, {"zlib", Compression::kZlib}, {"none", Compression::kNone}};

/// An INI file in memory; forgotten at the end, so that the next reader sees what is on disk.
class LoadedFile {
 public:
  explicit LoadedFile(const std::string& path) : path_(path.c_str()) { InifileReleaseA(path_); }
  ~LoadedFile() { InifileReleaseA(path_); }
  LoadedFile(const LoadedFile&) = delete;
  LoadedFile& operator=(const LoadedFile&) = delete;

  std::string text(const char* key) const {
    char text[256];
    InifileGetValueA(kSection, key, text, sizeof text, "", path_);
    return text;
  }
  void set_text(const char* key, const char* text) const {
    InifileSaveValueA(kSection, key, text, path_);
  }
  const char* path() const { return path_; }

 private:
  const char* path_;
};

}  // namespace

bool is_chunk_size(uint64_t size) {
  return size >= kSmallestUsualChunk && size <= kLargestUsualChunk && std::has_single_bit(size);
}

const char* compression_name(Compression compression) {
  for (const auto& [name, known] : kCompressions)
    if (known == compression) return name;
  return "?";
}

std::optional<Compression> find_compression(std::string_view name) {
  for (const auto& [known, compression] : kCompressions)
    if (name == known) return compression;
  ErrorA(EINVAL, "'%.*s' is no compression; there are lzo, zlib and none",
         static_cast<int>(name.size()), name.data());
  return std::nullopt;
}

bool read_settings(const std::string& path, Settings& settings, std::string& key_id) {
  if (::access(path.c_str(), R_OK) != 0) {
    ErrorA(errno, "there is no repository: %s: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  const LoadedFile file(path);
  int version = 0;
  InifileGetIntegerA(kSection, kVersion, &version, 0, file.path());
  if (version != kThisVersion) {
    ErrorA(EINVAL, "%s is damaged or of another version; this program reads version %d",
           path.c_str(), kThisVersion);
    return false;
  }
  unsigned long size = 0;
  const bool is_number =
      InifileGetSizeA(kSection, kChunkSize, &size, 0, file.path()) > 0 && is_chunk_size(size);
  if (!is_number) {
    InifileErrorA(file.path(), kSection, kChunkSize, file.text(kChunkSize).c_str(),
                  "not a power of two from 1KiB to 1MiB");
    return false;
  }
  const auto compression = find_compression(file.text(kCompression));
  if (!compression) return false;
  settings = {static_cast<uint32_t>(size), *compression};
  key_id = file.text(kKey);
  return true;
}

bool write_settings(const std::string& path, const Settings& settings, const std::string& key_id) {
  // Empty at first: a file that is not there would be warned about.
  if (!Descriptor(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600))) {
    ErrorA(errno, "could not create %s: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  const LoadedFile file(path);
  InifileSaveIntegerA(kSection, kVersion, kThisVersion, file.path());
  file.set_text(kKey, key_id.c_str());
  InifileSaveSizeA(kSection, kChunkSize, settings.chunk_size, file.path());
  file.set_text(kCompression, compression_name(settings.compression));
  InifileSaveCommentA(kSection, nullptr,
                      "# Belongs to the chunks that are here: do not change or remove.",
                      file.path());
  if (InifileSaveA(file.path()) == 0) return true;
  ErrorA(errno, "could not write %s: %s", path.c_str(), std::strerror(errno));
  return false;
}

}  // namespace dedup
