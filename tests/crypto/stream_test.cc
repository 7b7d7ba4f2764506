#include <kel/blowfish.h>
#include <kel/crypt.h>
#include <kel/magic.h>

#include <lzo/lzo1x.h>
#include <zlib.h>

#include <thread>

#include "crypto/peer.h"
#include "crypto/stream_samples.h"

namespace {

using namespace kel::testing;

constexpr unsigned long kModes[] = {0,
                                    KEL_CRYPT_ZLIB,
                                    KEL_CRYPT_NO_COMPRESSION,
                                    KEL_CRYPT_NO_ENCRYPTION,
                                    KEL_CRYPT_NO_ENCRYPTION | KEL_CRYPT_ZLIB,
                                    kPlain};

/// Settings of every mode with every cipher type that makes a difference to it.
std::vector<StreamSettings> all_settings() {
  std::vector<StreamSettings> all;
  for (const unsigned long flags : kModes)
    for (int type = 0; type < 4; ++type) {
      const StreamSettings s{flags, static_cast<unsigned char>(type)};
      if (s.encrypts() || type == 0) all.push_back(s);
    }
  return all;
}

std::string describe(const StreamSettings& s) {
  return "flags " + std::to_string(s.flags) + ", type " + std::to_string(s.type);
}

std::string be(uint64_t value, int size) {
  std::string text;
  while (size-- > 0) text += static_cast<char>(value >> 8 * size);
  return text;
}
uint64_t be_at(const std::string& text, size_t at, size_t size) {
  uint64_t value = 0;
  for (size_t i = 0; i < size; ++i)
    value = value << 8 | static_cast<unsigned char>(text.at(at + i));
  return value;
}
std::string magic(int flags, uint64_t block_size = 4096) {
  return "KEL " + be(static_cast<uint64_t>(flags), 2) + be(block_size, 8);
}
std::string block(const std::string& payload, uint32_t pad = 0) {
  return be(payload.size(), 4) + be(pad, 4) + payload;
}
std::string trailer(uint64_t total) { return be(0xFFFFFFFF, 4) + be(0, 8) + be(total, 8); }

std::string peer_decrypt(const std::string& in, int type, const std::string& iv) {
  std::string out(in.size(), '\0');
  auto* to = reinterpret_cast<unsigned char*>(out.data());
  if (type == 0) {
    BlowfishContext blowfish;
    BlowfishInit(&blowfish, kStreamKey.Bytes(), KelKey::kLength);
    BlowfishDecodeECB(&blowfish, in.data(), to, static_cast<uint32_t>(in.size()));
    return out;
  }
  const EVP_CIPHER* const ciphers[] = {EVP_aes_256_cfb128(), EVP_aes_256_ofb(), EVP_aes_256_ctr()};
  return peer_cipher(ciphers[type - 1], false, kStreamKey.Bytes(), iv.data(), in);
}

std::string peer_inflate(const std::string& in, size_t size) {
  std::string out(size, '\0');
  z_stream z = {};
  inflateInit2(&z, -15);
  z.next_in = const_cast<Bytef*>(bytes_of(in));
  z.avail_in = static_cast<uInt>(in.size());
  z.next_out = reinterpret_cast<Bytef*>(out.data());
  z.avail_out = static_cast<uInt>(size);
  EXPECT_EQ(inflate(&z, Z_FINISH), Z_STREAM_END);
  EXPECT_EQ(z.avail_in + z.avail_out, 0u);
  inflateEnd(&z);
  return out;
}

std::string peer_lzo(const std::string& chunk) {
  const uint64_t word = be_at(chunk, 0, 4);
  if (word < 0x80000000) return chunk.substr(4);
  std::string out(word & 0x7FFFFFFF, '\0');
  lzo_uint size = out.size();
  EXPECT_EQ(lzo1x_decompress_safe(bytes_of(chunk) + 4, chunk.size() - 4,
                                  reinterpret_cast<unsigned char*>(out.data()), &size, nullptr),
            LZO_E_OK);
  EXPECT_EQ(size, out.size());
  return out;
}

/// Takes a stream apart by the format alone, with other people's ciphers and decompressors.
std::string peer_read(const std::string& stream, const StreamSettings& s) {
  const bool encrypts = s.encrypts();
  const size_t prefix = !encrypts ? 0 : s.type == 3 ? 16 : 8;
  EXPECT_EQ(be_at(stream, 4, 2) & 0x1202, encrypts ? 0x1202u : 0u);
  const size_t capacity = be_at(stream, 6, 8) - 8;
  std::string iv(16, '\0');
  if (prefix == 16) iv = stream.substr(14, prefix);
  std::string encrypted = prefix == 8 ? stream.substr(14, prefix) : "";
  std::vector<std::pair<size_t, size_t>> pads;  // where, how many
  size_t at = 14 + prefix;
  for (uint64_t length; (length = be_at(stream, at, 4)) != 0xFFFFFFFF; at += 8 + length) {
    EXPECT_TRUE(length > 0 && length <= capacity) << length;
    encrypted += stream.substr(at + 8, length);
    const size_t pad = be_at(stream, at + 4, 4);
    EXPECT_TRUE(s.type == 0 ? pad < 8 : pad == 0);
    if (pad != 0) pads.emplace_back(encrypted.size() - pad, pad);
  }
  EXPECT_EQ(be_at(stream, at + 4, 8), 0u);
  EXPECT_EQ(stream.size(), at + 20);
  std::string payload = encrypts ? peer_decrypt(encrypted, s.type, iv) : encrypted;
  for (auto pad = pads.rbegin(); pad != pads.rend(); ++pad) {
    EXPECT_EQ(payload.substr(pad->first, pad->second), std::string(pad->second, '\0'));
    payload.erase(pad->first, pad->second);
  }
  if (prefix == 8) {
    EXPECT_EQ(payload.substr(0, 4), payload.substr(4, 4));
    payload.erase(0, 8);
  }
  const uint64_t total = be_at(stream, at + 12, 8);
  if (!payload.empty() && (s.flags & KEL_CRYPT_NO_COMPRESSION) == 0)
    payload = (s.flags & KEL_CRYPT_ZLIB) != 0 ? peer_inflate(payload, total) : peer_lzo(payload);
  EXPECT_EQ(payload.size(), total);
  return payload;
}

TEST(Stream, EveryModeAndSizeRoundTripsThroughAnyWindows) {
  const Hooked<"RAND_bytes", int(unsigned char*, int)> same_iv([](unsigned char* to, int size) {
    std::memset(to, 0x5a, static_cast<size_t>(size));
    return 1;
  });
  std::mt19937 random(7);
  for (const StreamSettings& s : all_settings()) {
    for (const size_t size : {0, 1, 7, 8, 10, 4087, 4088, 4089, 8184, 20001}) {
      SCOPED_TRACE(describe(s) + ", size " + std::to_string(size));
      const std::string data = sample_data(size);
      const std::string stream = write_stream(data, s);
      ASSERT_EQ(write_stream(data, s, &random), stream);
      EXPECT_EQ(peer_read(stream, s), data);
      const StreamResult good{1, data, stream.size()};
      EXPECT_EQ(read_stream(stream, s.type), good);
      EXPECT_EQ(read_stream(stream, s.type, &random), good);
      // What follows the stream is not touched.
      EXPECT_EQ(read_stream(stream + "behind", s.type, &random), good);
    }
  }
}

TEST(Stream, ThreadsUseStreamsOfTheirOwn) {
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 3; ++i)
    threads.emplace_back([i] {
      const std::string data = sample_data(110000 + i);
      for (const StreamSettings& s : all_settings()) {
        EXPECT_EQ(read_stream(write_stream(data, s), s.type).data, data) << describe(s);
      }
    });
  for (std::thread& thread : threads) thread.join();
}

