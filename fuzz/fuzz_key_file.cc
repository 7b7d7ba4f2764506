// The first line as a stored password, the rest as the key file: whatever the file holds, it gives
// the key that a plain reader finds in it or a failure, and a valid one protects and gives back.
#include <kel/crc.h>
#include <kel/logging.h>
#include <kel/passwd.h>

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

struct Contents {
  int index = 0;
  std::string key;
  std::string checked;  // the text under the checksum, up to the last line
};

std::optional<unsigned long> number(const std::string& line, const std::string& name) {
  if (line.compare(0, name.size(), name) != 0) return std::nullopt;
  const std::string digits =
      line.substr(name.size(), line.find_first_not_of("0123456789", name.size()) - name.size());
  return digits.empty() ? 0 : std::strtoul(digits.c_str(), nullptr, 10);
}

/// What stands before the checksum's line; nothing when that is not reached.
std::optional<Contents> read_plainly(std::istream& in) {
  Contents found;
  std::string line;
  if (!std::getline(in, line)) return std::nullopt;
  const auto version = number(line, "version=");
  found.checked = line;
  if (!version || !std::getline(in, line)) return std::nullopt;
  const auto count = number(line, "count=");
  found.checked += line;
  if (!count) return std::nullopt;
  for (unsigned long i = 0; i < *count; ++i) {
    if (!std::getline(in, line)) return std::nullopt;
    found.checked += line;
    if (i == 0) found.key = line.c_str();
  }
  if (*count == 0) return std::nullopt;
  found.index = static_cast<int>(*version);
  return found;
}

/// The first line alone, as a caller's own stream gives it.
void check_first_line(const std::string& path, const std::string& file) {
  std::ifstream in(path);
  const std::string first = file.substr(0, file.find('\n'));
  const auto expected = number(first, "version=");
  unsigned long value = 0;
  try {
    require(_getLineParse(in, "version", value) == first && expected == value);
  } catch (const std::runtime_error& failure) {
    require(!expected &&
            failure.what() == std::string(file.empty() ? "file read error" : "bad line format"));
  }
}

void check(const std::string& file, const std::string& stored) {
  std::istringstream in(file);
  const std::optional<Contents> expected = read_plainly(in);
  std::string last;
  const bool valid =
      expected && std::getline(in, last) &&
      number(last, "self=") == CRCAppend(1, expected->checked.data(), expected->checked.size());

  const int memory = memfd_create("key", MFD_CLOEXEC);
  const std::string path = "/proc/self/fd/" + std::to_string(memory);
  require(::write(memory, file.data(), file.size()) == static_cast<ssize_t>(file.size()));
  check_first_line(path, file);
  char key[KEL_AUTH_KEY_SIZE];
  int index = 0;
  require((_getAuthKey(path.c_str(), index, key, sizeof key, 0) == 0) == valid);
  char text[KEL_PASSWD_TEXT_SIZE], again[KEL_PASSWD_TEXT_SIZE];
  const int decrypted = DecryptPasswdWithKey(path.c_str(), stored.c_str(), text, sizeof text);
  require(valid || decrypted == -1);
  if (valid) {
    require(index == expected->index && expected->key.substr(0, sizeof key - 1) == key);
    const bool protects = index >= 0 && index <= 15 && std::strlen(stored.c_str()) <= 492;
    const bool done = EncryptPasswdWithKey(path.c_str(), stored.c_str(), text, sizeof text) == 0;
    require(done == (protects || IsEncrypted(stored.c_str())) || stored.size() > 492);
    if (done && text != std::string(stored.c_str())) {
      require(DecryptPasswdWithKey(path.c_str(), text, again, sizeof again) == 0);
      require(std::strcmp(again, stored.c_str()) == 0);
    }
  }
  ::close(memory);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelLogSetFlags(KEL_LOG_NONE, 0);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string all(reinterpret_cast<const char*>(data), size);
  const size_t end = all.find('\n');
  if (end == all.npos) return 0;
  const std::string stored = all.substr(0, end);
  const std::string file = all.substr(end + 1);
  check(file, stored);
  // No input finds a checksum by chance, so the right one is put behind what is under it.
  std::istringstream in(file);
  if (const auto found = read_plainly(in)) {
    const auto read = in.tellg();
    std::string whole = read < 0 ? file + "\n" : file.substr(0, static_cast<size_t>(read));
    whole += "self=" + std::to_string(CRCAppend(1, found->checked.data(), found->checked.size()));
    check(whole, stored);
  }
  return 0;
}
