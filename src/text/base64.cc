// Base64 in two alphabets: whole groups through tables that take twelve bits, or four letters, at a
// time; what is left through the state machine that knows padding, white space and every message.
#include <kel/base64.h>
#include <kel/logging.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "internal/bytes.h"
#include "internal/report.h"

namespace {

using kel::internal::fail_quietly;
using kel::internal::load_be;
using kel::internal::load_le;
using kel::internal::store_le;

constexpr char kEncodeName[] = "Base64EncodeImpl";
constexpr char kDecodeName[] = "Base64DecodeImpl";
constexpr char kPad = '=';
constexpr std::uint32_t kNoLetter = 1U << 31;  // beside the 24 bits of a group

struct Alphabet {
  std::array<char, 64> letters;
  /// The two letters of every twelve bits.
  char pairs[4096][2];
  /// The six bits of a letter where they belong in a group, for its first to fourth letter, the
  /// group's first byte being the lowest; or kNoLetter.
  std::array<std::array<std::uint32_t, 256>, 4> values;
};

/// Of a group in the order of its bits, in memory order.
constexpr std::uint32_t swap_group(std::uint32_t group) {
  return (group >> 16 & 0xFF) | (group & 0xFF00) | (group & 0xFF) << 16;
}

constexpr Alphabet make_alphabet(std::string_view letters) {
  Alphabet alphabet{};
  for (auto& position : alphabet.values) position.fill(kNoLetter);
  for (std::uint32_t i = 0; i < letters.size(); ++i) {
    alphabet.letters[i] = letters[i];
    for (std::uint32_t position = 0; position < 4; ++position)
      alphabet.values[position][static_cast<unsigned char>(letters[i])] =
          swap_group(i << (18 - 6 * position));
    for (std::uint32_t second = 0; second < letters.size(); ++second) {
      alphabet.pairs[64 * i + second][0] = letters[i];
      alphabet.pairs[64 * i + second][1] = letters[second];
    }
  }
  return alphabet;
}

constexpr Alphabet kStandard =
    make_alphabet("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
constexpr Alphabet kUrlSafe =
    make_alphabet("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_");

/// Reports under no code, then sets errno to `error`.
[[gnu::cold, gnu::format(printf, 2, 3)]] size_t refuse(int error, const char* format, ...) {
  va_list args;
  va_start(args, format);
  kel::internal::log_message(-1, KEL_LOG_ERR, format, args);
  va_end(args);
  return fail_quietly(KEL_BASE64_FAILURE, error);
}

void encode_groups(const Alphabet& alphabet, const unsigned char* src, size_t groups, char* dst) {
  // Two groups from one load of eight bytes, as long as those are there.
  const auto pair = [&alphabet](std::uint64_t bits) {
    return std::uint64_t{load_le<std::uint16_t>(alphabet.pairs[bits & 0xFFF])};
  };
  for (; groups >= 3; groups -= 2, src += 6, dst += 8) {
    const auto bits = load_be<std::uint64_t>(src);
    store_le(dst, pair(bits >> 52) | pair(bits >> 40) << 16 | pair(bits >> 28) << 32 |
                      pair(bits >> 16) << 48);
  }
  for (; groups != 0; --groups, src += 3, dst += 4) {
    std::memcpy(dst, alphabet.pairs[src[0] << 4 | src[1] >> 4], 2);
    std::memcpy(dst + 2, alphabet.pairs[(src[1] & 15) << 8 | src[2]], 2);
  }
}

void encode_rest(const Alphabet& alphabet, const unsigned char* src, size_t count, char* dst) {
  const unsigned second = count == 2 ? src[1] : 0;
  std::memcpy(dst, alphabet.pairs[src[0] << 4 | second >> 4], 2);
  dst[2] = count == 2 ? alphabet.letters[(second & 15) << 2] : kPad;
  dst[3] = kPad;
}

size_t encode(const Alphabet& alphabet, const unsigned char* src, size_t size, char* dst,
              size_t capacity) {
  if (dst == nullptr || (src == nullptr && size != 0))
    return refuse(EINVAL, "%s: invalid NULL parameter", kEncodeName);
  const size_t groups = size / 3;
  const size_t rest = size % 3;
  const size_t fitting = std::min(groups, capacity / 4);
  encode_groups(alphabet, src, fitting, dst);
  if (fitting < groups)
    return refuse(ENOBUFS, "%s: dest_len (%lu) not large enough to handle src_len (%lu)",
                  kEncodeName, capacity, size - 3 * fitting);
  size_t length = 4 * groups;
  if (rest != 0) {
    if (capacity - length < 4)
      return refuse(ENOBUFS, "%s: dest_len (%lu) not large enough to handle padding", kEncodeName,
                    capacity);
    encode_rest(alphabet, src + 3 * groups, rest, dst + length);
    length += 4;
  }
  if (length >= capacity)
    return refuse(ENOBUFS, "%s: datalength (%lu) >= dest_len (%lu)", kEncodeName, length, capacity);
  dst[length] = '\0';
  return length;
}

bool is_space(char c) {
  return (kelascii_ctype_table[static_cast<unsigned char>(c)] & KELASCII_SPACE) != 0;
}

/// One text on its way into one buffer, or nowhere.
class Decoder {
 public:
  Decoder(const Alphabet& alphabet, const char* src, unsigned char* dst, size_t capacity)
      : alphabet_(alphabet),
        src_(src),
        end_(src + std::strlen(src)),
        dst_(dst),
        capacity_(dst == nullptr ? SIZE_MAX : capacity) {}

  size_t run() {
    while (src_ != end_) {
      if (state_ == 0) {
        if (dst_ == nullptr)
          skip_groups();
        else
          take_groups();
        if (src_ == end_) break;
      }
      const char c = *src_++;
      if (is_space(c)) continue;
      if (c == kPad) return finish_padded();
      const std::uint32_t value = alphabet_.values[3][static_cast<unsigned char>(c)];
      if (value == kNoLetter) return fail_quietly(KEL_BASE64_FAILURE, EINVAL);
      if (!take(value >> 16)) return out_of_room();
    }
    if (state_ != 0)
      return refuse(EINVAL, "%s: finished processing without ending on null byte. state (%lu)",
                    kDecodeName, state_);
    return done_;
  }

 private:
  /// The three bytes of four letters, both lowest first; kNoLetter is set when one is none.
  std::uint32_t group(std::uint64_t letters) const {
    const auto& values = alphabet_.values;
    return values[0][letters & 0xFF] | values[1][letters >> 8 & 0xFF] |
           values[2][letters >> 16 & 0xFF] | values[3][letters >> 24 & 0xFF];
  }

  /// Decodes groups of four letters, two at a time, until something else comes or room for them
  /// ends.
  void take_groups() {
    const char* src = src_;
    unsigned char* dst = dst_ + done_;
    size_t room = capacity_ - done_;
    // A store writes a byte too many, which the next one overwrites.
    for (; end_ - src >= 8 && room >= 7; src += 8, dst += 6, room -= 6) {
      const auto letters = load_le<std::uint64_t>(src);
      const std::uint32_t first = group(letters);
      const std::uint32_t second = group(letters >> 32);
      if ((first | second) >= kNoLetter) break;
      store_le(dst, first);
      store_le(dst + 3, second);
    }
    done_ = static_cast<size_t>(dst - dst_);
    src_ = src;
  }

  void skip_groups() {
    const char* src = src_;
    for (; end_ - src >= 4; src += 4)
      if (group(load_le<std::uint32_t>(src)) >= kNoLetter) break;
    done_ += static_cast<size_t>(src - src_) / 4 * 3;
    src_ = src;
  }

  /// One letter's six bits; false when there is no room for the byte that they begin or fill.
  bool take(unsigned bits) {
    const size_t last_touched = done_ + (state_ == 1 || state_ == 2 ? 1 : 0);
    if (last_touched >= capacity_) return false;
    const unsigned long filled = 2 * state_;  // of the six bits, those that fill the open byte
    if (dst_ != nullptr) {
      if (state_ == 0) {
        dst_[done_] = static_cast<unsigned char>(bits << 2);
      } else {
        dst_[done_] = static_cast<unsigned char>(dst_[done_] | bits >> (6 - filled));
        if (state_ != 3) dst_[done_ + 1] = static_cast<unsigned char>(bits << (2 + filled));
      }
    }
    if (state_ != 0) ++done_;
    state_ = (state_ + 1) % 4;
    return true;
  }

  size_t out_of_room() const {
    return state_ == 1 || state_ == 2
               ? refuse(ENOBUFS,
                        "%s: in state(%lu): tar index (%lu) will extend beyond dest_len (%lu)",
                        kDecodeName, state_, done_, capacity_)
               : refuse(ENOBUFS,
                        "%s: in state(%lu): tar index (%lu) extended beyond dest_len (%lu)",
                        kDecodeName, state_, done_, capacity_);
  }

  void skip_space() {
    while (is_space(*src_)) ++src_;
  }

  size_t refuse_pad() const {
    return refuse(EINVAL, "%s: invalid = in position %lu", kDecodeName, state_);
  }

  /// After the first '='.
  size_t finish_padded() {
    if (state_ < 2) return refuse_pad();
    skip_space();
    if (state_ == 2) {
      if (*src_ != kPad) return refuse_pad();
      ++src_;
      skip_space();
    }
    if (src_ != end_)
      return refuse(EINVAL,
                    "%s: invalid character after '=' Expected padding or null char. state (%lu)",
                    kDecodeName, state_);
    if (dst_ != nullptr && dst_[done_] != 0)
      return refuse(EINVAL, "%s: expected null characters after the last full byte. state(%lu)",
                    kDecodeName, state_);
    return done_;
  }

  const Alphabet& alphabet_;
  const char* src_;
  const char* const end_;
  unsigned char* const dst_;
  const size_t capacity_;
  size_t done_ = 0;          // whole bytes
  unsigned long state_ = 0;  // letters of the current group
};

size_t decode(const Alphabet& alphabet, const char* src, unsigned char* dst, size_t capacity) {
  if (src == nullptr) return refuse(EINVAL, "%s: invalid NULL parameter", kDecodeName);
  return Decoder(alphabet, src, dst, capacity).run();
}

}  // namespace

size_t Base64Encode(const unsigned char* src, size_t srcLen, char* dst, size_t dstLen) {
  return encode(kStandard, src, srcLen, dst, dstLen);
}
size_t Base64URLEncode(const unsigned char* src, size_t srcLen, char* dst, size_t dstLen) {
  return encode(kUrlSafe, src, srcLen, dst, dstLen);
}

size_t Base64Decode(const char* src, unsigned char* dst, size_t dstLen) {
  return decode(kStandard, src, dst, dstLen);
}
size_t Base64URLDecode(const char* src, unsigned char* dst, size_t dstLen) {
  return decode(kUrlSafe, src, dst, dstLen);
}
