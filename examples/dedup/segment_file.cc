// The layout of a file:
//
//   8 bytes   "KDFILE1\n"
//   segments  u64 size of the stream, u64 size of its payload, the seal, the stream
//   end       u64 0, u64 0, the seal
//
// A payload is a tag (4 bytes) and the content. A seal is the fingerprint of the key, the file's
// name, the segment's place in it, both sizes and the stream: without the key nobody can make one,
// so that a reader finds not only damage but also what somebody else has written or moved.
#include "segment_file.h"

#include <kel/crypt.h>
#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "records.h"

namespace dedup {
namespace {

constexpr unsigned char kMark[8] = {'K', 'D', 'F', 'I', 'L', 'E', '1', '\n'};
constexpr uint64_t kFrameSize = 16 + sizeof(Fingerprint);
constexpr unsigned char kCipher = 3;  // AES-256-CTR
constexpr int kComplete = 1;          // the result of a finished stream

/// What an archive stream is told about its compression; a reader finds it in the stream.
unsigned long flags_of(Compression compression) {
  switch (compression) {
    case Compression::kZlib:
      return KEL_CRYPT_ZLIB;
    case Compression::kNone:
      return KEL_CRYPT_NO_COMPRESSION;
    case Compression::kLzo:
      break;
  }
  return 0;
}

Fingerprint seal_of(const KelKey& key, const std::string& path, uint64_t offset, Bytes stream,
                    uint64_t payload) {
  RecordWriter place;
  place.text(path.substr(path.rfind('/') + 1));
  place.number(offset);
  place.number(static_cast<uint64_t>(stream.size()));
  place.number(payload);
  return fingerprint_of({{key.Bytes(), KelKey::kLength}, place.bytes(), stream});
}

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
  RecordWriter head;
  head.number(static_cast<uint32_t>(tag));
  payload_.assign(head.bytes().begin(), head.bytes().end());
  payload_.insert(payload_.end(), content.begin(), content.end());
  // As much as a stream can have, by the library's own measure.
  stream_.resize(payload_.size() + payload_.size() / 16 + 128);
  const long size = dcpEncryptDataToBuffer(key_, kCipher, payload_.data(), payload_.size(),
                                           stream_.data(), stream_.size(), flags_of(compression_));
  return size > 0 && write_frame(Bytes(stream_).first(static_cast<size_t>(size)), payload_.size());
}

bool SegmentWriter::write_frame(Bytes stream, uint64_t payload) {
  RecordWriter frame;
  frame.number(static_cast<uint64_t>(stream.size()));
  frame.number(payload);
  frame.fingerprint(seal_of(key_, path_, size_, stream, payload));
  return write(frame.bytes()) && write(stream);
}

bool SegmentWriter::commit(const std::string& directory) {
  if (!write_frame({}, 0)) return false;
  if (safe_fsync(file_.get()) != 0) {
    ErrorA(errno, "could not flush %s: %s", path_.c_str(), std::strerror(errno));
    return false;
  }
  const std::string final_path = directory + path_.substr(path_.rfind('/'));
  if (rename_dirfsync(path_.c_str(), final_path.c_str(), directory.c_str(), false) != 0)
    return false;
  file_.close();
  return true;
}

bool SegmentReader::fails(std::string problem) {
  problem_ = std::move(problem);
  content_ = {};
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

/// Reads the stream of a frame and checks the seal over both.
bool SegmentReader::check_seal(const Frame& frame) {
  stream_bytes_.resize(frame.stream);
  if (safe_pread(file_.get(), stream_bytes_.data(), stream_bytes_.size(),
                 static_cast<off_t>(offset_ + kFrameSize)) !=
      static_cast<ssize_t>(stream_bytes_.size()))
    return fails("cannot be read");
  return frame.seal == seal_of(key_, path_, offset_, stream_bytes_, frame.payload) ||
         fails("is damaged: a segment does not match its seal");
}

bool SegmentReader::decode(const Frame& frame) {
  if (!check_seal(frame)) return false;
  // Room beyond the payload lets the reader come to the stream's end in one call.
  payload_.resize(frame.payload + 64);
  c_stream_t stream = {};
  int code = dcpDecryptInit(&stream, key_, kCipher);
  if (code == 0) {
    stream.next_in = stream_bytes_.data();
    stream.avail_in = static_cast<unsigned>(stream_bytes_.size());
    stream.next_out = payload_.data();
    stream.avail_out = static_cast<unsigned>(payload_.size());
    code = dcpDecrypt(&stream, 1);
  }
  const bool whole = code == kComplete && stream.total_out == frame.payload;
  if (stream.state != nullptr) dcpDecryptEnd(&stream);
  if (!whole) return fails("is damaged: a segment cannot be decrypted");
  payload_.resize(frame.payload);
  return true;
}

std::optional<Tag> SegmentReader::read_any() {
  const auto frame = read_frame();
  if (!frame) return std::nullopt;
  if (frame->payload < kTagSize) {
    fails("is damaged: a segment is missing");
    return std::nullopt;
  }
  if (!decode(*frame)) return std::nullopt;
  offset_ += kFrameSize + frame->stream;
  content_ = Bytes(payload_).subspan(kTagSize);
  return static_cast<Tag>(RecordReader(payload_).number<uint32_t>());
}

bool SegmentReader::read(Tag tag) {
  const auto found = read_any();
  if (!found) return false;
  return *found == tag || fails("is damaged: a segment is not what it should be");
}

bool SegmentReader::skip() {
  const auto frame = read_frame();
  if (!frame || frame->stream == 0) return false;
  offset_ += kFrameSize + frame->stream;
  return true;
}

bool SegmentReader::go_to_last() {
  uint64_t last = offset_;
  for (;;) {
    const auto frame = read_frame();
    if (!frame) return false;
    if (frame->stream == 0) break;
    last = offset_;
    offset_ += kFrameSize + frame->stream;
  }
  offset_ = last;
  return true;
}

bool SegmentReader::at_end() {
  const auto frame = read_frame();
  if (!frame) return false;
  if (frame->stream != 0) return fails("is damaged: a segment too many");
  if (!check_seal(*frame)) return false;
  return offset_ + kFrameSize == size_ || fails("is damaged: something follows its end");
}

}  // namespace dedup
