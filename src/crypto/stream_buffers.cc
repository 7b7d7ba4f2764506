// Archive streams of one buffer in one call.
#include <kel/crypt.h>
#include <kel/logging.h>

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "crypto/stream_format.h"
#include "internal/bytes.h"
#include "internal/handles.h"
#include "internal/report.h"

using namespace kel::internal;
using namespace kel::internal::stream;

namespace {

/// Codes under which bad arguments are reported.
constexpr int kEncryptArguments = 1144;
constexpr int kDecryptArguments = 1120;

/// Smallest output buffer that dcpDecryptData() starts with.
constexpr std::size_t kMinOutput = 32768;
constexpr unsigned kMiB = 1U << 20;

/// What errno says about a stream that ended with `code`.
int errno_of(int code) {
  switch (code) {
    case kSystemError:
      return errno;
    case kDataError:
      return EBADMSG;
    case kNoMemory:
      return ENOMEM;
    case kNoProgress:
      return ENOBUFS;
    case kBadKey:
      return EACCES;
    default:
      return EINVAL;
  }
}

/// Sets errno for a stream that ended with `code`; the code's text.
const char* note_failure(int code) {
  errno = errno_of(code);
  return dcpCryptError(code);
}

/// Ends a stream when the scope does.
class StreamEnd {
 public:
  StreamEnd(c_stream_t& c, int (*end)(c_stream_t*)) : c_(c), end_(end) {}
  ~StreamEnd() {
    const ErrnoGuard keep;
    end_(&c_);
  }
  StreamEnd(const StreamEnd&) = delete;
  StreamEnd& operator=(const StreamEnd&) = delete;

 private:
  c_stream_t& c_;
  int (*end_)(c_stream_t*);
};

/// Least room that is tried for `in` bytes, below 2^32: in * 1.05 + 100.
constexpr unsigned long least_output(unsigned long in) { return in + (in + 19) / 20 + 100; }

/// The blocks' contents of a plain stream, as far as input and output go.
std::size_t copy_blocks(const unsigned char* in, std::size_t in_size, unsigned char* out,
                        std::size_t out_size) {
  std::size_t read = kHeaderSize;
  std::size_t written = 0;
  while (in_size - read >= kBlockHeaderSize && written < out_size) {
    const auto length = load_be<std::uint32_t>(in + read);
    if (length == kTrailerMark) break;
    read += kBlockHeaderSize;
    const std::size_t copied = std::min<std::size_t>({length, in_size - read, out_size - written});
    std::memcpy(out + written, in + read, copied);
    read += copied;
    written += copied;
  }
  return written;
}

/// First output size of dcpDecryptData() for `in` bytes of input.
std::size_t guess_output(unsigned in, unsigned wanted) {
  std::size_t size = wanted;
  if (wanted == 0) {
    if (in <= kMiB)
      size = std::size_t{3} * in;
    else if (in <= 8 * kMiB)
      size = std::size_t{2} * in;
    else
      size = in > UINT_MAX - 8 * kMiB ? in : in + 8 * kMiB;
  }
  return std::max(size, kMinOutput);
}

/// The next size of an output buffer of `size` bytes that is full after `done` of `in` input bytes:
/// by as much as the rest of the input promises, at least double; 0 when it cannot grow.
std::size_t grow_output(std::size_t size, std::uint64_t done, unsigned left) {
  constexpr std::size_t kMost = UINT_MAX & ~7U;
  const double ratio = done == 0 ? 0 : static_cast<double>(size) / static_cast<double>(done);
  const double promised = std::min(ratio * left, static_cast<double>(kMost));
  const std::size_t more = std::max(size, static_cast<std::size_t>(promised));
  return size >= kMost ? 0 : std::min(kMost, (size + more + 7) & ~std::size_t{7});
}

/// Output of dcpDecryptData(): a block that grows until the stream fits.
struct Output {
  MallocPtr<unsigned char> data;
  std::size_t size = 0;

  bool resize(std::size_t wanted) {
    void* const moved = std::realloc(data.get(), wanted);
    if (moved == nullptr) return fail_allocation(false, wanted, "dcpDecryptData");
    static_cast<void>(data.release());
    data.reset(static_cast<unsigned char*>(moved));
    size = wanted;
    return true;
  }
  void offer(c_stream_t& c) const {
    c.next_out = data.get() + c.total_out;
    c.avail_out = static_cast<unsigned>(std::min<std::uint64_t>(size - c.total_out, UINT_MAX));
  }
};

}  // namespace

