// Writing archive streams. The buffer always holds one whole run (the header and key prefix, one
// compression step's data, or the trailer) and is sent completely before it is filled again, so
// that the bytes do not depend on the caller's output windows.
#include "crypto/stream_writer.h"

#include <kel/logging.h>

#include <algorithm>
#include <cstring>
#include <mutex>

#include "internal/bytes.h"
#include "internal/report.h"

namespace kel::internal::stream {
namespace {

constexpr int kZlibDefaultLevel = 6;
constexpr int kZlibMaxLevel = 10;
constexpr int kRawDeflateWindow = -15;
constexpr int kZlibMemoryLevel = 9;
constexpr unsigned kMinWindow = 12;
constexpr unsigned kMaxWindow = 31;
constexpr unsigned kDefaultWindow = 17;

constexpr std::size_t round_up(std::size_t size, std::size_t unit) {
  return (size + unit - 1) / unit * unit;
}

void log_zlib_once() {
  static std::once_flag once;
  std::call_once(once, [] { InfoA(-1, "__compress: Using ZLIB compression"); });
}

}  // namespace

int Deflater::init(int level) {
  const int code =
      deflateInit2(&z_, level, Z_DEFLATED, kRawDeflateWindow, kZlibMemoryLevel, Z_DEFAULT_STRATEGY);
  ready_ = code == Z_OK;
  return code;
}

int StreamWriter::check_settings(c_stream_t& c, unsigned long flags) {
  encrypts_ = (flags & KEL_CRYPT_NO_ENCRYPTION) == 0;
  if ((flags & KEL_CRYPT_NO_COMPRESSION) == 0) {
    if (c.zalgorithm == 0)
      c.zalgorithm =
          (flags & KEL_CRYPT_ZLIB) != 0 ? KEL_CRYPT_ALGORITHM_ZLIB : KEL_CRYPT_ALGORITHM_LZO;
    if (c.zalgorithm == KEL_CRYPT_ALGORITHM_LZO) {
      if (lzo_compression_init() != kOk || c.zlevel > LzoCompressor::kMaxLevel) return kBadState;
      compression_ = Compression::kLzo;
      level_ = c.zlevel < LzoCompressor::kMinLevel ? LzoCompressor::kDefaultLevel : c.zlevel;
    } else if (c.zalgorithm == KEL_CRYPT_ALGORITHM_ZLIB) {
      if (c.zlevel > kZlibMaxLevel) return kBadState;
      compression_ = Compression::kZlib;
      level_ = (c.zlevel == 0 ? kZlibDefaultLevel : c.zlevel) - 1;
    } else {
      return fail(kDataError, EINVAL,
                  "%s: compression algorithm is not valid,  c->zalgorithm = %d ", "dcpEncryptInit",
                  c.zalgorithm);
    }
  }
  if (c.zwindow != 0 && (c.zwindow < kMinWindow || c.zwindow > kMaxWindow)) return kBadState;
  return kOk;
}

int StreamWriter::build(const c_stream_t& c) {
  buffer_size_ = std::size_t{1} << (c.zwindow == 0 ? kDefaultWindow : c.zwindow);
  if (compression_ == Compression::kLzo)
    buffer_size_ = round_up(buffer_size_ + buffer_size_ / 16 + 167, kBlockUnit);
  capacity_ = buffer_size_ - kBlockHeaderSize;

  constexpr const char* kCaller = "dcpEncryptInit";
  buffer_.reset(static_cast<unsigned char*>(std::malloc(buffer_size_)));
  if (buffer_ == nullptr) return fail_allocation(kNoMemory, buffer_size_, kCaller);

  header_flags_ = KEL_MAGIC_V2;
  if (encrypts_) header_flags_ |= KEL_MAGIC_ENCRYPTED | KEL_MAGIC_KEY_CHECK | KEL_MAGIC_KEY_256;
  switch (compression_) {
    case Compression::kNone:
      if (!encrypts_) header_flags_ |= KEL_MAGIC_SIMPLE;
      break;
    case Compression::kZlib:
      header_flags_ |= KEL_MAGIC_DEFLATED;
      deflater_.reset(new (std::nothrow) Deflater);
      if (deflater_ == nullptr) return fail_allocation(kNoMemory, sizeof(Deflater), kCaller);
      return deflater_->init(level_);
    case Compression::kLzo:
      header_flags_ |= KEL_MAGIC_LZO;
      lzo_.reset(new (std::nothrow) LzoCompressor);
      if (lzo_ == nullptr) return fail_allocation(kNoMemory, sizeof(LzoCompressor), kCaller);
      if (!lzo_->init(level_))
        return fail_allocation(kNoMemory, LzoCompressor::work_size(level_), kCaller);
      break;
  }
  return kOk;
}

int StreamWriter::start(c_stream_t& c, const KelKey& key, int cipher_type) {
  c.total_in = c.total_out = c.saved_last = c.saved_total = 0;
  read_ = write_ = run_left_ = frame_left_ = 0;
  pad_ = 0;
  ready_ = compressed_all_ = trailer_queued_ = false;
  if (buffer_ == nullptr) return kBadState;  // the settings were refused
  if (deflater_ != nullptr) {
    if (const int code = deflater_->reset(); code != Z_OK) return code;
  }
  if (encrypts_) {
    cipher_.reset(Cipher::NewCipher(cipher_type));
    if (cipher_ == nullptr) return new_cipher_failure(cipher_type);
  }
  return queue_prefix(key);
}

int StreamWriter::queue_prefix(const KelKey& key) {
  unsigned char* const prefix = buffer_.get() + kHeaderSize;
  kelMagicMake(header_flags_, buffer_.get(), kHeaderSize, capacity_ + kBlockHeaderSize);
  write_ = kHeaderSize;
  if (encrypts_) {
    const int size = cipher_->GetHeaderSize();
    cipher_->makeIv(prefix);
    if (!cipher_->Init(0, key, cipher_->UseIv8() ? nullptr : prefix)) return kSystemError;
    if (cipher_->UseIv8() && cipher_->Process(prefix, size, false, prefix, nullptr) != size)
      return kSystemError;
    write_ += static_cast<std::size_t>(size);
  }
  run_left_ = write_;
  ready_ = true;
  return kOk;
}

int StreamWriter::run(c_stream_t& c) {
  if (!ready_) return kBadState;
  if (c.avail_out == 0) return kNoProgress;
  for (;;) {
    send(c);
    if (waiting()) return kOk;
    if (trailer_queued_) return c.avail_in == 0 ? kComplete : kNoProgress;
    if (c.avail_out == 0) return kOk;
    const bool compresses = compression_ != Compression::kNone && c.total_in != 0;
    if (c.avail_in == 0 && (compressed_all_ || !compresses)) {
      queue_trailer(c.total_in);
    } else if (compressed_all_) {
      return kNoProgress;
    } else if (const int code = compress(c); code < 0) {
      ready_ = code == kNoProgress;
      return code;
    }
  }
}

/// Sends what waits, as far as the output window allows.
void StreamWriter::send(c_stream_t& c) {
  while (c.avail_out != 0 && waiting()) {
    if (run_left_ == 0) open_block();
    if (frame_left_ != 0) {
      frame_left_ -= put_output(c, frame_ + sizeof frame_ - frame_left_, frame_left_);
    } else {
      const std::size_t sent = put_output(c, buffer_.get() + read_, run_left_);
      read_ += sent;
      run_left_ -= sent;
    }
  }
  if (!waiting()) read_ = write_ = 0;
}

/// Only the last block of a run has the cipher's padding at its end.
void StreamWriter::open_block() {
  const std::size_t left = write_ - read_;
  run_left_ = std::min(left, capacity_);
  store_be(frame_, static_cast<std::uint32_t>(run_left_));
  store_be(frame_ + 4, run_left_ == left ? pad_ : 0U);
  frame_left_ = sizeof frame_;
}

void StreamWriter::queue_trailer(std::uint64_t total) {
  std::memset(buffer_.get(), 0, kTrailerSize);
  store_be(buffer_.get(), kTrailerMark);
  store_be(buffer_.get() + kTrailerSize - sizeof total, total);
  write_ = run_left_ = kTrailerSize;
  trailer_queued_ = true;
}

/// Fills the buffer once; a result code.
int StreamWriter::compress(c_stream_t& c) {
  Step step{};
  switch (compression_) {
    case Compression::kNone:
      step = take(c);
      break;
    case Compression::kZlib:
      step = deflate_into_buffer(c);
      break;
    case Compression::kLzo:
      step = lzo_into_buffer(c);
      break;
  }
  if (step.code < 0) return step.code;
  if (encrypts_) {
    const unsigned char* const from =
        compression_ == Compression::kNone ? c.next_in : buffer_.get();
    if (const int code = encrypt(from, &step.produced); code != kOk) return code;
  }
  consume_input(c, step.consumed);
  c.saved_last = step.consumed > step.produced ? step.consumed - step.produced : 0;
  c.saved_total += c.saved_last;
  write_ = step.produced;
  return kOk;
}

/// Input as it is; encrypt() fetches it itself.
StreamWriter::Step StreamWriter::take(const c_stream_t& c) {
  const auto size = static_cast<unsigned>(std::min<std::size_t>(c.avail_in, capacity_));
  if (!encrypts_) std::memcpy(buffer_.get(), c.next_in, size);
  return {kOk, size, size};
}

StreamWriter::Step StreamWriter::deflate_into_buffer(const c_stream_t& c) {
  log_zlib_once();
  z_stream& z = deflater_->z();
  z.next_in = const_cast<Bytef*>(c.next_in);
  z.avail_in = c.avail_in;
  z.next_out = buffer_.get();
  z.avail_out = static_cast<uInt>(capacity_);
  int code;
  do {
    code = deflate(&z, Z_FINISH);
  } while (code == Z_OK && z.avail_out != 0);
  compressed_all_ = code == Z_STREAM_END;
  const unsigned consumed = c.avail_in - z.avail_in;
  const std::size_t produced = capacity_ - z.avail_out;
  // Z_BUF_ERROR after output only says that the room ran out.
  if (code == Z_BUF_ERROR && produced == 0 && consumed == 0) return {kNoProgress, 0, 0};
  if (code < 0 && code != Z_BUF_ERROR) return {code, 0, 0};
  return {kOk, consumed, produced};
}

/// The whole input becomes one chunk in the buffer, which grows to hold it; send() cuts it into
/// blocks.
StreamWriter::Step StreamWriter::lzo_into_buffer(const c_stream_t& c) {
  if (c.avail_in > kLzoMaxLength) return {kDataError, 0, 0};
  const std::size_t room = LzoCompressor::worst_case(c.avail_in);
  if (room > buffer_size_) {
    const std::size_t size = round_up(room, kBlockUnit);
    MallocPtr<unsigned char> grown(static_cast<unsigned char*>(std::malloc(size)));
    if (grown == nullptr) return {kDataError, 0, 0};
    buffer_ = std::move(grown);
    buffer_size_ = size;
  }
  const std::size_t produced = lzo_->make_chunk(c.next_in, c.avail_in, buffer_.get());
  if (produced == 0) return {kDataError, 0, 0};
  compressed_all_ = true;
  return {kOk, c.avail_in, produced};
}

/// Encrypts `size` bytes at `from` into the buffer, where they may already be, and ends the piece;
/// `size` becomes the padded size.
int StreamWriter::encrypt(const unsigned char* from, std::size_t* size) {
  std::size_t written = 0;
  for (std::size_t done = 0; done < *size;) {
    const std::size_t piece = std::min(*size - done, kMaxCipherPiece);
    const bool last = done + piece == *size;
    const int n = cipher_->Process(from + done, static_cast<int>(piece), last,
                                   buffer_.get() + written, &pad_);
    if (n < 0) return kSystemError;
    done += piece;
    written += static_cast<std::size_t>(n);
  }
  *size = written;
  return kOk;
}

}  // namespace kel::internal::stream

