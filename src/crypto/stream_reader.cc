// Reading archive streams. Every length is checked when it is read, and memory is allocated for
// data that have arrived only, so that no input can make the reader hold more than it was given.
#include "crypto/stream_reader.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "crypto/stream_lzo.h"
#include "internal/bytes.h"
#include "internal/report.h"

namespace kel::internal::stream {
namespace {

constexpr int kRawDeflateWindow = -15;
constexpr std::size_t kFirstCollection = 65536;
/// What a cipher may write beyond the bytes it is given: those it held back.
constexpr std::size_t kCipherSlack = 8;

/// The verdict when input has run out.
constexpr int starved(bool flush) { return flush ? kDataError : kOk; }

}  // namespace

bool Inflater::start() {
  if (ready_) return inflateReset(&z_) == Z_OK;
  ready_ = inflateInit2(&z_, kRawDeflateWindow) == Z_OK;
  return ready_;
}

unsigned char* Collected::room(std::size_t size) {
  const std::size_t needed = size_ + size;
  if (needed > capacity_) {
    const std::size_t grown = std::max({needed, 2 * capacity_, kFirstCollection});
    void* const moved = std::realloc(data_.get(), grown);
    if (moved == nullptr) return nullptr;
    static_cast<void>(data_.release());
    data_.reset(static_cast<unsigned char*>(moved));
    capacity_ = grown;
  }
  return data_.get() + size_;
}

StreamReader::~StreamReader() { OPENSSL_cleanse(&key_, sizeof key_); }

int StreamReader::start(c_stream_t& c, const KelKey& key, int cipher_type) {
  c.total_in = c.total_out = c.saved_last = c.saved_total = 0;
  stage_ = Stage::kHeader;
  failure_ = 0;
  inflated_ = false;
  chunk_.word_size = 0;
  chunk_.decoded = false;
  chunk_.data.clear();
  waiting_ = piece_ = {};
  decoded_.reset();
  held_size_ = 0;
  key_ = key;
  cipher_.reset(Cipher::NewCipher(cipher_type));
  if (cipher_ == nullptr) failure_ = new_cipher_failure(cipher_type);
  return failure_;
}

int StreamReader::run(c_stream_t& c, bool flush) {
  if (failure_ != 0) return failure_;
  const bool output_waits = !waiting_.empty() || !piece_.empty() || stage_ == Stage::kTotal;
  if (c.avail_out == 0 && output_waits) return kNoProgress;
  call_start_ = c.total_out;
  const std::uint64_t input_start = c.total_in;
  Verdict verdict;
  while (!verdict) {
    deliver(c);
    verdict = waiting_.empty() ? step(c, flush) : kOk;
  }
  failure_ = std::min(*verdict, 0);
  const bool idle = c.total_in == input_start && c.total_out == call_start_;
  return *verdict == kOk && idle && c.avail_in != 0 ? kNoProgress : *verdict;
}

StreamReader::Verdict StreamReader::step(c_stream_t& c, bool flush) {
  switch (stage_) {
    case Stage::kHeader:
      return read_header(c, flush);
    case Stage::kPassThrough:
      return pass_through(c, flush);
    case Stage::kKeyPrefix:
      return read_key_prefix(c, flush);
    case Stage::kBlockHeader:
      return read_block_header(c, flush);
    case Stage::kPayload:
      return read_payload(c, flush);
    case Stage::kTrailer:
      return read_trailer(c, flush);
    case Stage::kTotal:
      return finish(c);
    case Stage::kDone:
      break;
  }
  return kComplete;
}

/// Collects `size` bytes of the frame in held_; false when there are not enough yet.
bool StreamReader::gather(c_stream_t& c, std::size_t size) {
  const std::size_t taken = std::min<std::size_t>(size - held_size_, c.avail_in);
  if (taken != 0) std::memcpy(held_ + held_size_, c.next_in, taken);
  consume_input(c, taken);
  held_size_ += taken;
  if (held_size_ < size) return false;
  held_size_ = 0;
  return true;
}

void StreamReader::deliver(c_stream_t& c) {
  waiting_ = waiting_.subspan(put_output(c, waiting_.data(), waiting_.size()));
}

StreamReader::Verdict StreamReader::read_header(c_stream_t& c, bool flush) {
  if (!gather(c, kHeaderSize)) return starved(flush);
  std::uint64_t block_size = 0;
  flags_ = kelMagicFromBuffer(held_, &block_size);
  if (flags_ < 0) return kDataError;
  constexpr int kModes =
      KEL_MAGIC_LZO | KEL_MAGIC_DEFLATED | KEL_MAGIC_ENCRYPTED | KEL_MAGIC_SIMPLE;
  if ((flags_ & kModes) == 0) {
    waiting_ = Bytes(held_, kHeaderSize);
    stage_ = Stage::kPassThrough;
    return {};
  }
  coding_ = (flags_ & KEL_MAGIC_LZO) != 0        ? Coding::kLzo
            : (flags_ & KEL_MAGIC_DEFLATED) != 0 ? Coding::kZlib
                                                 : Coding::kNone;
  decrypts_ = (flags_ & KEL_MAGIC_ENCRYPTED) != 0;
  // Nothing of the block size is allocated: it only bounds the lengths of blocks.
  std::uint64_t capacity = kTrailerMark - 1;
  if ((flags_ & KEL_MAGIC_V2) != 0) {
    if (block_size % kBlockUnit != 0) return kDataError;
    capacity =
        std::min(capacity, block_size - std::min<std::uint64_t>(block_size, kBlockHeaderSize));
  }
  max_payload_ = static_cast<std::uint32_t>(capacity);
  stage_ = Stage::kKeyPrefix;
  return {};
}

StreamReader::Verdict StreamReader::pass_through(c_stream_t& c, bool flush) {
  consume_input(c, put_output(c, c.next_in, c.avail_in));
  return flush && c.avail_in == 0 ? kComplete : kOk;
}

StreamReader::Verdict StreamReader::read_key_prefix(c_stream_t& c, bool flush) {
  if (decrypts_) {
    const int size = cipher_->GetHeaderSize();
    if (!gather(c, static_cast<std::size_t>(size))) return starved(flush);
    const bool ready = cipher_->Init(1, key_, cipher_->UseIv8() ? nullptr : held_);
    OPENSSL_cleanse(&key_, sizeof key_);
    if (!ready) return kBadKey;
    if (cipher_->UseIv8() && (flags_ & KEL_MAGIC_KEY_CHECK) != 0) {
      if (cipher_->Process(held_, size, false, held_, nullptr) != size) return kDataError;
      if (std::memcmp(held_, held_ + 4, 4) != 0) return kBadKey;
    }
  }
  return start_coding();
}

StreamReader::Verdict StreamReader::start_coding() {
  if (coding_ == Coding::kZlib && !inflater_.start()) return kNoMemory;
  if (coding_ == Coding::kLzo && lzo_compression_init() != kOk) return kBadState;
  stage_ = Stage::kBlockHeader;
  return {};
}

StreamReader::Verdict StreamReader::read_block_header(c_stream_t& c, bool flush) {
  if (!gather(c, kBlockHeaderSize)) return starved(flush);
  const auto length = load_be<std::uint32_t>(held_);
  const auto pad = load_be<std::uint32_t>(held_ + 4);
  if (length == kTrailerMark) {
    stage_ = Stage::kTrailer;
    return {};
  }
  if (length == 0 || length > max_payload_ || pad > length) return kDataError;
  if (decrypts_ && length % static_cast<unsigned>(cipher_->GetPaddingSize()) != 0)
    return kDataError;
  payload_left_ = length;
  kept_left_ = length - pad;
  stage_ = Stage::kPayload;
  return {};
}

StreamReader::Verdict StreamReader::read_payload(c_stream_t& c, bool flush) {
  if (!piece_.empty()) return feed(c, piece_);
  if (payload_left_ == 0) {
    stage_ = Stage::kBlockHeader;
    return {};
  }
  if (c.avail_in == 0) return starved(flush);
  if (decrypts_) return decrypt_piece(c);

  if (kept_left_ == 0) {
    const std::uint32_t skipped = std::min(c.avail_in, payload_left_);
    consume_input(c, skipped);
    payload_left_ -= skipped;
    return {};
  }
  const std::uint32_t offered = std::min(c.avail_in, kept_left_);
  Bytes piece(c.next_in, offered);
  const Verdict verdict = feed(c, piece);
  const auto taken = offered - static_cast<std::uint32_t>(piece.size());
  consume_input(c, taken);
  payload_left_ -= taken;
  kept_left_ -= taken;
  return verdict;
}

/// Decrypts what has come of the block: into piece_, or at once to where it is collected.
StreamReader::Verdict StreamReader::decrypt_piece(c_stream_t& c) {
  const bool collect = collects();
  const std::size_t most = collect ? kMaxCipherPiece : sizeof work_ - kCipherSlack;
  const std::size_t size = std::min<std::size_t>({c.avail_in, payload_left_, most});
  unsigned char* const to = collect ? chunk_.data.room(size + kCipherSlack) : work_;
  if (to == nullptr) return kNoMemory;
  const int decrypted = cipher_->Process(c.next_in, static_cast<int>(size), false, to, nullptr);
  if (decrypted < 0) return kSystemError;
  consume_input(c, size);
  payload_left_ -= static_cast<std::uint32_t>(size);
  const std::uint32_t kept = std::min(static_cast<std::uint32_t>(decrypted), kept_left_);
  kept_left_ -= kept;
  if (!collect) {
    piece_ = Bytes(work_, kept);
    return {};
  }
  chunk_.data.add(kept);
  if (chunk_.data.size() > LzoCompressor::worst_case(chunk_.length)) return kDataError;
  return {};
}

/// Passes decrypted payload on, as far as it is taken.
StreamReader::Verdict StreamReader::feed(c_stream_t& c, Bytes& piece) {
  if (coding_ == Coding::kZlib) return inflate_piece(c, piece);
  if (coding_ == Coding::kLzo) return feed_chunk(c, piece);
  piece = piece.subspan(put_output(c, piece.data(), piece.size()));
  return piece.empty() ? Verdict{} : kOk;
}

StreamReader::Verdict StreamReader::inflate_piece(c_stream_t& c, Bytes& piece) {
  if (inflated_) return kDataError;  // data behind their end
  unsigned char nowhere;
  z_stream& z = inflater_.z();
  z.next_in = const_cast<Bytef*>(piece.data());
  z.avail_in = static_cast<uInt>(piece.size());
  z.next_out = c.next_out != nullptr ? c.next_out : &nowhere;
  z.avail_out = c.avail_out;
  const int code = inflate(&z, Z_NO_FLUSH);
  const unsigned produced = c.avail_out - z.avail_out;
  c.next_out += produced;
  c.avail_out -= produced;
  c.total_out += produced;
  piece = piece.last(z.avail_in);
  if (code == Z_STREAM_END)
    inflated_ = true;
  else if (code != Z_OK && code != Z_BUF_ERROR)
    return code == Z_MEM_ERROR ? kNoMemory : kDataError;
  return piece.empty() || inflated_ ? Verdict{} : kOk;
}

StreamReader::Verdict StreamReader::feed_chunk(c_stream_t& c, Bytes& piece) {
  if (chunk_.word_size < kLzoWordSize) {
    const std::size_t taken = std::min(piece.size(), kLzoWordSize - chunk_.word_size);
    std::memcpy(chunk_.word + chunk_.word_size, piece.data(), taken);
    piece = piece.subspan(taken);
    chunk_.word_size += taken;
    if (chunk_.word_size < kLzoWordSize) return {};
    const auto word = load_be<std::uint32_t>(chunk_.word);
    chunk_.compressed = (word & kLzoCompressed) != 0;
    chunk_.length = chunk_.raw_left = word & kLzoMaxLength;
  }
  if (piece.empty()) return {};  // the word came alone
  if (chunk_.compressed) {
    unsigned char* const to = chunk_.data.room(piece.size());
    if (to == nullptr) return kNoMemory;
    std::memcpy(to, piece.data(), piece.size());
    chunk_.data.add(piece.size());
    piece = {};
    if (chunk_.data.size() > LzoCompressor::worst_case(chunk_.length)) return kDataError;
    return {};
  }
  if (piece.size() > chunk_.raw_left) return kDataError;
  const std::size_t sent = put_output(c, piece.data(), piece.size());
  chunk_.raw_left -= static_cast<std::uint32_t>(sent);
  piece = piece.subspan(sent);
  return piece.empty() ? Verdict{} : kOk;
}

StreamReader::Verdict StreamReader::read_trailer(c_stream_t& c, bool flush) {
  if (!gather(c, kTrailerRest)) return starved(flush);
  total_ = load_be<std::uint64_t>(held_ + kTrailerRest - sizeof total_);
  stage_ = Stage::kTotal;
  return {};
}

/// The trailer is read: brings out what the decompressor still has and holds it to the total.
StreamReader::Verdict StreamReader::finish(c_stream_t& c) {
  if (coding_ == Coding::kLzo) {
    if (const Verdict verdict = finish_chunk(c)) return verdict;
    if (!waiting_.empty()) return {};
  }
  while (coding_ == Coding::kZlib && !inflated_) {
    // What the total cuts off is looked at all the same, so that windows do not decide whether
    // damage is found.
    c_stream_t beyond{};
    beyond.next_out = work_;
    beyond.avail_out = sizeof work_;
    c_stream_t& to = c.total_out < total_ ? c : beyond;
    if (to.avail_out == 0) return kOk;
    const std::uint64_t before = to.total_out;
    Bytes nothing;
    if (const Verdict verdict = inflate_piece(to, nothing)) return verdict;
    if (to.total_out == before) break;
  }
  if (c.total_out < total_) return kDataError;
  cut_output(c);
  stage_ = Stage::kDone;
  return kComplete;
}

StreamReader::Verdict StreamReader::finish_chunk(c_stream_t& c) {
  if (chunk_.word_size == 0 || chunk_.decoded) return {};
  if (chunk_.word_size < kLzoWordSize) return kDataError;
  if (chunk_.compressed) return decode_chunk(c);
  return chunk_.raw_left == 0 ? Verdict{} : kDataError;
}

/// Decompresses the chunk into the output window, or where there is no room into memory.
StreamReader::Verdict StreamReader::decode_chunk(c_stream_t& c) {
  const std::size_t length = chunk_.length;
  const std::size_t size = chunk_.data.size();
  if (total_ > length || !lzo_can_expand(size, length)) return kDataError;
  const bool direct = length != 0 && length <= c.avail_out;
  unsigned char* to = c.next_out;
  if (!direct) {
    decoded_.reset(static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(length, 1))));
    to = decoded_.get();
    if (to == nullptr) return kNoMemory;
  }
  if (!lzo_decompress(chunk_.data.data(), size, to, length)) return kDataError;
  chunk_.decoded = true;
  if (direct) {
    c.next_out += length;
    c.avail_out -= static_cast<unsigned>(length);
    c.total_out += length;
  } else {
    waiting_ = Bytes(to, static_cast<std::size_t>(total_));
  }
  return {};
}

