// Files of the repository: a mark, then segments, each an archive stream (AES-256-CTR, compressed
// as the repository is) behind its sizes and a seal, then an end. A file is written under a
// temporary name and appears whole or not at all.
#pragma once

#include <kel/cipher.h>

#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
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
/// No payload is larger; a file that announces more is damaged.
inline constexpr uint64_t kLargestPayload = uint64_t{16} << 20;

class SegmentWriter {
 public:
  SegmentWriter(const KelKey& key, Compression compression)
      : key_(key), compression_(compression) {}
  ~SegmentWriter();
  SegmentWriter(const SegmentWriter&) = delete;
  SegmentWriter& operator=(const SegmentWriter&) = delete;

  /// Starts the file under `temporary`, a path that ends in the name it will have.
  bool create(const std::string& temporary);
  bool append(Tag tag, Bytes content);
  /// Makes the file durable, and then visible in `directory`.
  bool commit(const std::string& directory);

  uint64_t size() const { return size_; }

 private:
  bool write(Bytes bytes);
  bool write_frame(Bytes stream, uint64_t payload);

  const KelKey& key_;
  Compression compression_;
  Descriptor file_;
  std::string path_;
  uint64_t size_ = 0;
  std::vector<unsigned char> payload_;
  std::vector<unsigned char> stream_;
};

/// Reads a file segment by segment. Problems of the file are not reported but described by
/// problem(): only the caller knows what they mean.
class SegmentReader {
 public:
  SegmentReader(const KelKey& key, std::string path) : key_(key), path_(std::move(path)) {}

  bool open();
  /// Reads the next segment, which has to be a `tag`, into `payload`; content() is what it holds.
  bool read(Tag tag);
  /// As read(), for a segment of either tag.
  std::optional<Tag> read_any();
  /// Goes past the next segment without reading it; false at the end or on a problem.
  bool skip();
  /// Goes past all segments but the last; false on a problem.
  bool go_to_last();
  /// Whether no segment is left, and nothing behind the end.
  bool at_end();

  Bytes content() const { return content_; }
  uint64_t size() const { return size_; }
  const std::string& path() const { return path_; }
  const std::string& problem() const { return problem_; }

 private:
  struct Frame {
    uint64_t stream, payload;
    Fingerprint seal;
  };
  std::optional<Frame> read_frame();
  bool check_seal(const Frame& frame);
  bool decode(const Frame& frame);
  bool fails(std::string problem);

  const KelKey& key_;
  std::string path_;
  Descriptor file_;
  uint64_t size_ = 0;
  uint64_t offset_ = 0;
  std::vector<unsigned char> stream_bytes_;
  std::vector<unsigned char> payload_;
  Bytes content_;
  std::string problem_;
};

}  // namespace dedup