using namespace kel::internal;
using namespace kel::internal::stream;

namespace {

StreamWriter* writer_of(const c_stream_t* c) {
  return c == nullptr ? nullptr : static_cast<StreamWriter*>(c->state);
}

void release(c_stream_t* c) {
  delete writer_of(c);
  c->state = nullptr;
}

}  // namespace

int dcpEncryptInit(c_stream_t* c, unsigned long flags, const KelKey& key,
                   unsigned char cipherType) {
  if (c == nullptr) return kBadState;
  auto* writer = new (std::nothrow) StreamWriter;
  c->state = writer;
  if (writer == nullptr) return fail_allocation(kNoMemory, sizeof(StreamWriter), __func__);
  int code = writer->check_settings(*c, flags);
  if (code != kOk) return code;
  code = writer->build(*c);
  const bool built = code == kOk;
  if (built) code = writer->start(*c, key, cipherType);
  // Refused settings, the cipher type among them, leave a state to be ended; what could not be
  // built leaves none.
  if (code != kOk && !(built && code == kBadState)) release(c);
  return code;
}

int dcpEncryptReset(c_stream_t* c, const KelKey& key, unsigned char cipherType) {
  StreamWriter* const writer = writer_of(c);
  return writer == nullptr ? kBadState : writer->start(*c, key, cipherType);
}

int dcpEncrypt(c_stream_t* c) {
  StreamWriter* const writer = writer_of(c);
  if (writer == nullptr || c->next_out == nullptr) return kBadState;
  if (c->next_in == nullptr && c->avail_in != 0) return kBadState;
  return writer->run(*c);
}

int dcpEncryptEnd(c_stream_t* c) {
  if (writer_of(c) == nullptr) return kBadState;
  release(c);
  c->zlevel = c->zwindow = c->zalgorithm = 0;
  return kOk;
}
