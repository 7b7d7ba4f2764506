// The archive header: one encoder and one decoder behind the functions that differ in where the 14
// bytes go to or come from.
#include <kel/magic.h>
#include <kel/safeio.h>
#include <kel/strings.h>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>

#include "crypto/cipher_description.h"
#include "internal/bytes.h"
#include "internal/handles.h"
#include "internal/report.h"

namespace {

using kel::internal::cipher_description;
using kel::internal::fail;
using kel::internal::fail_quietly;
using kel::internal::load_be;
using kel::internal::store_be;
using kel::internal::UniqueFd;

constexpr char kMagic[] = {'K', 'E', 'L', ' '};
constexpr int kNotAnArchive = 0;
constexpr int kUnreadable = -1;
constexpr int kCorrupted = -2;

using Header = std::array<unsigned char, KEL_MAGIC_SIZE>;

Header encode(int flags, uint64_t block_size) {
  Header header;
  std::memcpy(header.data(), kMagic, sizeof kMagic);
  store_be(&header[4], static_cast<uint16_t>(flags));
  store_be(&header[6], block_size);
  return header;
}

int decode(const unsigned char* header, uint64_t* block_size) {
  if (std::memcmp(header, kMagic, sizeof kMagic) != 0) return kNotAnArchive;
  const int flags = load_be<uint16_t>(header + 4);
  if (flags == 0) return kCorrupted;
  if (block_size != nullptr) *block_size = load_be<uint64_t>(header + 6);
  return flags;
}

/// Decodes what a read brought: its byte count, or -1 when it failed.
int decode_read(const Header& header, ssize_t count, uint64_t* block_size) {
  if (count < 0) return kUnreadable;
  if (count < KEL_MAGIC_SIZE) return fail_quietly(kUnreadable, ENODATA);
  return decode(header.data(), block_size);
}

int read_header(int fd, uint64_t* block_size) {
  Header header;
  return decode_read(header, safe_read(fd, header.data(), header.size()), block_size);
}

/// Whether `len` bytes at `buf` can hold a header; else reports it for `function`.
bool check_buffer(const char* function, const void* buf, bool long_enough) {
  if (!long_enough) return fail(false, ENODATA, "%s: insufficient header buffer", function);
  if (buf == nullptr) return fail(false, EINVAL, "%s: invalid NULL parameters", function);
  return true;
}

}  // namespace

int kelMagicMake(int flags, void* buf, int bufLen, uint64_t blockSize) {
  if (buf == nullptr || bufLen < KEL_MAGIC_SIZE) return fail_quietly(-1, EINVAL);
  const Header header = encode(flags, blockSize);
  std::memcpy(buf, header.data(), header.size());
  return KEL_MAGIC_SIZE;
}

int kelMagicWrite(int flags, int fd, uint64_t blockSize) {
  const Header header = encode(flags, blockSize);
  return safe_write(fd, header.data(), header.size()) == KEL_MAGIC_SIZE ? KEL_MAGIC_SIZE : -1;
}

int kelMagicFwrite(int flags, FILE* fp, uint64_t blockSize) {
  const Header header = encode(flags, blockSize);
  return ::fwrite(header.data(), 1, header.size(), fp) == header.size() ? KEL_MAGIC_SIZE : -1;
}

int kelMagicDecode(const char* path, const void* buf, int len, uint64_t* blockSize) {
  if (path == nullptr)
    return check_buffer(__func__, buf, len >= KEL_MAGIC_SIZE) ? kelMagicFromBuffer(buf, blockSize)
                                                              : kNotAnArchive;
  const UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  return fd ? read_header(fd.get(), blockSize) : kUnreadable;
}

int kelMagicRead(int fd, uint64_t* blockSize) {
  if (fd < 1) return fail(kNotAnArchive, EBADF, "%s: invalid file descriptor", __func__);
  return ::lseek(fd, 0, SEEK_SET) == 0 ? read_header(fd, blockSize) : kUnreadable;
}

