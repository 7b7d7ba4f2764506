// The authentication key file: lines of names with values around lines that are keys. What is read
// passes through wiped memory alone, the stream's buffer included.
#include <kel/passwd.h>
#include <kel/strings.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <istream>
#include <new>
#include <stdexcept>
#include <streambuf>
#include <string_view>
#include <system_error>
#include <vector>

#include "crypto/secret.h"
#include "internal/adler32.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "internal/transfer.h"

using namespace kel::internal;

namespace {

/// A file, or a device, that goes on beyond this is no key file.
constexpr std::uint64_t kLargestFile = 64UL << 20;

/// Ends the reading of a key file for the reason in `text`, which becomes the report's.
[[noreturn]] void refuse(int code, const std::string& text) {
  std::runtime_error failure(text);
  errno = code;
  throw failure;
}

/// A file read through a buffer that is wiped. Reading throws on failure, which a stream notes as
/// its bad bit.
class SecretFile : public std::streambuf {
 public:
  explicit SecretFile(const char* path)
      : fd_(retry_interrupted([path] { return ::open(path, O_RDONLY | O_CLOEXEC); })) {}
  bool is_open() const { return static_cast<bool>(fd_); }

 protected:
  int_type underflow() override {
    auto& bytes = buffer_.value;
    const ssize_t count = retry_interrupted([&] { return ::read(fd_.get(), bytes, sizeof bytes); });
    if (count > 0) total_ += static_cast<std::uint64_t>(count);
    if (total_ > kLargestFile) errno = EFBIG;
    if (count < 0 || total_ > kLargestFile) throw std::system_error(errno, std::generic_category());
    if (count == 0) return traits_type::eof();
    setg(bytes, bytes, bytes + count);
    return traits_type::to_int_type(*gptr());
  }

 private:
  UniqueFd fd_;
  std::uint64_t total_ = 0;
  Secret<char[4096]> buffer_;
};

/// Takes lines from a stream into memory that is wiped.
class SecretLines {
 public:
  explicit SecretLines(std::istream& in) : in_(in), line_(kFirstSize) {}

  /// The text of the next line without its line end; terminated, valid until the next call.
  std::string_view next() {
    std::size_t used = 0;
    for (;;) {
      in_.getline(line_.data() + used, static_cast<std::streamsize>(line_.size() - used));
      const auto count = static_cast<std::size_t>(in_.gcount());
      used += count;
      if (in_.bad()) refuse(errno, "file read error");
      if (!in_.fail()) return {line_.data(), in_.eof() ? used : used - 1};
      // Failed without a character: nothing is left, which is the end of a line that has begun.
      if (count == 0 && used == 0) refuse(ENODATA, "file read error");
      in_.clear(in_.rdstate() & ~std::ios::failbit);
      if (count == 0) return {line_.data(), used};
      line_.resize(2 * line_.size());  // the line goes on
    }
  }

 private:
  static constexpr std::size_t kFirstSize = 512;

  std::istream& in_;
  std::vector<char, WipingAllocator<char>> line_;
};

/// The number that follows `name` and '=' at the start of `line`.
unsigned long named_value(std::string_view line, std::string_view name) {
  if (!line.starts_with(name) || !line.substr(name.size()).starts_with('='))
    refuse(EINVAL, "bad line format");
  line.remove_prefix(name.size() + 1);
  unsigned long value = 0;
  const auto result = std::from_chars(line.data(), line.data() + line.size(), value);
  return result.ec == std::errc::result_out_of_range ? ULONG_MAX : value;
}

/// One key file, line by line, with the checksum of what was read before the last one.
class KeyFile {
 public:
  explicit KeyFile(const char* path) : file_(path) {
    if (!file_.is_open()) refuse(errno, "open file " + std::string(path) + " failed.");
  }

  std::string_view key() {
    const std::string_view line = lines_.next();
    checksum_ = adler32(checksum_, line.data(), line.size());
    return line;
  }
  unsigned long value(std::string_view name) { return named_value(key(), name); }
  bool ends_with_checksum() { return named_value(lines_.next(), "self") == checksum_; }

 private:
  SecretFile file_;
  std::istream in_{&file_};
  SecretLines lines_{in_};
  std::uint32_t checksum_ = kAdler32Start;
};

void load_key(const char* path, int& index, char* key, unsigned long size, unsigned position) {
  KeyFile file(path);
  index = static_cast<int>(file.value("version"));
  const unsigned long count = file.value("count");
  for (unsigned long i = 0; i < count; ++i) {
    const std::string_view line = file.key();
    if (i == position) kelstrcpy(key, line.data(), size);  // a cut is reported there
  }
  if (position >= count)
    refuse(ERANGE, "index(" + std::to_string(position) + ") is out of range[0, " +
                       std::to_string(count - 1) + "].");
  if (!file.ends_with_checksum()) refuse(ERANGE, "CRC mismatch for " + std::string(path));
}

}  // namespace

int _getAuthKey(const char* path, int& index, char* key, unsigned long keyLen,
                unsigned int position) {
  const DeadStackWiper wiper;
  if (path == nullptr || key == nullptr || keyLen == 0)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  try {
    load_key(path, index, key, keyLen, position);
    return 0;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return fail(-1, -1, "failed to load chksum file %s", path);
  } catch (const std::exception& failure) {
    return fail(-1, -1, "failed to load chksum file %s: %s", path, failure.what());
  }
}

int RetrieveAuthKey(char* key, const char* path) {
  int index = 0;
  const int result = _getAuthKey(path, index, key, KEL_AUTH_KEY_SIZE, 0);
  if (result != 0) return fail(-1, result, "can't get authentication key for type(%d).", 0);
  return 0;
}

std::string _getLineParse(std::ifstream& in, const std::string& name, unsigned long& value) {
  const DeadStackWiper wiper;
  SecretLines lines(in);
  const std::string_view line = lines.next();
  value = named_value(line, name);
  return std::string(line);
}
