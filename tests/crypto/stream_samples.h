// Archive streams for tests: written and read through windows of any size.
#pragma once

#include <kel/crypt.h>

#include "support/test.h"

namespace kel::testing {

inline const KelKey kStreamKey = KelKey::NewKey("0123456789abcdef0123456789abcdef");
inline constexpr unsigned long kPlain = KEL_CRYPT_NO_COMPRESSION | KEL_CRYPT_NO_ENCRYPTION;

/// What the init function of a writer takes, and the fields ahead of it.
struct StreamSettings {
  unsigned long flags = 0;
  unsigned char type = 3;
  uint16_t window = 12;
  uint16_t level = 0;
  uint16_t algorithm = 0;

  bool encrypts() const { return (flags & KEL_CRYPT_NO_ENCRYPTION) == 0; }
};

/// What came out of a stream, and the code that ended it.
struct StreamResult {
  int code = 0;
  std::string data;
  uint64_t consumed = 0;

  friend bool operator==(const StreamResult&, const StreamResult&) = default;
};

inline const unsigned char* bytes_of(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// Half of it compresses, half does not.
inline std::string sample_data(size_t size) {
  std::mt19937 random(static_cast<unsigned>(size));
  std::string data(size, 'a');
  for (size_t i = 0; i < size; ++i)
    data[i] = static_cast<char>(i % 64 < 32 ? 'a' + i / 64 % 3 : random());
  return data;
}

/// Collects the output of `step()` until it gives a code other than 0. Windows have up to 40 bytes
/// and often 1, or with a null `random` 64 KiB, and are memory of their own.
template <class Step>
StreamResult drain(c_stream_t& c, std::mt19937* random, Step step) {
  StreamResult result;
  while (result.code == 0) {
    std::vector<unsigned char> window(random == nullptr ? 65536 : 1 + (*random)() % 40);
    if (random != nullptr && (*random)() % 3 == 0) window.resize(1);
    c.next_out = window.data();
    c.avail_out = static_cast<unsigned>(window.size());
    result.code = step();
    result.data.append(window.begin(), window.end() - c.avail_out);
  }
  result.consumed = c.total_in;
  if (result.code == 1) result.data.resize(c.total_out);  // the trailer may have cut it
  return result;
}

/// Writes with a stream that was initialised.
inline StreamResult write_with(c_stream_t& c, const std::string& data,
                               std::mt19937* random = nullptr) {
  c.next_in = bytes_of(data);
  c.avail_in = static_cast<unsigned>(data.size());
  return drain(c, random, [&] { return dcpEncrypt(&c); });
}

/// Reads with a stream that was initialised; the input comes in windows too.
inline StreamResult read_with(c_stream_t& c, const std::string& stream,
                              std::mt19937* random = nullptr) {
  c.next_in = bytes_of(stream);
  c.avail_in = 0;
  return drain(c, random, [&] {
    const auto left = static_cast<unsigned>(bytes_of(stream) + stream.size() - c.next_in);
    if (c.avail_in == 0)
      c.avail_in =
          random == nullptr ? left : std::min(left, static_cast<unsigned>((*random)() % 40));
    return dcpDecrypt(&c, c.avail_in == left);
  });
}

inline std::string write_stream(const std::string& data, const StreamSettings& s,
                                std::mt19937* random = nullptr) {
  c_stream_t c = {};
  c.zwindow = s.window;
  c.zlevel = s.level;
  c.zalgorithm = s.algorithm;
  StreamResult result{dcpEncryptInit(&c, s.flags, kStreamKey, s.type), {}};
  if (result.code == 0) result = write_with(c, data, random);
  dcpEncryptEnd(&c);
  return result.code == 1 ? result.data : "code " + std::to_string(result.code);
}

inline StreamResult read_stream(const std::string& stream, unsigned char type,
                                std::mt19937* random = nullptr, const KelKey& key = kStreamKey) {
  c_stream_t c = {};
  StreamResult result{dcpDecryptInit(&c, key, type), {}};
  if (result.code == 0) result = read_with(c, stream, random);
  dcpDecryptEnd(&c);
  return result;
}

}  // namespace kel::testing