TEST(Stream, LevelsWindowsAndAlgorithmsAreTakenOrRefused) {
  ReportCapture reports;
  const std::string data = sample_data(5000);
  const uint16_t lzo = KEL_CRYPT_ALGORITHM_LZO, zlib = KEL_CRYPT_ALGORITHM_ZLIB;
  const auto stream_of = [&](uint16_t algorithm, uint16_t level) {
    return write_stream(data, {KEL_CRYPT_NO_ENCRYPTION, 0, 0, level, algorithm});
  };
  for (uint16_t level = 0; level <= 17; ++level)
    for (const uint16_t algorithm : {lzo, zlib}) {
      const std::string stream = stream_of(algorithm, level);
      if (level > (algorithm == lzo ? 16 : 10)) {
        EXPECT_EQ(stream, "code -2") << level;
        continue;
      }
      EXPECT_EQ(read_stream(stream, 0).data, data) << level;
      EXPECT_EQ(be_at(stream, 6, 8), algorithm == lzo ? 143360u : 131072u);
    }
  EXPECT_GT(stream_of(zlib, 1).size(), data.size());  // stored
  EXPECT_EQ(stream_of(zlib, 0), stream_of(zlib, 6));
  for (const unsigned long flags : kModes) {
    for (const uint16_t window : std::initializer_list<uint16_t>{1, 11, 32})
      EXPECT_EQ(write_stream(data, {flags, 3, window}), "code -2");
    EXPECT_EQ(be_at(write_stream(data, {flags, 3, 20}), 6, 8) >> 20, 1u);
  }
  reports.take();
  EXPECT_EQ(write_stream(data, {0, 3, 0, 0, 3}), "code -3");
  EXPECT_EQ(write_stream(data, {0, 4}), "code -2");
  EXPECT_EQ(read_stream(data, 4).code, -2);
  EXPECT_EQ(reports.take().size(), 3u);
}

