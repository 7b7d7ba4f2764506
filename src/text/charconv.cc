// Handles over iconv(3): a conversion is one loop, which either counts what comes out or collects
// it.
#include <kel/charconv.h>

#include <iconv.h>
#include <langinfo.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "internal/handles.h"
#include "internal/report.h"

struct charconv_t {
  iconv_t descriptor;
};

namespace {

using namespace kel::internal;

constexpr auto kFailed = static_cast<std::size_t>(-1);

constexpr char kNoDescriptor[] = "Invalid NULL conversion descriptor";
constexpr char kNoText[] = "Invalid NULL parameter";

struct Closer {
  void operator()(charconv_t* h) const noexcept { charconv_close(h); }
};
using UniqueCharconv = std::unique_ptr<charconv_t, Closer>;

const char* or_locale(const char* code) { return code == nullptr ? nl_langinfo(CODESET) : code; }

/// Output that is only counted.
class Counter {
 public:
  char* place() { return scratch_; }
  std::size_t room() const { return sizeof scratch_; }
  void add(std::size_t produced) { size_ += last_ = produced; }
  /// More room: the same again, which is of no use when the last one got nothing.
  bool grow() const { return last_ != 0; }
  std::size_t size() const { return size_; }

 private:
  char scratch_[4096];
  std::size_t size_ = 0;
  std::size_t last_ = 0;
};

/// Output that is kept in memory which doubles, with room for a terminator of any width.
class Collector {
 public:
  static constexpr std::size_t kTerminator = 4;

  /// `expected` is only a guess.
  explicit Collector(std::size_t expected) : capacity_(expected) {}

  bool allocate() { return resize(capacity_); }
  char* place() { return text_.get() + size_; }
  std::size_t room() const { return capacity_ - size_; }
  void add(std::size_t produced) { size_ += produced; }
  bool grow() { return resize(2 * capacity_); }
  std::size_t size() const { return size_; }

  /// Terminates the text and gives it away in no more memory than it needs.
  char* release() {
    std::memset(place(), 0, kTerminator);
    // Should the block not shrink, it serves as it is.
    if (capacity_ > size_) resize(size_);
    return text_.release();
  }

 private:
  bool resize(std::size_t capacity) {
    auto* const moved = static_cast<char*>(std::realloc(text_.get(), capacity + kTerminator));
    if (moved == nullptr) return fail_quietly(false, ENOMEM);
    static_cast<void>(text_.release());
    text_.reset(moved);
    capacity_ = capacity;
    return true;
  }

  MallocPtr<char> text_;
  std::size_t capacity_;
  std::size_t size_ = 0;
};

/// Converts all of the input and returns to the initial state; errno tells why not.
template <class Output>
bool convert(iconv_t descriptor, const char* in, std::size_t len, Output& output) {
  char* from = const_cast<char*>(in);
  for (bool input_done = false;;) {
    char* to = output.place();
    std::size_t room = output.room();
    const std::size_t result = input_done ? iconv(descriptor, nullptr, nullptr, &to, &room)
                                          : iconv(descriptor, &from, &len, &to, &room);
    output.add(static_cast<std::size_t>(to - output.place()));
    if (result == kFailed) {
      if (errno != E2BIG || !output.grow()) return false;
    } else if (input_done) {
      return true;
    } else {
      input_done = true;
    }
  }
}

ssize_t converted_length(const char* function, charconv_t* h, const char* in, std::size_t len) {
  if (h == nullptr) return fail(-1, EINVAL, "%s: %s", function, kNoDescriptor);
  Counter counter;
  if (charconv_reset(h) != 0 || !convert(h->descriptor, in, len, counter))
    return fail(-1, errno, "%s: iconv returns (size_t)(-1): %s", function, std::strerror(errno));
  return static_cast<ssize_t>(counter.size());
}

/// A null text is reported under what errno was.
ssize_t fail_length(const char* function) {
  report_error(errno, "%s: %s", function, kNoText);
  return fail_quietly(-1, EINVAL);
}

char* converted(const char* function, charconv_t* h, const char* in, std::size_t len,
                std::size_t* out_len) {
  char* const failure = nullptr;
  if (out_len != nullptr) *out_len = 0;
  if (h == nullptr) return fail(failure, EINVAL, "%s: %s", function, kNoDescriptor);
  if (in == nullptr) return fail(failure, EINVAL, "%s: %s", function, kNoText);
  if (charconv_reset(h) != 0) return fail(failure, errno, "%s: charconv_reset failed", function);
  Collector collector(std::max<std::size_t>(len + len / 2, 64));
  if (!collector.allocate() || !convert(h->descriptor, in, len, collector)) {
    return errno == ENOMEM ? fail(failure, ENOMEM, "%s: could not allocate memory", function)
                           : fail(failure, errno, "%s: Failed to convert", function);
  }
  if (out_len != nullptr) *out_len = collector.size();
  return collector.release();
}

std::size_t length_of(const char* s) { return s == nullptr ? 0 : std::strlen(s); }

/// A string through a handle of its own.
char* converted_once(const char* function, UniqueCharconv h, const char* s) {
  return h == nullptr ? nullptr : converted(function, h.get(), s, length_of(s), nullptr);
}

}  // namespace

