// The access check: one pass over the range text, in place. There is no copy to fail for want of
// memory, and no report is built unless one is wanted.
#include <kel/iprange.h>
#include <kel/logging.h>

#include <bit>
#include <cstring>
#include <string_view>

#include "internal/report.h"
#include "net/range_text.h"

using namespace kel::internal;

namespace {

constexpr const char* kName = "NetCheckIPRange";

/// The codes of the reports.
enum : int {
  kBadAddress = 63,
  kIncompleteAddress = 64,
  kBadPrefix = 65,
  kBitsBehindPrefix = 67,
  kNoMatch = 68,
};

/// A byte of an address, counted from 0 at the top, as "%i" takes it.
constexpr int byte_of(uint32_t address, int index) {
  return static_cast<int>(address >> (24 - 8 * index) & 0xff);
}

struct Network {
  uint32_t address, mask;

  bool holds(uint32_t other) const { return (other & mask) == address; }
};

bool refuse_address(std::string_view text) {
  report_error(kBadAddress, "%s: bad IP address: %.*s", kName, print_width(text), text.data());
  return false;
}

bool read_caller(const char* ip, bool report, uint32_t* address) {
  const AddressFields fields = read_fields(ip);
  if (*fields.end != '\0') return report && refuse_address(ip);
  if (fields.count < 4) {
    if (report) report_error(kIncompleteAddress, "%s: incomplete IP address: %s", kName, ip);
    return false;
  }
  *address = fields.address;
  return true;
}

/// Reads the elements of a range text one by one.
class Elements {
 public:
  Elements(const char* range_text, bool report)
      : range_text_(range_text), next_(range_text), report_(report) {}

  bool at_end() const { return next_ == nullptr; }

  /// Reads an element and stands at the next one, or fails.
  bool read(Network* network) {
    const char* text = next_;
    while (is_blank(*text)) ++text;
    const AddressFields fields = read_fields(text);
    const char* end = fields.end;
    unsigned length = 8 * fields.count;
    const bool has_prefix = *end == '/' && is_digit(end[1]);
    if (has_prefix) length = read_number(&++end);
    while (is_blank(*end)) ++end;
    if (fields.count == 0 || (*end != ',' && *end != '\0')) return refuse_element(text);
    if (length > 32) return refuse_prefix(text, fields.end, length);
    *network = {.address = fields.address, .mask = mask_of(length)};
    if (const uint32_t behind = fields.address & ~network->mask; behind != 0)
      return refuse_bits(std::countl_zero(behind) / 8, network->mask);
    next_ = *end == ',' ? end + 1 : nullptr;
    return true;
  }

 private:
  bool refuse_element(const char* text) const {
    return report_ && refuse_address(trim_blanks({text, std::strcspn(text, ",")}));
  }
  bool refuse_prefix(const char* text, const char* end, unsigned length) const {
    if (report_)
      report_error(kBadPrefix,
                   "%s: incorrect netmask value, must be between 0 and 32. Actual value: %.*s/%i",
                   kName, static_cast<int>(end - text), text, static_cast<int>(length));
    return false;
  }
  /// @param field  the first one with bits that it must not have, from 0
  bool refuse_bits(int field, uint32_t mask) const {
    if (report_)
      report_error(kBitsBehindPrefix,
                   "%s: Incorrect IP range (field %i must be a multiple of %i). Actual value: %s",
                   kName, field + 1, 256 - byte_of(mask, field), range_text_);
    return false;
  }

  const char* range_text_;
  const char* next_;  // null behind the last
  bool report_;
};

void report_no_match(const char* ip, const Network& network) {
  const auto [address, mask] = network;
  report_error(kNoMatch, "%s: Bad match: %s outside %i.%i.%i.%i/%i.%i.%i.%i\n", kName, ip,
               byte_of(address, 0), byte_of(address, 1), byte_of(address, 2), byte_of(address, 3),
               byte_of(mask, 0), byte_of(mask, 1), byte_of(mask, 2), byte_of(mask, 3));
}

}  // namespace

bool NetCheckIPRange(const char* rangeText, const char* ip, bool report) {
  if (rangeText == nullptr || *rangeText == '\0') {
    if (report) __Trace("%s: NULL or empty iprange", kName);
    return true;
  }
  uint32_t address = 0;
  if (ip != nullptr && !read_caller(ip, report, &address)) return fail_quietly(false, EINVAL);
  Elements elements(rangeText, report);
  while (!elements.at_end()) {
    Network network;
    if (!elements.read(&network)) return fail_quietly(false, EINVAL);
    if (ip == nullptr) continue;
    if (network.holds(address)) return true;
    if (report) report_no_match(ip, network);
  }
  return ip == nullptr || fail_quietly(false, EINVAL);
}