TEST(Stream, BytesOfSmallStreams) {
  const std::string ten = "0123456789";
  EXPECT_EQ(write_stream(ten, {kPlain, 0, 0}), magic(0x4001, 131072) + block(ten) + trailer(10));
  EXPECT_EQ(write_stream("", {KEL_CRYPT_NO_ENCRYPTION}), magic(0x4020, 8192) + trailer(0));
  EXPECT_EQ(write_stream("", {KEL_CRYPT_NO_ENCRYPTION | KEL_CRYPT_ZLIB}),
            magic(0x4010) + trailer(0));
  EXPECT_THAT(write_stream("", {}), StartsWith(magic(0x5222, 8192)));
  const std::string blowfish = write_stream(ten, {KEL_CRYPT_NO_COMPRESSION, 0, 0});
  EXPECT_THAT(blowfish, StartsWith(magic(0x5202, 131072)));
  EXPECT_EQ(blowfish.substr(22, 8), be(16, 4) + be(6, 4));
}

TEST(Stream, LifeOfAWriter) {
  const ReportCapture reports;
  unsigned char window[100];
  const std::string data(100000, 'x');
  c_stream_t c = {};
  EXPECT_EQ(dcpEncryptInit(nullptr, 0, kStreamKey, 3), -2);
  EXPECT_EQ(dcpEncryptEnd(&c), -2);
  c.zlevel = 17;
  EXPECT_EQ(dcpEncryptInit(&c, 0, kStreamKey, 3), -2);
  c.next_out = window;
  c.avail_out = sizeof window;
  EXPECT_EQ(dcpEncrypt(&c), -2);
  EXPECT_EQ(dcpEncryptReset(&c, kStreamKey, 3), -2);
  EXPECT_EQ(dcpEncryptEnd(&c), 0);  // the refusal leaves a state
  EXPECT_EQ(c.zlevel + c.zalgorithm, 0);

  c = {};
  ASSERT_EQ(dcpEncryptInit(&c, KEL_CRYPT_NO_ENCRYPTION | KEL_CRYPT_ZLIB, kStreamKey, 9), 0);
  EXPECT_EQ(dcpEncrypt(&c), -2);
  c.next_out = window;
  EXPECT_EQ(dcpEncrypt(&c), -5);
  for (int round = 0; round < 2; ++round) {
    const std::string stream = write_with(c, data).data;
    EXPECT_EQ(read_stream(stream, 0), (StreamResult{1, data, stream.size()}));
    EXPECT_EQ(c.saved_total, data.size() - (stream.size() - 14 - 8 - 20));
    EXPECT_EQ(c.saved_last, c.saved_total);
    c.next_out = window;
    c.avail_out = 1;
    EXPECT_EQ(dcpEncrypt(&c), 1);
    c.next_in = bytes_of(data);
    c.avail_in = 1;
    EXPECT_EQ(dcpEncrypt(&c), -5);  // the stream has its trailer
    EXPECT_EQ(dcpEncryptReset(&c, kStreamKey, 0), 0);
    EXPECT_EQ(dcpEncrypt(&c), 0);  // a byte of the next one, which is given up
    EXPECT_EQ(dcpEncryptReset(&c, kStreamKey, 0), 0);
    EXPECT_EQ(c.total_in + c.total_out + c.saved_last + c.saved_total, 0u);
  }
  EXPECT_EQ(dcpEncryptEnd(&c), 0);
}