int kelMagicRead2(int fd, uint64_t* blockSize, int rewind) {
  if (fd < 0) return fail(kNotAnArchive, EBADF, "%s: invalid file descriptor", __func__);
  Header header;
  if (safe_read(fd, header.data(), header.size()) != KEL_MAGIC_SIZE)
    return fail(kCorrupted, errno, "%s: could not read header", __func__);
  if (rewind != 0 && ::lseek(fd, -KEL_MAGIC_SIZE, SEEK_CUR) == -1)
    return fail(kCorrupted, errno, "%s: could not seek to beginning of header", __func__);
  return decode(header.data(), blockSize);
}

int kelMagicFread(FILE* fp, uint64_t* blockSize) {
  if (fp == nullptr) return fail(kNotAnArchive, EBADF, "%s: invalid NULL file pointer", __func__);
  if (::fseeko(fp, 0, SEEK_SET) != 0) return kUnreadable;
  Header header;
  const size_t count = ::fread(header.data(), 1, header.size(), fp);
  if (count < header.size() && ::ferror(fp)) return kUnreadable;
  return decode_read(header, static_cast<ssize_t>(count), blockSize);
}

int kelMagicFromBuffer(const void* buf, uint64_t* blockSize) {
  return decode(static_cast<const unsigned char*>(buf), blockSize);
}

int kelMagicGetCryptSettings(const void* buf, unsigned len, int* encrypted, int* compressed) {
  if (!check_buffer(__func__, buf, len >= KEL_MAGIC_SIZE)) return -1;
  const int flags = kelMagicFromBuffer(buf, nullptr);
  if (flags > 0) {
    constexpr int kEncrypted = KEL_MAGIC_ENCRYPTED | KEL_MAGIC_PLUGIN_ENCRYPTED;
    constexpr int kCompressed = KEL_MAGIC_DEFLATED | KEL_MAGIC_LZO;
    if (encrypted != nullptr) *encrypted = (flags & kEncrypted) != 0;
    if (compressed != nullptr) *compressed = (flags & kCompressed) != 0;
  }
  return flags;
}

const char* kelMagicDesc(int result, unsigned char cipherType) {
  struct Word {
    int flag;
    const char* text;
  };
  static constexpr Word kWords[] = {
      {KEL_MAGIC_ENCRYPTED, " Encrypted archive "},
      {KEL_MAGIC_PLUGIN_ENCRYPTED, "Plugin Encrypted archive "},
      {KEL_MAGIC_SKIPJACK, "SkipJack Encrypted archive "},
      {KEL_MAGIC_KEY_256, "256bit key "},
      {KEL_MAGIC_DEFLATED, "Deflated "},
      {KEL_MAGIC_LZO, "LZO Compressed "},
      {KEL_MAGIC_CACHE, "Cache data file"},
      {KEL_MAGIC_PUBLIC_KEYS, "Public key ring "},
      {KEL_MAGIC_RSA, "RSA Encrypted archive "},
      {KEL_MAGIC_SIMPLE, "Simple archive "},
      {KEL_MAGIC_STREAMABLE, "Streamable "},
      {KEL_MAGIC_BLOCKLIST, "Blocklist "},
      {KEL_MAGIC_SPOOLER_LOG, "Spooler log "},
      {KEL_MAGIC_V2, "Streamable, v2"},
  };
  static char text[256];  // the longest text has 232 characters
  text[0] = '\0';
  const auto append = [](const char* word) { kelstrcat(text, word, sizeof text); };

  switch (result) {
    case kCorrupted:
      append("- Possibly Corrupted KEL archive");
      break;
    case kUnreadable:
      append("Error: ");
      append(std::strerror(errno));
      break;
    case kNotAnArchive:
      append("Not a KEL archive ");
      break;
    default:
      if (result & KEL_MAGIC_ENCRYPTED) append(cipher_description(cipherType));
      for (const Word& word : kWords)
        if (result & word.flag) append(word.text);
  }
  return text;
}
