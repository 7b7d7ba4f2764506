// Archive streams of any data: whatever the settings and the windows, what is written reads back
// exactly, and an unencrypted stream has the same bytes for all windows. Three bytes of settings
// come first; the data are repeated to fill several blocks.
#include <kel/crypt.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "fuzz_target.h"

namespace {

using Bytes = std::vector<unsigned char>;

/// Calls `step` with output windows of up to `most` bytes until the stream ends.
template <class Step>
Bytes drain(c_stream_t& c, std::minstd_rand& random, unsigned most, Step step) {
  Bytes out;
  int code = 0;
  while (code == 0) {
    Bytes window(1 + random() % most);
    c.next_out = window.data();
    c.avail_out = static_cast<unsigned>(window.size());
    code = step();
    out.insert(out.end(), window.begin(), window.end() - c.avail_out);
  }
  require(code == 1 && out.size() == c.total_out);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  const unsigned char type = data[0] & 3;
  const bool zlib = (data[0] & 0x10) != 0;
  const unsigned long flags =
      (data[0] >> 1 & (KEL_CRYPT_NO_COMPRESSION | KEL_CRYPT_NO_ENCRYPTION)) |
      (zlib ? KEL_CRYPT_ZLIB : 0);
  const unsigned most = (data[0] & 0x20) != 0 ? 3 : 5000;
  std::minstd_rand random(data[2]);
  Bytes in(data + 3, data + size);
  for (int doublings = data[1] >> 5; doublings > 0 && in.size() < 6000; --doublings) {
    const Bytes copy = in;
    in.insert(in.end(), copy.begin(), copy.end());
  }
  const KelKey key = KelKey::NewKey("0123456789abcdef0123456789abcdef");

  c_stream_t w = {};
  w.zwindow = 12;
  w.zlevel = (data[1] & 31) % (zlib ? 11 : 17);
  require(dcpEncryptInit(&w, flags, key, type) == 0);
  const auto write = [&](unsigned windows) {
    w.next_in = in.data();
    w.avail_in = static_cast<unsigned>(in.size());
    return drain(w, random, windows, [&] { return dcpEncrypt(&w); });
  };
  const Bytes stream = write(most);
  require(w.total_in == in.size());
  if ((flags & KEL_CRYPT_NO_ENCRYPTION) != 0) {
    require(dcpEncryptReset(&w, key, type) == 0);
    require(write(30000) == stream);
  }
  dcpEncryptEnd(&w);

  c_stream_t r = {};
  require(dcpDecryptInit(&r, key, type) == 0);
  r.next_in = stream.data();
  const Bytes back = drain(r, random, most, [&] {
    const auto left = static_cast<unsigned>(stream.data() + stream.size() - r.next_in);
    if (r.avail_in == 0) r.avail_in = std::min<unsigned>(left, random() % most);
    return dcpDecrypt(&r, r.avail_in == left);
  });
  require(back == in && r.total_in == stream.size());
  dcpDecryptEnd(&r);
  return 0;
}
