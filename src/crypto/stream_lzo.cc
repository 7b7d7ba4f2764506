// Compressing and decompressing LZO chunks, and the two settings of the process that they know.
#include "crypto/stream_lzo.h"

#include <kel/crypt.h>
#include <kel/logging.h>

#include <lzo/lzo1x.h>

#include <atomic>
#include <mutex>

#include "crypto/stream_format.h"
#include "internal/bytes.h"

namespace kel::internal::stream {
namespace {

using CompressFn = int (*)(const lzo_bytep, lzo_uint, lzo_bytep, lzo_uintp, lzo_voidp);

struct Compressor {
  int max_level;  ///< serves the levels up to this one that no earlier row serves
  std::size_t work_size;
  CompressFn compress;
};

/// The compressors that the library offers: 11, 12, 14 and 15 dictionary bits.
constexpr Compressor kCompressors[] = {
    {11, LZO1X_1_11_MEM_COMPRESS, lzo1x_1_11_compress},
    {12, LZO1X_1_12_MEM_COMPRESS, lzo1x_1_12_compress},
    {14, LZO1X_1_MEM_COMPRESS, lzo1x_1_compress},
    {LzoCompressor::kMaxLevel, LZO1X_1_15_MEM_COMPRESS, lzo1x_1_15_compress},
};

const Compressor& compressor_of(int level) {
  const Compressor* row = kCompressors;
  while (row->max_level < level) ++row;
  return *row;
}

/// When a sample of `sample_ratio` thousandths has at least `lower_bound` bytes and does not shrink
/// below `ratio` percent, the data are stored as they are.
struct Adaptive {
  unsigned ratio = 95;
  unsigned sample_ratio = 10;
  unsigned lower_bound = 1024;
};

constexpr Adaptive kDefaultAdaptive;
std::atomic<const Adaptive*> adaptive{&kDefaultAdaptive};

/// Whether `size` bytes stay above `ratio` percent of themselves; `out` has room for the worst
/// case.
bool hardly_shrinks(const unsigned char* in, std::size_t size, unsigned ratio, unsigned char* out) {
  alignas(16) unsigned char work[LZO1X_1_11_MEM_COMPRESS];
  lzo_uint compressed = 0;
  return lzo1x_1_11_compress(in, size, out, &compressed, work) == LZO_E_OK &&
         std::uint64_t{compressed} * 100 > std::uint64_t{size} * ratio;
}

bool looks_incompressible(const unsigned char* in, std::size_t length, unsigned char* out) {
  const Adaptive& rule = *adaptive.load(std::memory_order_acquire);
  if (rule.ratio >= 100) return false;
  const std::size_t sample = std::min(length, length * rule.sample_ratio / 1000);
  return sample != 0 && sample >= rule.lower_bound && hardly_shrinks(in, sample, rule.ratio, out) &&
         hardly_shrinks(in + length - sample, sample, rule.ratio, out);
}

void log_use_once() {
  static std::once_flag once;
  std::call_once(once, [] { InfoA(-1, "%s: Using LZOPRO compression", "lzo_compress_raw"); });
}

}  // namespace

std::size_t LzoCompressor::work_size(int level) { return compressor_of(level).work_size; }

bool LzoCompressor::init(int level) {
  level_ = level;
  work_.reset(static_cast<unsigned char*>(std::malloc(work_size(level))));
  return work_ != nullptr;
}

std::size_t LzoCompressor::make_chunk(const unsigned char* in, std::size_t length,
                                      unsigned char* out) {
  unsigned char* const data = out + kLzoWordSize;
  const auto word = static_cast<std::uint32_t>(length);
  if (!looks_incompressible(in, length, data)) {
    log_use_once();
    lzo_uint compressed = 0;
    if (compressor_of(level_).compress(in, length, data, &compressed, work_.get()) != LZO_E_OK)
      return 0;
    if (compressed < length) {
      store_be(out, word | kLzoCompressed);
      return kLzoWordSize + compressed;
    }
  }
  store_be(out, word);
  std::memcpy(data, in, length);
  return kLzoWordSize + length;
}

bool lzo_decompress(const unsigned char* in, std::size_t size, unsigned char* out,
                    std::size_t length) {
  lzo_uint written = length;
  return lzo1x_decompress_safe(in, size, out, &written, nullptr) == LZO_E_OK && written == length;
}

}  // namespace kel::internal::stream

using namespace kel::internal::stream;

int lzo_compression_init() {
  static const int result = lzo_init() == LZO_E_OK ? kOk : kDataError;
  return result;
}

void adaptive_compression_init(unsigned ratio, unsigned sampleRatio, unsigned lowerBound) {
  static const Adaptive chosen{ratio, sampleRatio, lowerBound};
  adaptive.store(&chosen, std::memory_order_release);
}