long dcpEncryptDataToBuffer(const KelKey& key, unsigned char cipherType, const unsigned char* in,
                            unsigned long inLen, unsigned char* out, unsigned long outLen,
                            unsigned long flags) {
  if (in == nullptr || out == nullptr || inLen == 0 || outLen == 0 || inLen > UINT_MAX) {
    report_warning(kEncryptArguments, "%s: invalid argument specified [Internal Error]", __func__);
    return fail_quietly(-1L, EINVAL);
  }
  if (outLen < least_output(inLen)) return fail_quietly(-1L, ENOBUFS);

  c_stream_t c{};
  const StreamEnd end(c, dcpEncryptEnd);
  int code = dcpEncryptInit(&c, flags, key, cipherType);
  if (code != kOk) {
    report_error(code, "%s: Could not initialize encryption (%s)", __func__, note_failure(code));
    return -1;
  }
  c.next_in = in;
  c.avail_in = static_cast<unsigned>(inLen);
  do {
    c.next_out = out + c.total_out;
    c.avail_out = static_cast<unsigned>(std::min<unsigned long>(outLen - c.total_out, UINT_MAX));
    code = c.avail_out == 0 ? kNoProgress : dcpEncrypt(&c);
  } while (code == kOk);
  if (code == kComplete) return static_cast<long>(c.total_out);
  report_error(code, "%s: Encryption error (%s)", __func__, note_failure(code));
  return -1;
}

long dcpDecryptDataToBuffer(const KelKey& key, unsigned char cipherType, unsigned char* in,
                            unsigned inLen, unsigned char* out, unsigned outLen) {
  if (in == nullptr || out == nullptr || inLen == 0 || outLen == 0) {
    report_warning(kDecryptArguments, "invalid argument specified [Internal Error]");
    return fail_quietly(-1L, EINVAL);
  }
  const int known = static_cast<int>(std::min<std::size_t>(inLen, kHeaderSize));
  constexpr int kPlainStream = KEL_MAGIC_SIMPLE | KEL_MAGIC_V2;
  if (kelMagicDecode(nullptr, in, known, nullptr) == kPlainStream)
    return static_cast<long>(copy_blocks(in, inLen, out, outLen));

  c_stream_t c{};
  const StreamEnd end(c, dcpDecryptEnd);
  int code = dcpDecryptInit(&c, key, cipherType);
  if (code != kOk) {
    report_error(code, "<stream>: could not initialize decryption (%s)", note_failure(code));
    return -1;
  }
  c.next_in = in;
  c.avail_in = inLen;
  c.next_out = out;
  c.avail_out = outLen;
  code = dcpDecrypt(&c, 1);
  if (code == kComplete) {
    if (TraceOn())
      __Trace("<stream>: decrypt completed, %lu bytes input, %lu bytes output)", c.total_in,
              c.total_out);
    return static_cast<long>(c.total_out);
  }
  if (code == kOk) code = kNoProgress;
  report_error(code, "<stream>: decryption error (%s)", note_failure(code));
  return -1;
}

unsigned char* dcpDecryptData(const KelKey& key, unsigned char cipherType, const unsigned char* in,
                              unsigned* len, unsigned*, unsigned initialSize) {
  if (in == nullptr || len == nullptr) {
    report_warning(kDecryptArguments, "invalid argument specified [Internal Error]");
    return fail_quietly<unsigned char*>(nullptr, EINVAL);
  }
  c_stream_t c{};
  const StreamEnd end(c, dcpDecryptEnd);
  int code = dcpDecryptInit(&c, key, cipherType);
  if (code != kOk) {
    report_error(code, "could not initialize decryption (%s)", note_failure(code));
    return nullptr;
  }
  Output output;
  if (!output.resize(guess_output(*len, initialSize))) return nullptr;
  if (TraceOn())
    __Trace("%s: %u bytes input, initial output buffer is %u bytes", __func__, *len,
            static_cast<unsigned>(output.size));
  c.next_in = in;
  c.avail_in = *len;
  for (;;) {
    output.offer(c);
    code = dcpDecrypt(&c, c.avail_in == 0);
    if (code != kOk) break;
    if (c.avail_out != 0) continue;  // all input is taken: the next call ends the stream
    const std::size_t size = grow_output(output.size, c.total_in, c.avail_in);
    if (size == 0) {
      code = kNoMemory;
      break;
    }
    if (TraceOn())
      __Trace("%s: resizing output buffer from %u to %u bytes", __func__,
              static_cast<unsigned>(output.size), static_cast<unsigned>(size));
    if (!output.resize(size)) return nullptr;
  }
  if (code == kComplete) {
    *len = static_cast<unsigned>(c.total_out);
    return output.data.release();
  }
  report_error(code, "decryption error (%s)", note_failure(code));
  return nullptr;
}
