// Archive streams beside their bare parts: one compression of the whole buffer, one encryption of
// the result, into buffers that are there already.
#include <kel/crypt.h>

#include <benchmark/benchmark.h>
#include <lzo/lzo1x.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <zlib.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t kSize = 4 << 20;
constexpr int kAesCtr = 3;
constexpr int kZlibLevel = 5;  // what the library takes by default
constexpr int kZlibMemoryLevel = 9;

using Buffer = std::vector<unsigned char>;

/// Words of a small vocabulary, common ones more often, in lines: shrinks as prose does.
const Buffer& text() {
  static const Buffer made = [] {
    std::mt19937 random(7);
    std::vector<std::string> words(4000);
    for (std::string& word : words)
      for (const size_t length = 2 + random() % 9; word.size() < length;)
        word += static_cast<char>('a' + static_cast<char>(random() % 26));
    Buffer out;
    while (out.size() < kSize) {
      const std::string& word =
          words[(random() % words.size()) * (random() % words.size()) / words.size()];
      out.insert(out.end(), word.begin(), word.end());
      out.push_back(random() % 12 == 0 ? '\n' : ' ');
    }
    out.resize(kSize);
    return out;
  }();
  return made;
}

void finish(benchmark::State& state, size_t stored) {
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
  state.counters["percent"] = 100.0 * static_cast<double>(stored) / kSize;
}

const KelKey& key() {
  static const KelKey made = KelKey::NewKey("0123456789abcdef0123456789abcdef");
  return made;
}

size_t write_stream(c_stream_t& c, Buffer& out) {
  c.next_in = text().data();
  c.avail_in = kSize;
  c.next_out = out.data();
  c.avail_out = static_cast<unsigned>(out.size());
  return dcpEncrypt(&c) == 1 ? c.total_out : 0;
}

void kel_write(benchmark::State& state, unsigned long flags) {
  Buffer out(2 * kSize);
  size_t stored = 0;
  c_stream_t c{};
  dcpEncryptInit(&c, flags, key(), kAesCtr);
  for (auto _ : state) {
    dcpEncryptReset(&c, key(), kAesCtr);
    stored = write_stream(c, out);
    if (stored == 0) state.SkipWithError("the stream was not written");
  }
  dcpEncryptEnd(&c);
  finish(state, stored);
}

void kel_read(benchmark::State& state, unsigned long flags) {
  Buffer stream(2 * kSize);
  Buffer out(kSize);
  c_stream_t c{};
  dcpEncryptInit(&c, flags, key(), kAesCtr);
  const size_t stored = write_stream(c, stream);
  dcpEncryptEnd(&c);
  dcpDecryptInit(&c, key(), kAesCtr);
  for (auto _ : state) {
    dcpDecryptReset(&c, key(), kAesCtr);
    c.next_in = stream.data();
    c.avail_in = static_cast<unsigned>(stored);
    c.next_out = out.data();
    c.avail_out = kSize;
    if (dcpDecrypt(&c, 1) != 1) state.SkipWithError("the stream was not read");
  }
  dcpDecryptEnd(&c);
  if (out != text()) state.SkipWithError("the stream holds something else");
  finish(state, stored);
}

/// AES-256-CTR as a user of OpenSSL runs it.
class Aes {
 public:
  Aes() : context_(EVP_CIPHER_CTX_new()) {}
  ~Aes() { EVP_CIPHER_CTX_free(context_); }
  Aes(const Aes&) = delete;
  Aes& operator=(const Aes&) = delete;

  void run(const unsigned char* in, size_t size, unsigned char* out) {
    unsigned char iv[16];
    RAND_bytes(iv, sizeof iv);
    int written = 0;
    EVP_EncryptInit_ex(context_, EVP_aes_256_ctr(), nullptr, key().Bytes(), iv);
    EVP_EncryptUpdate(context_, out, &written, in, static_cast<int>(size));
    EVP_EncryptFinal_ex(context_, out + written, &written);
  }

 private:
  EVP_CIPHER_CTX* context_;
};

