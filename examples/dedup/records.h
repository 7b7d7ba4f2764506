// Numbers, texts and fingerprints in the payloads of the repository: big-endian, texts behind their
// length.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fingerprint.h"

namespace dedup {

class RecordWriter {
 public:
  template <class T>
  void number(T value) {
    for (int shift = 8 * (static_cast<int>(sizeof value) - 1); shift >= 0; shift -= 8)
      bytes_.push_back(static_cast<unsigned char>(static_cast<uint64_t>(value) >> shift));
  }
  void text(std::string_view value) {
    number(static_cast<uint32_t>(value.size()));
    raw({reinterpret_cast<const unsigned char*>(value.data()), value.size()});
  }
  void fingerprint(const Fingerprint& value) { raw(value.bytes); }
  void raw(Bytes bytes) { bytes_.insert(bytes_.end(), bytes.begin(), bytes.end()); }

  size_t size() const { return bytes_.size(); }
  void clear() { bytes_.clear(); }
  Bytes bytes() const { return bytes_; }

 private:
  std::vector<unsigned char> bytes_;
};

/// Reads what a RecordWriter wrote. A read past the end gives zeros and makes the reader bad for
/// good, so that a run of reads needs one check behind it.
class RecordReader {
 public:
  RecordReader() = default;
  explicit RecordReader(Bytes bytes) : rest_(bytes) {}

  template <class T>
  T number() {
    uint64_t value = 0;
    for (const unsigned char byte : take(sizeof(T))) value = value << 8 | byte;
    return static_cast<T>(value);
  }
  std::string text() {
    const Bytes found = take(number<uint32_t>());
    return {reinterpret_cast<const char*>(found.data()), found.size()};
  }
  Fingerprint fingerprint() {
    Fingerprint value{};
    const Bytes found = take(value.bytes.size());
    std::copy(found.begin(), found.end(), value.bytes.begin());
    return value;
  }

  bool good() const { return good_; }
  size_t left() const { return rest_.size(); }

 private:
  Bytes take(size_t count) {
    if (count > rest_.size()) {
      good_ = false;
      rest_ = {};
      return {};
    }
    const Bytes found = rest_.first(count);
    rest_ = rest_.subspan(count);
    return found;
  }

  Bytes rest_;
  bool good_ = true;
};

}  // namespace dedup
