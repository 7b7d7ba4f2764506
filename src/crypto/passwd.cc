// Passwords in their protected form: AES-256-CTR under the first key of a key file.
#include <kel/base64.h>
#include <kel/cipher.h>
#include <kel/passwd.h>
#include <kel/strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "crypto/secret.h"
#include "internal/handles.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr int kAes256Ctr = 3;
constexpr std::size_t kIvSize = 16;
constexpr std::size_t kHeaderSize = 6;
constexpr std::size_t kTextSize = 1024;  // of a protected text, with its terminator
constexpr char kMark = 'X';
constexpr std::string_view kFirstHeader = "X00000";  // of the only index that IsEncrypted() knows

/// The key that a key file gives for passwords, and the header of what it protects.
class FileKey {
 public:
  /// False after the key file's own report.
  bool load(const char* path) {
    if (_getAuthKey(path, index_, text_.value, KEL_AUTH_KEY_SIZE, 0) != 0) return false;
    key_.value.Assign(text_.value);
    std::snprintf(header_, sizeof header_, "%c%01X%04X", kMark, static_cast<unsigned>(index_), 0U);
    return true;
  }

  int index() const { return index_; }
  const char* text() const { return text_.value; }
  const KelKey& key() const { return key_.value; }
  /// Longer than the headers of protected texts when the index has no single digit.
  std::string_view header() const { return header_; }

 private:
  int index_ = 0;
  char header_[16] = {};
  Secret<char[KEL_AUTH_KEY_SIZE + 1]> text_;  // zeros follow a short key
  Secret<KelKey> key_;
};

int copy_out(char* dst, const char* text, unsigned size) {
  return kelstrcpy(dst, text, size) != nullptr ? 0 : -1;
}

}  // namespace

int PasswdEncrypt(const KelKey& key, const char* passwd, char* dst, unsigned dstLen) {
  const DeadStackWiper wiper;
  if (passwd == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const std::size_t size = std::strlen(passwd);
  if (dstLen < 2 * (size + kIvSize) + 1)
    return fail(-1, EINVAL, "%s: dest_len(%u) is too small", __func__, dstLen);
  const std::unique_ptr<Cipher> cipher(Cipher::NewCipher(kAes256Ctr));
  if (cipher == nullptr) return -1;  // reported there
  const MallocPtr<unsigned char> sealed(
      static_cast<unsigned char*>(std::malloc(kIvSize + size + 1)));
  if (sealed == nullptr) return fail(-1, errno, "%s: could not allocate memory", __func__);

  cipher->makeIv(sealed.get());
  if (!cipher->Init(0, key, sealed.get()))
    return fail(-1, errno, "%s: initializing encryption context failed", __func__);
  if (cipher->Process(passwd, static_cast<int>(size), true, sealed.get() + kIvSize, nullptr) < 0)
    return fail(-1, errno, "%s: encryption failed", __func__);
  HexEncode(sealed.get(), dst, static_cast<unsigned>(kIvSize + size));
  return 0;
}

int PasswdDecrypt(const KelKey& key, const char* hexText, char* dst, unsigned dstLen) {
  const DeadStackWiper wiper;
  if (hexText == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const std::size_t size = std::strlen(hexText);
  if (size % 2 != 0 || size < 2 * kIvSize || size > INT_MAX)
    return fail(-1, EINVAL, "%s: wrong input length(%u)", __func__, static_cast<unsigned>(size));
  if (dstLen < size) return fail(-1, EINVAL, "%s: dest_len(%u) is too small", __func__, dstLen);
  const std::unique_ptr<Cipher> cipher(Cipher::NewCipher(kAes256Ctr));
  if (cipher == nullptr) return -1;  // reported there
  const MallocPtr<char> sealed(static_cast<char*>(std::malloc(size)));
  if (sealed == nullptr) return fail(-1, errno, "%s: could not allocate memory", __func__);

  std::copy_n(hexText, size, sealed.get());
  const int count = HexDecode(sealed.get(), static_cast<int>(size)) - static_cast<int>(kIvSize);
  if (!cipher->Init(1, key, reinterpret_cast<const unsigned char*>(sealed.get())))
    return fail(-1, errno, "%s: initializing decryption context failed", __func__);
  const int written = cipher->Process(sealed.get() + kIvSize, count, true, dst, nullptr);
  if (written < 0) return fail(-1, errno, "%s: decryption failed", __func__);
  dst[written] = '\0';
  return 0;
}

int EncryptPasswdWithKey(const char* keyFile, const char* passwd, char* dst, unsigned dstLen) {
  const DeadStackWiper wiper;
  if (keyFile == nullptr || passwd == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const std::size_t size = std::strlen(passwd);
  const bool is_encrypted = IsEncrypted(passwd);
  if ((is_encrypted ? size : 2 * (size + kIvSize)) >= kTextSize) {
    errno = EINVAL;
    return fail(-1, -1, "the length(%d) of src is too long for %d.", static_cast<int>(size),
                static_cast<int>(kTextSize));
  }
  if (is_encrypted) {
    report_error(0, "%s: index(%d), passwd(%s) encrypted already.", __func__, 0, passwd);
    return copy_out(dst, passwd, dstLen);
  }

  FileKey file;
  if (!file.load(keyFile))
    return fail(-1, -1, "%s: can't get authentication key for type(%d).", __func__, 0);
  char text[kTextSize];
  file.header().copy(text, kHeaderSize);
  // What an index of two digits protects could not be told from other texts when it is read.
  const bool readable = file.header().size() == kHeaderSize;
  if (!readable) errno = ERANGE;
  if (!readable ||
      PasswdEncrypt(file.key(), passwd, text + kHeaderSize, kTextSize - kHeaderSize) != 0)
    return fail(-1, -1, "%s: can't encrypt passwd for key index(%d).", __func__, file.index());
  return copy_out(dst, text, dstLen);
}

int DecryptPasswdWithKey(const char* keyFile, const char* src, char* dst, unsigned dstLen) {
  const DeadStackWiper wiper;
  if (keyFile == nullptr || src == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const std::string_view protected_text = src;
  if (protected_text.size() >= kTextSize) {
    errno = EINVAL;
    return fail(-1, -1, "the length(%d) of encrypted passwd is over %d.",
                static_cast<int>(protected_text.size()), static_cast<int>(kTextSize));
  }

  FileKey file;
  if (!file.load(keyFile)) return fail(-1, -1, "can't get authentication key for type(%d).", 0);
  if (!protected_text.starts_with(kMark)) {
    report_warning(0, "%s: key(%s) index(%d) does not encrypted.", __func__, file.text(), 0);
    return copy_out(dst, src, dstLen);
  }
  if (protected_text.substr(0, kHeaderSize) != file.header()) {
    errno = EINVAL;
    return fail(-1, -1, "%s: wrong encrypted header(%s), src(%s).", __func__, file.header().data(),
                src);
  }
  if (PasswdDecrypt(file.key(), src + kHeaderSize, dst, dstLen) != 0)
    return fail(-1, -1, "can't decrypt passwd for key index(%d).", file.index());
  return 0;
}

bool IsEncrypted(const char* text) {
  if (text == nullptr) return false;
  const std::string_view all = text;
  if (all.size() % 2 != 0 || all.size() <= kHeaderSize || !all.starts_with(kFirstHeader))
    return false;
  return all.find_first_not_of("0123456789ABCDEFabcdef", kHeaderSize) == all.npos;
}