void StreamReader::cut_output(c_stream_t& c) {
  const std::uint64_t excess = c.total_out - total_;
  const std::uint64_t undone = std::min(excess, c.total_out - call_start_);
  c.next_out -= undone;
  c.avail_out += static_cast<unsigned>(undone);
  c.total_out = total_;
}

}  // namespace kel::internal::stream

using namespace kel::internal;
using namespace kel::internal::stream;

namespace {

StreamReader* reader_of(const c_stream_t* c) {
  return c == nullptr ? nullptr : static_cast<StreamReader*>(c->state);
}

void release(c_stream_t* c) {
  delete reader_of(c);
  c->state = nullptr;
}

}  // namespace

int dcpDecryptInit(c_stream_t* c, const KelKey& key, unsigned char cipherType) {
  if (c == nullptr) return kBadState;
  auto* reader = new (std::nothrow) StreamReader;
  c->state = reader;
  if (reader == nullptr) return fail_allocation(kNoMemory, sizeof(StreamReader), __func__);
  const int code = reader->start(*c, key, cipherType);
  if (code != kOk) release(c);
  return code;
}

int dcpDecryptReset(c_stream_t* c, const KelKey& key, unsigned char cipherType) {
  StreamReader* const reader = reader_of(c);
  return reader == nullptr ? kBadState : reader->start(*c, key, cipherType);
}

int dcpDecrypt(c_stream_t* c, int flush) {
  StreamReader* const reader = reader_of(c);
  if (reader == nullptr || (flush != 0 && flush != 1)) return kBadState;
  if ((c->next_in == nullptr && c->avail_in != 0) || (c->next_out == nullptr && c->avail_out != 0))
    return kBadState;
  return reader->run(*c, flush == 1);
}

int dcpDecryptEnd(c_stream_t* c) {
  if (reader_of(c) == nullptr) return kBadState;
  release(c);
  c->zlevel = c->zwindow = c->zalgorithm = 0;
  return kOk;
}