charconv_t* charconv_open(const char* tocode, const char* fromcode) {
  MallocPtr<charconv_t> h(static_cast<charconv_t*>(std::malloc(sizeof(charconv_t))));
  if (h == nullptr) return fail_allocation<charconv_t*>(nullptr, sizeof(charconv_t), __func__);
  h->descriptor = iconv_open(or_locale(tocode), or_locale(fromcode));
  // NOLINTNEXTLINE(performance-no-int-to-ptr): iconv_open's own failure value
  return h->descriptor == reinterpret_cast<iconv_t>(-1) ? nullptr : h.release();
}
charconv_t* charconv_open_utf8_to_locale(void) { return charconv_open(nullptr, "UTF-8"); }
charconv_t* charconv_open_locale_to_utf8(void) { return charconv_open("UTF-8", nullptr); }

int charconv_close(charconv_t* h) {
  if (h == nullptr) return fail(-1, EINVAL, "%s: %s", __func__, kNoDescriptor);
  const int result = iconv_close(h->descriptor);
  std::free(h);
  return result;
}

int charconv_reset(charconv_t* h) {
  if (h == nullptr) return fail(-1, EINVAL, "%s: %s", __func__, kNoDescriptor);
  return iconv(h->descriptor, nullptr, nullptr, nullptr, nullptr) == kFailed ? -1 : 0;
}

ssize_t charconv_buf_len(charconv_t* h, const char* in, size_t len) {
  return in == nullptr ? fail_length(__func__) : converted_length(__func__, h, in, len);
}
ssize_t charconv_string_len(charconv_t* h, const char* s) {
  return s == nullptr ? fail_length(__func__) : converted_length(__func__, h, s, std::strlen(s));
}

ssize_t _charconv_buf_buf(charconv_t* h, char* in, size_t* inLen, char* out, size_t* outLen) {
  if (h == nullptr) return fail(-1, EINVAL, "%s: %s", __func__, kNoDescriptor);
  if (in == nullptr || inLen == nullptr || out == nullptr || outLen == nullptr)
    return fail(-1, EINVAL, "%s: %s", __func__, kNoText);
  const std::size_t capacity = *outLen;
  *outLen = 0;
  if (charconv_reset(h) != 0) return fail(-1, errno, "%s: charconv_reset failed", __func__);
  std::size_t room = capacity;
  const std::size_t result = iconv(h->descriptor, &in, inLen, &out, &room);
  *outLen = capacity - room;
  if (result == kFailed) return fail(-1, errno, "%s: Failed to convert", __func__);
  return static_cast<ssize_t>(result);
}

char* charconv_buf_malloced(charconv_t* h, const char* in, size_t len, size_t* outLen) {
  return converted(__func__, h, in, len, outLen);
}
char* charconv_buf_malloced_simple(charconv_t* h, const char* in, size_t len) {
  return converted(__func__, h, in, len, nullptr);
}
char* charconv_string_malloced(charconv_t* h, const char* s, size_t* outLen) {
  return converted(__func__, h, s, length_of(s), outLen);
}
char* charconv_string_malloced_simple(charconv_t* h, const char* s) {
  return converted(__func__, h, s, length_of(s), nullptr);
}

char* utf8tostr_malloced(const char* s) {
  return converted_once(__func__, UniqueCharconv(charconv_open_utf8_to_locale()), s);
}
char* strtoutf8_malloced(const char* s) {
  return converted_once(__func__, UniqueCharconv(charconv_open_locale_to_utf8()), s);
}
