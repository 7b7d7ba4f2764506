// The layout of a file:
//
//   8 bytes   "KDFILE1\n"
//   segments  u64 size of the stream, u64 size of its payload, the seal, the stream
//   end       u64 0, u64 0, the seal
//
// The place that a seal binds is the offset in the file.
#include "segment_file.h"

#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "publish.h"
#include "records.h"

namespace dedup {
namespace {

constexpr unsigned char kMark[8] = {'K', 'D', 'F', 'I', 'L', 'E', '1', '\n'};
constexpr uint64_t kFrameSize = 16 + sizeof(Fingerprint);

}  // namespace

SegmentWriter::~SegmentWriter() {
  if (file_) ::unlink(path_.c_str());
}

bool SegmentWriter::create(const std::string& temporary) {
  path_ = temporary;
  size_ = 0;
  file_ = Descriptor(::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (file_) return write(kMark);
  ErrorA(errno, "could not create %s: %s", path_.c_str(), std::strerror(errno));
  return false;
}

bool SegmentWriter::write(Bytes bytes) {
  if (safe_pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(size_)) ==
      static_cast<ssize_t>(bytes.size())) {
    size_ += bytes.size();
    return true;
  }
  ErrorA(errno, "could not write %s: %s; make room and store again", path_.c_str(),
         std::strerror(errno));
  return false;
}

bool SegmentWriter::append(Tag tag, Bytes content) {
  const auto segment = sealer_.seal(tag, content, path_, size_);
  return segment && write_segment(*segment);
}

bool SegmentWriter::write_segment(const Segment& segment) {
  RecordWriter frame;
  frame.number(static_cast<uint64_t>(segment.stream.size()));
  frame.number(segment.payload);
  frame.fingerprint(segment.seal);
  return write(frame.bytes()) && write(segment.stream);
}

bool SegmentWriter::commit(const std::string& directory) {
  if (!write_segment({0, seal_of(sealer_.key(), path_, size_, {}, 0), {}}) ||
      !publish(file_.get(), path_, directory))
    return false;
  file_.close();
  return true;
}

bool SegmentReader::fails(std::string problem) {
  problem_ = std::move(problem);
  return false;
}

bool SegmentReader::open() {
  file_ = Descriptor(::open(path_.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (!file_ || ::fstat(file_.get(), &status) != 0)
    return fails(std::string("cannot be opened: ") + std::strerror(errno));
  size_ = static_cast<uint64_t>(status.st_size);
  unsigned char mark[sizeof kMark];
  if (safe_pread(file_.get(), mark, sizeof mark, 0) != static_cast<ssize_t>(sizeof mark) ||
      std::memcmp(mark, kMark, sizeof mark) != 0)
    return fails("is damaged: it does not begin as a file of the repository");
  offset_ = sizeof mark;
  return true;
}

std::optional<SegmentReader::Frame> SegmentReader::read_frame() {
  unsigned char bytes[kFrameSize];
  if (size_ - offset_ < kFrameSize ||
      safe_pread(file_.get(), bytes, sizeof bytes, static_cast<off_t>(offset_)) !=
          static_cast<ssize_t>(sizeof bytes)) {
    fails("is truncated");
    return std::nullopt;
  }
  RecordReader reader(bytes);
  const auto stream = reader.number<uint64_t>();
  const auto payload = reader.number<uint64_t>();
  const Fingerprint seal = reader.fingerprint();
  const uint64_t left = size_ - offset_ - kFrameSize;
  if (payload > kLargestPayload || stream > 2 * kLargestPayload ||
      (stream == 0) != (payload == 0)) {
    fails("is damaged: a segment has an impossible size");
    return std::nullopt;
  }
  if (stream > left) {
    fails("is truncated");
    return std::nullopt;
  }
  return Frame{stream, payload, seal};
}

bool SegmentReader::read_stream(const Frame& frame) {
  stream_.resize(frame.stream);
  return safe_pread(file_.get(), stream_.data(), stream_.size(),
                    static_cast<off_t>(offset_ + kFrameSize)) ==
             static_cast<ssize_t>(stream_.size()) ||
         fails("cannot be read");
}

bool SegmentReader::read(Tag tag) {
  const auto frame = read_frame();
  if (!frame || !read_stream(*frame)) return false;
  if (const char* problem = opener_.open({frame->payload, frame->seal, stream_}, path_, offset_))
    return fails(problem);
  offset_ += kFrameSize + frame->stream;
  return opener_.tag() == tag || fails("is damaged: a segment is not what it should be");
}

bool SegmentReader::skip() {
  const auto frame = read_frame();
  if (!frame || frame->stream == 0) return false;
  offset_ += kFrameSize + frame->stream;
  return true;
}

bool SegmentReader::at_end() {
  const auto frame = read_frame();
  if (!frame) return false;
  if (frame->stream != 0) return fails("is damaged: a segment too many");
  if (frame->seal != seal_of(opener_.key(), path_, offset_, {}, 0))
    return fails("is damaged: a segment does not match its seal");
  return offset_ + kFrameSize == size_ || fails("is damaged: something follows its end");
}

}  // namespace dedup
