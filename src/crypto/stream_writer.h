// The writer of archive streams: one block buffer that is filled, framed and sent again and again.
#pragma once

#include <kel/cipher.h>
#include <kel/crypt.h>

#include <zlib.h>

#include <memory>

#include "crypto/stream_format.h"
#include "crypto/stream_lzo.h"
#include "internal/handles.h"

namespace kel::internal::stream {

/// A raw deflate stream.
class Deflater {
 public:
  ~Deflater() {
    if (ready_) deflateEnd(&z_);
  }
  int init(int level);
  int reset() { return deflateReset(&z_); }
  z_stream& z() { return z_; }

 private:
  z_stream z_{};
  bool ready_ = false;
};

class StreamWriter {
 public:
  /// Takes the settings over and stores the choice of the algorithm back; a result code.
  int check_settings(c_stream_t& c, unsigned long flags);
  /// Allocates buffer and compressor for checked settings; a result code.
  int build(const c_stream_t& c);
  /// Starts a stream: counters cleared, compressor fresh, header and key prefix queued.
  int start(c_stream_t& c, const KelKey& key, int cipher_type);
  int run(c_stream_t& c);

 private:
  enum class Compression { kNone, kZlib, kLzo };
  /// What one compression step did.
  struct Step {
    int code;
    unsigned consumed;
    std::size_t produced;
  };

  int queue_prefix(const KelKey& key);
  void queue_trailer(std::uint64_t total);
  void send(c_stream_t& c);
  void open_block();
  bool waiting() const { return read_ != write_; }
  int compress(c_stream_t& c);
  Step take(const c_stream_t& c);
  Step deflate_into_buffer(const c_stream_t& c);
  Step lzo_into_buffer(const c_stream_t& c);
  int encrypt(const unsigned char* from, std::size_t* size);

  Compression compression_ = Compression::kNone;
  bool encrypts_ = false;
  int header_flags_ = 0;
  int level_ = 0;
  bool ready_ = false;           ///< a stream was started and has not failed
  bool compressed_all_ = false;  ///< the compressor has ended its stream
  bool trailer_queued_ = false;

  std::unique_ptr<Cipher> cipher_;
  std::unique_ptr<Deflater> deflater_;
  std::unique_ptr<LzoCompressor> lzo_;

  MallocPtr<unsigned char> buffer_;
  std::size_t buffer_size_ = 0;  ///< grows beyond capacity_ + 8 for an LZO chunk
  std::size_t capacity_ = 0;     ///< largest payload of a block
  std::size_t read_ = 0;         ///< the buffer's bytes from here ...
  std::size_t write_ = 0;        ///< ... to here wait to be sent
  std::size_t run_left_ = 0;     ///< of them, what belongs to the open block or unframed run
  unsigned pad_ = 0;             ///< bytes that the cipher added behind the buffer's data
  unsigned char frame_[kBlockHeaderSize] = {};
  std::size_t frame_left_ = 0;  ///< last bytes of frame_ that are still to be sent
};

}  // namespace kel::internal::stream