TEST(Stream, LifeOfAReader) {
  c_stream_t c = {};
  EXPECT_EQ(dcpDecryptInit(nullptr, kStreamKey, 3), -2);
  EXPECT_EQ(dcpDecrypt(&c, 0), -2);
  EXPECT_EQ(dcpDecryptReset(&c, kStreamKey, 3), -2);
  EXPECT_EQ(dcpDecryptEnd(&c), -2);
  ASSERT_EQ(dcpDecryptInit(&c, kStreamKey, 3), 0);
  EXPECT_EQ(dcpDecrypt(&c, 2), -2);
  const std::string data = sample_data(30000);
  for (const StreamSettings& s : all_settings()) {
    const std::string stream = write_stream(data, s);
    unsigned char window[64];
    EXPECT_EQ(dcpDecryptReset(&c, kStreamKey, s.type), 0);
    EXPECT_EQ(read_with(c, stream), (StreamResult{1, data, stream.size()})) << describe(s);
    EXPECT_EQ(dcpDecrypt(&c, 1), 1);
    EXPECT_EQ(dcpDecryptReset(&c, kStreamKey, s.type), 0);  // now left in the middle
    c.next_in = bytes_of(stream);
    c.avail_in = static_cast<unsigned>(stream.size());
    c.next_out = window;
    c.avail_out = sizeof window;
    EXPECT_EQ(dcpDecrypt(&c, 0), 0);
    EXPECT_EQ(dcpDecrypt(&c, 0), -5) << describe(s);
    EXPECT_EQ(dcpDecryptReset(&c, kStreamKey, s.type), 0);
    EXPECT_EQ(read_with(c, stream.substr(0, stream.size() - 1)).code, -3);
    EXPECT_EQ(dcpDecrypt(&c, 1), -3);  // stays failed
  }
  EXPECT_EQ(dcpDecryptEnd(&c), 0);
}

TEST(Stream, TruncationIsFoundEverywhere) {
  for (const StreamSettings& s : all_settings()) {
    const std::string stream = write_stream(sample_data(200), s);
    for (size_t i = 0; i < stream.size(); ++i)
      EXPECT_EQ(read_stream(stream.substr(0, i), s.type).code, -3) << describe(s) << " " << i;
  }
}

TEST(Stream, WrongKeysAreFoundByTheirCheckBlock) {
  const KelKey other = KelKey::NewKey("wrong 89abcdef0123456789abcdef  ");
  for (unsigned char type = 0; type < 4; ++type) {
    const std::string stream = write_stream("secret", {KEL_CRYPT_NO_COMPRESSION, type});
    const StreamResult result = read_stream(stream, type, nullptr, other);
    EXPECT_EQ(result.code, type < 3 ? -31 : 1);
    EXPECT_NE(result.data, "secret");
  }
  EXPECT_STREQ(dcpCryptError(-31), "invalid or missing key");
  EXPECT_STREQ(dcpCryptError(-3), zError(-3));
  EXPECT_STREQ(dcpCryptError(1), zError(1));
  errno = ENOSPC;
  EXPECT_STREQ(dcpCryptError(-1), std::strerror(ENOSPC));
  EXPECT_STREQ(dcpCryptError(-7), "internal error: unknown error value -7");
}

size_t largest_allocation = 0;
using Malloc = Hooked<"malloc", void*(size_t)>;
using Realloc = Hooked<"realloc", void*(void*, size_t)>;

