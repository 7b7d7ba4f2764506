// The reader of archive streams: stages that each take what input there is and give what output
// there is room for.
#pragma once

#include <kel/cipher.h>
#include <kel/crypt.h>

#include <zlib.h>

#include <memory>
#include <optional>
#include <span>

#include "crypto/stream_format.h"
#include "internal/handles.h"

namespace kel::internal::stream {

/// A raw inflate stream.
class Inflater {
 public:
  ~Inflater() {
    if (ready_) inflateEnd(&z_);
  }
  /// Starts a stream, the first or another one.
  bool start();
  z_stream& z() { return z_; }

 private:
  z_stream z_{};
  bool ready_ = false;
};

/// Bytes in memory that grows as they come.
class Collected {
 public:
  /// Where the next `size` bytes go; null when there is no memory for them.
  unsigned char* room(std::size_t size);
  void add(std::size_t size) { size_ += size; }
  void clear() { size_ = 0; }
  const unsigned char* data() const { return data_.get(); }
  std::size_t size() const { return size_; }

 private:
  MallocPtr<unsigned char> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

class StreamReader {
 public:
  ~StreamReader();
  /// Readies the reader for a stream, the first or another one; a result code.
  int start(c_stream_t& c, const KelKey& key, int cipher_type);
  int run(c_stream_t& c, bool flush);

 private:
  using Bytes = std::span<const unsigned char>;
  /// What dcpDecrypt() returns; none: go on with the next stage.
  using Verdict = std::optional<int>;

  enum class Stage {
    kHeader,
    kPassThrough,
    kKeyPrefix,
    kBlockHeader,
    kPayload,
    kTrailer,
    kTotal,
    kDone,
  };
  enum class Coding { kNone, kZlib, kLzo };

  /// The LZO chunk of a stream as far as it has come.
  struct Chunk {
    unsigned char word[kLzoWordSize];
    std::size_t word_size = 0;  ///< bytes of `word` that have come
    bool compressed = false;
    std::uint32_t length = 0;    ///< uncompressed
    std::uint32_t raw_left = 0;  ///< bytes of an uncompressed chunk that have not come
    bool decoded = false;
    Collected data;
  };

  Verdict step(c_stream_t& c, bool flush);
  Verdict read_header(c_stream_t& c, bool flush);
  Verdict pass_through(c_stream_t& c, bool flush);
  Verdict read_key_prefix(c_stream_t& c, bool flush);
  Verdict start_coding();
  Verdict read_block_header(c_stream_t& c, bool flush);
  Verdict read_payload(c_stream_t& c, bool flush);
  Verdict decrypt_piece(c_stream_t& c);
  Verdict read_trailer(c_stream_t& c, bool flush);
  Verdict finish(c_stream_t& c);
  Verdict feed(c_stream_t& c, Bytes& piece);
  Verdict inflate_piece(c_stream_t& c, Bytes& piece);
  Verdict feed_chunk(c_stream_t& c, Bytes& piece);
  Verdict finish_chunk(c_stream_t& c);
  Verdict decode_chunk(c_stream_t& c);
  void cut_output(c_stream_t& c);

  bool gather(c_stream_t& c, std::size_t size);
  void deliver(c_stream_t& c);
  bool collects() const {
    return coding_ == Coding::kLzo && chunk_.word_size == kLzoWordSize && chunk_.compressed;
  }

  Stage stage_ = Stage::kHeader;
  Coding coding_ = Coding::kNone;
  bool decrypts_ = false;
  int flags_ = 0;
  int failure_ = 0;               ///< the negative result that ended the stream
  std::uint64_t call_start_ = 0;  ///< total_out when dcpDecrypt() was called

  KelKey key_;
  std::unique_ptr<Cipher> cipher_;
  Inflater inflater_;
  bool inflated_ = false;  ///< the deflate stream has ended
  Chunk chunk_;

  std::uint32_t max_payload_ = 0;
  std::uint32_t payload_left_ = 0;  ///< bytes of the block's payload still in the input
  std::uint32_t kept_left_ = 0;     ///< of its decrypted bytes, those ahead of the padding to come
  std::uint64_t total_ = 0;         ///< of the trailer

  Bytes waiting_;  ///< output that is ready, in held_ or decoded_
  Bytes piece_;    ///< decrypted payload in work_ that the next stage has not taken
  MallocPtr<unsigned char> decoded_;
  unsigned char held_[16];  ///< a part of the stream's frame, as far as it has come
  std::size_t held_size_ = 0;
  unsigned char work_[65536];
};

}  // namespace kel::internal::stream
