// Files of segments: a mark, then the segments, each behind its sizes and its seal, then an end. A
// file is written under a temporary name and appears whole or not at all.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "segment.h"

namespace dedup {

class SegmentWriter {
 public:
  SegmentWriter(const KelKey& key, Compression compression) : sealer_(key, compression) {}
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
  bool write_segment(const Segment& segment);

  SegmentSealer sealer_;
  Descriptor file_;
  std::string path_;
  uint64_t size_ = 0;
};

/// Reads a file segment by segment. Problems of the file are not reported but described by
/// problem(): only the caller knows what they mean.
class SegmentReader {
 public:
  SegmentReader(const KelKey& key, std::string path) : opener_(key), path_(std::move(path)) {}

  bool open();
  /// Reads the next segment, which has to be a `tag`: content() is what it holds.
  bool read(Tag tag);
  /// Goes past the next segment without reading it; false at the end or on a problem.
  bool skip();
  /// Whether no segment is left, and nothing behind the end.
  bool at_end();

  Bytes content() const { return opener_.content(); }
  const std::string& problem() const { return problem_; }

 private:
  struct Frame {
    uint64_t stream, payload;
    Fingerprint seal;
  };
  std::optional<Frame> read_frame();
  bool read_stream(const Frame& frame);
  bool fails(std::string problem);

  SegmentOpener opener_;
  std::string path_;
  Descriptor file_;
  uint64_t size_ = 0;
  uint64_t offset_ = 0;
  std::vector<unsigned char> stream_;
  std::string problem_;
};

}  // namespace dedup