TEST(Stream, HostileStreamsAreRefusedWithoutBeingBelieved) {
  const int plain = 0x4001, lzo = 0x4020, zlib = 0x4010, blowfish = 0x5002;
  const std::string raw_word = be(5, 4), deflated("\x4b\x4c\x4a\x06\0", 5);  // "abc"
  const std::string sealed = write_stream(std::string(16, 'x'), {KEL_CRYPT_NO_COMPRESSION, 0});
  const std::string bomb = be(0xFFFFFFFF, 4) + std::string(4000, '\0');
  const struct {
    const char* what;
    std::string stream;
    int code;
    std::string data = "";
  } rows[] = {
      {"block size no multiple of 4096", magic(plain, 4097) + trailer(0), -3},
      {"block size no multiple, first version", magic(1, 4097) + block("abc") + trailer(3), 1,
       "abc"},
      {"block size 0", magic(plain, 0) + block("a") + trailer(1), -3},
      {"block size 0, no block", magic(plain, 0) + trailer(0), 1},
      {"huge block size", magic(plain, ~uint64_t{4095}) + block("a") + trailer(1), 1, "a"},
      {"block beyond capacity", magic(plain) + block(std::string(4089, 'x')) + trailer(4089), -3},
      {"empty block", magic(plain) + block("") + trailer(0), -3},
      {"padding beyond the block", magic(plain) + block("abc", 4) + trailer(0), -3},
      {"nothing but padding", magic(plain) + block("abc", 3) + block("d") + trailer(1), 1, "d"},
      {"total above the data", magic(plain) + block("abc") + trailer(4), -3},
      {"total far above", magic(plain) + block("abc") + trailer(~uint64_t{0}), -3},
      {"total below the data", magic(plain) + block("abc") + trailer(2), 1, "ab"},
      {"half a cipher block", sealed.substr(0, 22) + block("1234567") + trailer(0), -3},
      {"check block asked for nothing", magic(blowfish) + "12345678" + trailer(0), 1},
      {"flags 0", magic(0) + trailer(0), -3},
      {"flags without a mode", magic(0x4080) + "any", 1, magic(0x4080) + "any"},
      {"no archive", "some plain text file", 1, "some plain text file"},
      {"deflated", magic(zlib) + block(deflated) + trailer(3), 1, "abc"},
      {"deflated, cut by the total", magic(zlib) + block(deflated) + trailer(1), 1, "a"},
      {"data behind the deflated", magic(zlib) + block(deflated + "x") + trailer(3), -3},
      {"deflated data end early", magic(zlib) + block(deflated.substr(0, 2)) + trailer(3), -3},
      {"no deflate block", magic(zlib) + block("\xff\xff") + trailer(3), -3},
      {"raw chunk", magic(lzo) + block(raw_word) + block("12345") + trailer(5), 1, "12345"},
      {"raw chunk too long", magic(lzo) + block(raw_word + "123456") + trailer(5), -3},
      {"raw chunk too short", magic(lzo) + block(raw_word + "1234") + trailer(4), -3},
      {"half a chunk word", magic(lzo) + block("ab") + trailer(0), -3},
      {"empty compressed chunk", magic(lzo) + block(be(0x80000000, 4)) + trailer(0), -3},
      {"no LZO data", magic(lzo) + block(be(0x80000005, 4) + "\xff\xff") + trailer(5), -3},
      {"2 GiB from 4000 bytes", magic(lzo) + block(bomb) + trailer(0x7FFFFFFF), -3},
      {"more data than the chunk holds", magic(lzo) + block(be(0x80000001, 4) + bomb) + trailer(1),
       -3},
  };
  const Malloc malloc_hook([](size_t size) {
    largest_allocation = std::max(largest_allocation, size);
    return Malloc::real(size);
  });
  const Realloc realloc_hook([](void* old, size_t size) {
    largest_allocation = std::max(largest_allocation, size);
    return Realloc::real(old, size);
  });
  std::mt19937 random(13);
  for (const auto& row : rows) {
    for (std::mt19937* windows : {static_cast<std::mt19937*>(nullptr), &random}) {
      const StreamResult result = read_stream(row.stream, 0, windows);
      EXPECT_EQ(result.code, row.code) << row.what;
      if (row.code == 1) {
        EXPECT_EQ(result.data, row.data) << row.what;
      }
    }
  }
  EXPECT_LT(largest_allocation, 1u << 20);
}

TEST(Stream, IncompressibleSamplesAreStoredAsTheyAre) {
  std::mt19937 random(17);
  std::string data(200000, '\0');
  for (const size_t from : {size_t{0}, data.size() - 4000})
    for (size_t i = 0; i < 4000; ++i) data[from + i] = static_cast<char>(random());
  const StreamSettings lzo{KEL_CRYPT_NO_ENCRYPTION, 0, 0};
  const auto word = [&] { return be_at(write_stream(data, lzo), 22, 4); };
  EXPECT_EQ(word(), 200000u);  // both samples are noise
  const std::string start = data.substr(0, 4000);
  data.replace(0, 4000, 4000, 'x');
  EXPECT_EQ(word(), 200000u | 0x80000000);
  data.replace(0, 4000, start);
  adaptive_compression_init(100, 10, 1024);
  EXPECT_EQ(word(), 200000u | 0x80000000);
  adaptive_compression_init(1, 1000, 1);  // the first call counts
  EXPECT_EQ(word(), 200000u | 0x80000000);
  EXPECT_EQ(read_stream(write_stream(data, lzo), 0).data, data);
}