struct Lzo {
  Buffer work = Buffer(LZO1X_1_MEM_COMPRESS);

  Lzo() { static_cast<void>(lzo_init()); }
  size_t compress(unsigned char* out, size_t) {
    lzo_uint size = 0;
    lzo1x_1_compress(text().data(), kSize, out, &size, work.data());
    return size;
  }
  bool expand(const unsigned char* in, size_t size, unsigned char* out) {
    lzo_uint written = kSize;
    return lzo1x_decompress_safe(in, size, out, &written, nullptr) == LZO_E_OK && written == kSize;
  }
};

struct Zlib {
  z_stream out_stream{};
  z_stream in_stream{};

  Zlib() {
    deflateInit2(&out_stream, kZlibLevel, Z_DEFLATED, -15, kZlibMemoryLevel, Z_DEFAULT_STRATEGY);
    inflateInit2(&in_stream, -15);
  }
  ~Zlib() {
    deflateEnd(&out_stream);
    inflateEnd(&in_stream);
  }
  Zlib(const Zlib&) = delete;
  Zlib& operator=(const Zlib&) = delete;

  size_t compress(unsigned char* out, size_t room) {
    deflateReset(&out_stream);
    out_stream.next_in = const_cast<Bytef*>(text().data());
    out_stream.avail_in = kSize;
    out_stream.next_out = out;
    out_stream.avail_out = static_cast<uInt>(room);
    return deflate(&out_stream, Z_FINISH) == Z_STREAM_END ? out_stream.total_out : 0;
  }
  bool expand(const unsigned char* in, size_t size, unsigned char* out) {
    inflateReset(&in_stream);
    in_stream.next_in = const_cast<Bytef*>(in);
    in_stream.avail_in = static_cast<uInt>(size);
    in_stream.next_out = out;
    in_stream.avail_out = kSize;
    return inflate(&in_stream, Z_FINISH) == Z_STREAM_END;
  }
};

template <class Compressor>
void bare_write(benchmark::State& state) {
  Compressor compressor;
  Aes aes;
  Buffer compressed(2 * kSize);
  Buffer out(2 * kSize);
  size_t stored = 0;
  for (auto _ : state) {
    stored = compressor.compress(compressed.data(), compressed.size());
    aes.run(compressed.data(), stored, out.data());
    benchmark::DoNotOptimize(out.data());
  }
  finish(state, stored);
}

/// Counter mode decrypts as it encrypts; what it decrypts to is prepared beforehand.
template <class Compressor>
void bare_read(benchmark::State& state) {
  Compressor compressor;
  Aes aes;
  Buffer compressed(2 * kSize);
  Buffer decrypted(2 * kSize);
  Buffer out(kSize);
  const size_t stored = compressor.compress(compressed.data(), compressed.size());
  for (auto _ : state) {
    aes.run(compressed.data(), stored, decrypted.data());
    benchmark::DoNotOptimize(decrypted.data());
    if (!compressor.expand(compressed.data(), stored, out.data()))
      state.SkipWithError("the data were not expanded");
  }
  finish(state, stored);
}

BENCHMARK_CAPTURE(kel_write, lzo, 0UL)->Name("stream_write/lzo_aes/kel");
BENCHMARK(bare_write<Lzo>)->Name("stream_write/lzo_aes/lzo1x_evp");
BENCHMARK_CAPTURE(kel_write, zlib, KEL_CRYPT_ZLIB)->Name("stream_write/zlib_aes/kel");
BENCHMARK(bare_write<Zlib>)->Name("stream_write/zlib_aes/deflate_evp");
BENCHMARK_CAPTURE(kel_read, lzo, 0UL)->Name("stream_read/lzo_aes/kel");
BENCHMARK(bare_read<Lzo>)->Name("stream_read/lzo_aes/lzo1x_evp");
BENCHMARK_CAPTURE(kel_read, zlib, KEL_CRYPT_ZLIB)->Name("stream_read/zlib_aes/kel");
BENCHMARK(bare_read<Zlib>)->Name("stream_read/zlib_aes/inflate_evp");

}  // namespace
