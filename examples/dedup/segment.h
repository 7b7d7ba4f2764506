// Segments, what all files of a repository consist of: an archive stream (AES-256-CTR, compressed
// as the repository is) and the seal that tells whether it is the right one for its place.
#pragma once

#include <kel/cipher.h>

#include <optional>
#include <string>
#include <vector>

#include "fingerprint.h"
#include "settings.h"

namespace dedup {

/// What a segment holds; the first four bytes of its payload.
enum class Tag : uint32_t {
  kTable = 0x5441424c,    // "TABL": the chunks of a container
  kData = 0x44415441,     // "DATA": their bytes
  kEntries = 0x454e5452,  // "ENTR": part of a catalogue
  kSummary = 0x53554d4d,  // "SUMM": its last segment
};

inline constexpr size_t kTagSize = 4;
/// No payload is larger; a segment that announces more is damaged.
inline constexpr uint64_t kLargestPayload = uint64_t{16} << 20;

struct Segment {
  uint64_t payload;  ///< its size before compression
  Fingerprint seal;
  Bytes stream;
};

/// The seal of a segment in the file `path`, of which the name alone counts. `place` tells it from
/// all others there.
Fingerprint seal_of(const KelKey& key, const std::string& path, uint64_t place, Bytes stream,
                    uint64_t payload);

class SegmentSealer {
 public:
  SegmentSealer(const KelKey& key, Compression compression)
      : key_(key), compression_(compression) {}

  /// Nothing after a report; the stream is valid until the next call.
  std::optional<Segment> seal(Tag tag, Bytes content, const std::string& path, uint64_t place);
  const KelKey& key() const { return key_; }

 private:
  const KelKey& key_;
  Compression compression_;
  std::vector<unsigned char> payload_;
  std::vector<unsigned char> stream_;
};

class SegmentOpener {
 public:
  explicit SegmentOpener(const KelKey& key) : key_(key) {}

  /// Checks the seal and decrypts; null, or what is wrong with the file. content() is valid until
  /// the next call.
  const char* open(const Segment& segment, const std::string& path, uint64_t place);
  Tag tag() const { return tag_; }
  Bytes content() const { return content_; }
  const KelKey& key() const { return key_; }

 private:
  const KelKey& key_;
  std::vector<unsigned char> payload_;
  Tag tag_{};
  Bytes content_;
};

}  // namespace dedup
