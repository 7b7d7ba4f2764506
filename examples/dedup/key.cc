// What the library protects is a text: the 64 hexadecimal digits of the key. Nothing in the
// protected text tells a wrong key file, but what that makes of it are no digits.
#include "key.h"

#include <kel/base64.h>
#include <kel/crc.h>
#include <kel/digest.h>
#include <kel/logging.h>
#include <kel/passwd.h>
#include <kel/path.h>
#include <kel/runtime.h>
#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "descriptor.h"

namespace dedup {
namespace {

constexpr size_t kDigits = 2 * KelKey::kLength;
/// A header of 6 characters, an initial value of 32 digits, and two digits for each protected one.
constexpr size_t kProtected = 6 + 32 + 2 * kDigits;
/// Random bytes that give the 32 characters of a key line in Base64.
constexpr size_t kKeyLineBytes = 24;

/// Bytes that are wiped when the scope ends.
template <size_t Size>
struct Secret {
  Secret() = default;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { ::explicit_bzero(bytes, Size); }

  char bytes[Size] = {};
};

bool are_digits(std::string_view text) {
  return text.find_first_not_of("0123456789ABCDEFabcdef") == text.npos;
}

/// The library takes any other text for a plain password, or shows it in its reports.
bool is_protected(std::string_view line) {
  return line.size() == kProtected && line.starts_with('X') && line.substr(2, 4) == "0000" &&
         are_digits(line.substr(1));
}

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == path.npos ? "." : path.substr(0, slash + 1);
}

/// Writes a file under a name of its own beside `path`, and gives it that name when it is whole and
/// on disk. A file that has the name already keeps it.
bool write_new_file(const std::string& path, std::string_view text) {
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (!file) return false;
  const bool is_there =
      safe_write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
      safe_fsync(file.get()) == 0 &&
      // Not every file system has links, nor every one the other call.
      (::link(temporary.c_str(), path.c_str()) == 0 || errno == EEXIST ||
       ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) == 0 ||
       errno == EEXIST);
  const int problem = errno;
  ::unlink(temporary.c_str());
  // The folder itself may be new, and so may the one that it is in.
  for (const char* up : {"", "/..", "/../.."}) dirfsync((folder_of(path) + up).c_str(), true);
  errno = problem;
  return is_there;
}

/// The first line of a small file; empty after a report.
std::string read_line(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char text[4096];
  const ssize_t count = file ? safe_read(file.get(), text, sizeof text) : -1;
  if (count < 0) {
    ErrorA(errno, "could not read %s: %s; without it nothing can be read", path.c_str(),
           std::strerror(errno));
    return {};
  }
  const std::string_view line(text, static_cast<size_t>(count));
  std::string result(line.substr(0, line.find('\n')));
  if (is_protected(result)) return result;
  if (result.size() == kDigits && are_digits(result))
    ErrorA(EINVAL,
           "%s is a key without protection, as this program does not make it; store into a new "
           "repository",
           path.c_str());
  else
    ErrorA(EINVAL, "%s is damaged: it is no protected key; bring it back", path.c_str());
  return {};
}

/// Whether the key file can be read; a report says what to do when it cannot, and when others can.
bool is_readable(const std::string& key_file) {
  struct stat status;
  if (::access(key_file.c_str(), R_OK) != 0 || ::stat(key_file.c_str(), &status) != 0) {
    ErrorA(errno,
           "could not read the key file %s: %s; bring it back, or name the right one with "
           "--key-file",
           key_file.c_str(), std::strerror(errno));
    return false;
  }
  if ((status.st_mode & 077) != 0)
    WarningA(-1, "others may read %s; protect it with chmod 600", key_file.c_str());
  return true;
}

}  // namespace

std::string default_key_file() {
  // A relative path in this variable does not count.
  const char* const config = std::getenv("XDG_CONFIG_HOME");
  const char* const home = std::getenv("HOME");
  std::string folder;
  if (config != nullptr && config[0] == '/')
    folder = config;
  else if (home != nullptr && home[0] == '/')
    folder = std::string(home) + "/.config";
  else
    return {};
  return folder + "/kel-dedup/auth.key";
}

bool make_key_file(const std::string& path) {
  if (::access(path.c_str(), F_OK) == 0) return true;
  Secret<kKeyLineBytes> random;
  Secret<KEL_BASE64_SIZE(kKeyLineBytes)> key;
  RandomGetBytes(random.bytes, sizeof random.bytes);
  Base64Encode(reinterpret_cast<const unsigned char*>(random.bytes), sizeof random.bytes, key.bytes,
               sizeof key.bytes);
  constexpr std::string_view kVersion = "version=0";
  constexpr std::string_view kCount = "count=1";
  uint32_t checksum = 1;
  for (const std::string_view line : {kVersion, kCount, std::string_view(key.bytes)})
    checksum = CRCAppend(checksum, line.data(), line.size());
  Secret<128> text;
  std::snprintf(text.bytes, sizeof text.bytes, "%s\n%s\n%s\nself=%u\n", kVersion.data(),
                kCount.data(), key.bytes, checksum);
  // The folder of another one is there, or what should be mounted on it is not.
  if (path == default_key_file()) CreateTreeA(folder_of(path).c_str(), 0700);
  if (!write_new_file(path, text.bytes)) {
    ErrorA(errno, "could not make the key file %s: %s", path.c_str(), std::strerror(errno));
    return false;
  }
  std::printf("made the key file %s; keep a copy, nothing can be read without it\n", path.c_str());
  return true;
}

std::string protect_key(const KelKey& key, const std::string& key_file) {
  if (!is_readable(key_file)) return {};
  Secret<kDigits + 1> digits;
  HexEncode(key.Bytes(), digits.bytes, KelKey::kLength);
  char text[KEL_PASSWD_TEXT_SIZE];
  if (EncryptPasswdWithKey(key_file.c_str(), digits.bytes, text, sizeof text) == 0)
    return std::string(text) + "\n";
  ErrorA(errno, "%s is no key file, or damaged; bring it back, or name another with --key-file",
         key_file.c_str());
  return {};
}

bool read_key(const std::string& path, const std::string& key_file, KelKey& key) {
  const std::string line = read_line(path);
  if (line.empty() || !is_readable(key_file)) return false;
  Secret<KEL_PASSWD_TEXT_SIZE> digits;
  Secret<KelKey::kLength> bytes;
  auto* const key_bytes = reinterpret_cast<unsigned char*>(bytes.bytes);
  if (DecryptPasswdWithKey(key_file.c_str(), line.c_str(), digits.bytes, sizeof digits.bytes) ==
          0 &&
      std::strlen(digits.bytes) == kDigits && are_digits(digits.bytes) &&
      SHA256StringToDigest_r(digits.bytes, key_bytes) != nullptr) {
    key.Assign(key_bytes);
    return true;
  }
  ErrorA(EINVAL,
         "the key file %s does not open %s; name the right one with --key-file, or bring back the "
         "one of the two that is damaged",
         key_file.c_str(), path.c_str());
  return false;
}

}  // namespace dedup
