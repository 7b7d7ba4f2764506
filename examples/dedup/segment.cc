// A payload is a tag (4 bytes) and the content. A seal is the fingerprint of the key, the file's
// name, the segment's place in it, both sizes and the stream: without the key nobody can make one,
// so that a reader finds not only damage but also what somebody else has written or moved.
#include "segment.h"

#include <kel/crypt.h>

#include "records.h"

namespace dedup {
namespace {

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

}  // namespace

Fingerprint seal_of(const KelKey& key, const std::string& path, uint64_t place, Bytes stream,
                    uint64_t payload) {
  RecordWriter bound;
  bound.text(path.substr(path.rfind('/') + 1));
  bound.number(place);
  bound.number(static_cast<uint64_t>(stream.size()));
  bound.number(payload);
  return fingerprint_of({{key.Bytes(), KelKey::kLength}, bound.bytes(), stream});
}

std::optional<Segment> SegmentSealer::seal(Tag tag, Bytes content, const std::string& path,
                                           uint64_t place) {
  RecordWriter head;
  head.number(static_cast<uint32_t>(tag));
  payload_.assign(head.bytes().begin(), head.bytes().end());
  payload_.insert(payload_.end(), content.begin(), content.end());
  // As much as a stream can have, by the library's own measure.
  stream_.resize(payload_.size() + payload_.size() / 16 + 128);
  const long size = dcpEncryptDataToBuffer(key_, kCipher, payload_.data(), payload_.size(),
                                           stream_.data(), stream_.size(), flags_of(compression_));
  if (size <= 0) return std::nullopt;
  const Bytes stream = Bytes(stream_).first(static_cast<size_t>(size));
  return Segment{payload_.size(), seal_of(key_, path, place, stream, payload_.size()), stream};
}

const char* SegmentOpener::open(const Segment& segment, const std::string& path, uint64_t place) {
  content_ = {};
  if (segment.payload < kTagSize) return "is damaged: a segment is missing";
  if (segment.payload > kLargestPayload) return "is damaged: a segment has an impossible size";
  if (segment.seal != seal_of(key_, path, place, segment.stream, segment.payload))
    return "is damaged: a segment does not match its seal";
  // Room beyond the payload lets the reader come to the stream's end in one call.
  payload_.resize(segment.payload + 64);
  c_stream_t stream = {};
  int code = dcpDecryptInit(&stream, key_, kCipher);
  if (code == 0) {
    stream.next_in = segment.stream.data();
    stream.avail_in = static_cast<unsigned>(segment.stream.size());
    stream.next_out = payload_.data();
    stream.avail_out = static_cast<unsigned>(payload_.size());
    code = dcpDecrypt(&stream, 1);
  }
  const bool whole = code == kComplete && stream.total_out == segment.payload;
  if (stream.state != nullptr) dcpDecryptEnd(&stream);
  if (!whole) return "is damaged: a segment cannot be decrypted";
  payload_.resize(segment.payload);
  tag_ = static_cast<Tag>(RecordReader(payload_).number<uint32_t>());
  content_ = Bytes(payload_).subspan(kTagSize);
  return nullptr;
}

}  // namespace dedup
