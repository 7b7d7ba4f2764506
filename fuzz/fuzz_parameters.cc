// Parameter strings, image paths and URLs of any kind: the values agree with a plain reading of the
// text, and every buffer is terminated within its capacity.
#include <kel/logging.h>
#include <kel/probes.h>

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

constexpr size_t kNowhere = std::string::npos;

void require(bool condition) {
  if (!condition) std::abort();
}

/// A buffer of exactly `size` bytes, so that a byte too much is seen.
struct Buffer {
  explicit Buffer(size_t size) : bytes(new char[size]), capacity(size) {}
  std::string text() const {
    require(std::memchr(bytes.get(), '\0', capacity) != nullptr);
    return bytes.get();
  }
  std::unique_ptr<char[]> bytes;
  size_t capacity;
};

void check_param(const std::string& text, const std::string& key, char delim, size_t room) {
  const Buffer out(room);
  const int result = spaGetParamString(text.c_str(), key.c_str(), out.bytes.get(),
                                       static_cast<unsigned>(room), delim);
  const std::string pattern = (key + "=").substr(0, 254);
  const size_t at = text.find(pattern);
  std::string value = at == kNowhere ? "" : text.substr(at + pattern.size());
  value = value.substr(0, value.find(delim));
  require(result == (at == kNowhere ? 9 : value.size() < room ? 0 : 14));
  require(out.text() == value.substr(0, room - 1));
}

void check_value(const std::string& text, const std::string& key, const std::string& separator,
                 bool separated, size_t room) {
  const Buffer out(room);
  parseValueByKey(text.c_str(), key.c_str(), separated ? separator.c_str() : nullptr,
                  out.bytes.get(), room);
  size_t at = text.find(key);
  if (at != kNowhere) at += key.size();
  if (at != kNowhere && separated) {
    at = text.find(separator, at);
    if (at != kNowhere) at += separator.size();
  }
  if (at != kNowhere) at = text.find_first_not_of(" \t", at);
  const std::string value =
      at == kNowhere ? "" : text.substr(at, text.find_first_of("\n \t", at) - at);
  require(out.text() == value.substr(0, room - 1));
}

void check_image(const std::string& path, bool from_client) {
  std::string rest = path.substr(0, 4094);
  bool cut = false;
  const auto field = [&](char delimiter) {
    const size_t end = std::min(rest.find(delimiter), rest.size());
    const std::string text = rest.substr(0, end);
    cut = rest.empty() || text.size() > 254;
    rest.erase(0, end + 1);
    return text.substr(0, 254);
  };
  if (!from_client) field('/'), field('/');
  const Buffer client(255), policy(255), image(255);
  const char* const result = extract_client_policy_imagename(
      path.c_str(), from_client ? 1 : 0, client.bytes.get(), policy.bytes.get(), image.bytes.get());
  require(client.text() == field('/'));
  require(policy.text() == field('/'));
  require(image.text() == field('*'));
  require(result == (cut ? nullptr : image.bytes.get()));
}

void check_host(const std::string& url, size_t room) {
  const Buffer out(room);
  const char* const result =
      getHostFromUrl(url.c_str(), out.bytes.get(), static_cast<int>(out.capacity));
  const size_t end = url.find('/', 8);
  if (::strncasecmp(url.c_str(), "https://", 8) != 0 || end == kNowhere) {
    require(result == nullptr);
    return;
  }
  const std::string host = url.substr(8, end - 8);
  require(out.text() == host.substr(0, room - 1));
  require((result != nullptr) == (host.size() < room));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  kelLogSetFlags(KEL_LOG_NONE, 0);
  return 0;
}

// A capacity, a delimiter, and lines: a key, a separator, and the text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const size_t room = size_t{data[0]} + 1;
  const char delim = static_cast<char>(data[1]);
  std::string input(reinterpret_cast<const char*>(data) + 2, size - 2);
  const auto line = [&] {
    const size_t end = std::min(input.find('\n'), input.size());
    const std::string text(input.substr(0, end).c_str());
    input.erase(0, end + 1);
    return text;
  };
  const std::string key = line(), separator = line(), text(input.c_str());
  check_param(text, key, delim, room);
  check_value(text, key, separator, data[1] % 2 == 0, room);
  check_image(text, data[1] % 2 == 0);
  check_host(text, room);
  check_host("https://" + text, room);
  return 0;
}