TEST(Stream, PlainStreamsPassFourGiB) {
  constexpr uint64_t kTotal = (uint64_t{1} << 32) + 12345;
  constexpr unsigned kPiece = 1 << 17;
  std::vector<unsigned char> in(kPiece, 'i'), frames(kPiece), out(kPiece);
  c_stream_t w = {}, r = {};
  ASSERT_EQ(dcpEncryptInit(&w, kPlain, kStreamKey, 0), 0);
  ASSERT_EQ(dcpDecryptInit(&r, kStreamKey, 0), 0);
  int wrote = 0, read = 0;
  while (wrote == 0 && read == 0) {
    w.next_in = in.data();
    w.avail_in = static_cast<unsigned>(std::min<uint64_t>(kPiece, kTotal - w.total_in));
    w.next_out = frames.data();
    w.avail_out = kPiece;
    wrote = dcpEncrypt(&w);
    r.next_in = frames.data();
    r.avail_in = kPiece - w.avail_out;
    r.next_out = out.data();
    r.avail_out = kPiece;
    read = dcpDecrypt(&r, wrote);
  }
  EXPECT_EQ(wrote + read, 2);
  EXPECT_EQ(w.total_in, kTotal);
  EXPECT_EQ(r.total_out, kTotal);
  EXPECT_EQ(r.total_in, w.total_out);
  dcpEncryptEnd(&w);
  dcpDecryptEnd(&r);
}

/// Fails each call of `Name` that a stream's whole life makes; it has to end in one of `codes`.
template <Symbol Name, class Signature, class R>
void fail_lives(const StreamSettings& s, R failure, std::initializer_list<int> codes) {
  SCOPED_TRACE(std::string(Name.text) + ", " + describe(s));
  const std::string data = sample_data(50000);
  const std::string stream = write_stream(data, s);
  int failures = 0;
  ReportCapture reports;
  const auto life = [&] {
    c_stream_t c = {};
    c.zwindow = 12;
    int code = dcpEncryptInit(&c, s.flags, kStreamKey, s.type);
    EXPECT_EQ(c.state == nullptr, code != 0);
    if (code != 0) return code;
    code = write_with(c, data).code;
    EXPECT_EQ(dcpEncryptEnd(&c), 0);
    if (code != 1) return code;
    code = dcpDecryptInit(&c, kStreamKey, s.type);
    EXPECT_EQ(c.state == nullptr, code != 0);
    if (code != 0) return code;
    const StreamResult result = read_with(c, stream);
    EXPECT_EQ(dcpDecryptEnd(&c), 0);
    EXPECT_EQ(result.data, result.code == 1 ? data : result.data);
    return result.code;
  };
  const long failed = fail_each<Name, Signature>(failure, ENOMEM, [&] {
    const int code = life();
    if (code == 1) return;
    ++failures;
    EXPECT_THAT(codes, Contains(code));
  });
  EXPECT_GT(failed, 0);
  EXPECT_EQ(failures, failed);
}

TEST(Stream, EveryFailedCallHasAWayOut) {
  const StreamSettings lzo{KEL_CRYPT_NO_ENCRYPTION}, zlib{KEL_CRYPT_ZLIB | 4}, aes{0, 3},
      blowfish{KEL_CRYPT_NO_COMPRESSION, 0};
  fail_lives<"malloc", void*(size_t)>(lzo, nullptr, {-3, -4});
  fail_lives<"realloc", void*(void*, size_t)>(lzo, nullptr, {-4});
  for (const StreamSettings& s : {lzo, zlib, aes, blowfish})
    fail_lives<"_ZnwmRKSt9nothrow_t", void*(size_t, const std::nothrow_t&)>(s, nullptr,
                                                                            {-1, -4, -31});
  fail_lives<"EVP_CIPHER_CTX_new", EVP_CIPHER_CTX*()>(aes, nullptr, {-1, -31});
  fail_lives<"EVP_CipherUpdate",
             int(EVP_CIPHER_CTX*, unsigned char*, int*, const unsigned char*, int)>(aes, 0, {-1});
  fail_lives<"deflateInit2_", int(z_stream*, int, int, int, int, int, const char*, int)>(
      zlib, Z_STREAM_ERROR, {-2});
  fail_lives<"inflateInit2_", int(z_stream*, int, const char*, int)>(zlib, Z_MEM_ERROR, {-4});
}

}  // namespace
