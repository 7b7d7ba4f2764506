// Range records and range lists: the form in which a range names local addresses. Elements are read
// where they stand in the text, so nothing but the records and the list is allocated.
#include "net/ip_range.h"

#include <kel/iprange.h>

#include <arpa/inet.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "internal/ascii.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "net/range_text.h"

using namespace kel::internal;

namespace {

using Text = std::string_view;

constexpr size_t kMaxHostLength = 16;  // characters of an element without a prefix length
constexpr int kElementFormat = 69;     // the code under which a longer one is reported
constexpr unsigned long kMaxPrefix = 32;

/// The prefix length in `digits`, the text behind a slash; -1 after a report for getmasklen().
int read_prefix(Text digits) {
  constexpr const char* kName = "getmasklen";
  if (digits.empty() || !is_digit(digits.front()))
    return fail(-1, EINVAL, "%s: no digit found", kName);
  unsigned long length = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), length);
  if (error != std::errc() || end != digits.data() + digits.size())
    return fail(-1, EINVAL, "%s: invalid input: %.*s", kName, print_width(digits), digits.data());
  if (length > kMaxPrefix) return fail(-1, EINVAL, "%s: mask not 0-32 (%lu)", kName, length);
  return static_cast<int>(length);
}

/// The record of `host` with a prefix of `length`; null after a report for iprange_create().
iprange_t* make_range(Text host, int length) {
  constexpr const char* kName = "iprange_create";
  if (length < 0) return nullptr;
  const AddressFields fields = read_fields(host.data());
  if (is_digit(*fields.end))
    return fail<iprange_t*>(nullptr, EINVAL, "%s : could not convert ip address to address", kName);
  if (fields.count != 4 || fields.end != host.data() + host.size())
    return fail<iprange_t*>(nullptr, EINVAL, "%s: IP address format is invalid.", kName);
  MallocPtr<iprange_t> range(static_cast<iprange_t*>(std::malloc(sizeof(iprange_t))));
  if (range == nullptr) return fail_allocation<iprange_t*>(nullptr, sizeof(iprange_t), kName);
  iprange_init(range.get());
  range->mask = mask_of(static_cast<unsigned>(length));
  range->network = fields.address & range->mask;
  const in_addr network = {htonl(range->network)};
  if (inet_ntop(AF_INET, &network, range->text, sizeof range->text) == nullptr)
    return fail<iprange_t*>(nullptr, errno, "%s : could not convert ip address to string", kName);
  return range.release();
}

/// Appends what a trimmed element stands for; false after a report for iprange_list_create().
bool add_element(iprange_list_t* list, Text element, const char* range_text) {
  constexpr const char* kName = "iprange_list_create";
  const size_t slash = element.find('/');
  const bool is_host = slash == Text::npos;
  if (is_host && element.size() > kMaxHostLength) {
    report_error(kElementFormat, "%s: %s: IP Range format error: %.*s", kName, range_text,
                 print_width(element), element.data());
    return fail_quietly(false, EINVAL);
  }
  const char* suffix = is_host ? "/32" : "";
  MallocPtr<iprange_t> range(
      is_host ? make_range(element, kMaxPrefix)
              : make_range(element.substr(0, slash), read_prefix(element.substr(slash + 1))));
  if (range == nullptr)
    return fail(false, errno, "%s: get ip range address failed %.*s%s", kName, print_width(element),
                element.data(), suffix);
  if (iprange_list_add(list, range.get()) != 0)
    return fail(false, errno, "%s: Add the node into IP range list failed %.*s%s", kName,
                print_width(element), element.data(), suffix);
  range.release();
  return true;
}

}  // namespace

namespace kel::internal {

RangeList parse_ranges(const char* range_text, const char* function) {
  RangeList list(iprange_list_create(range_text));
  if (list == nullptr)
    report_error(errno, "%s: Parse ip range string failed %s", function,
                 range_text != nullptr ? range_text : "NULL");
  return list;
}

const iprange_t* single_host(const iprange_list_t* list) {
  const ListNode* first = list->head.next;
  if (first == nullptr || first->next != nullptr) return nullptr;
  const auto* range = static_cast<const iprange_t*>(first->element);
  return range->mask == mask_of(kMaxPrefix) ? range : nullptr;
}

}  // namespace kel::internal

void iprange_init(iprange_t* range) {
  if (range != nullptr) *range = {};
}

iprange_t* iprange_create(const char* element) {
  if (element == nullptr)
    return fail<iprange_t*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  const int length = getmasklen(element);
  return make_range(Text(element).substr(0, Text(element).find('/')), length);
}

void iprange_destroy(iprange_t* range) { std::free(range); }

int getmasklen(const char* element) {
  if (element == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  const char* slash = std::strchr(element, '/');
  if (slash == nullptr)
    return fail(-1, EINVAL, "%s: invalid parameter: does not contain '/'", __func__);
  return read_prefix(slash + 1);
}

iprange_list_t* iprange_list_create(const char* rangeText) {
  if (rangeText == nullptr || *rangeText == '\0')
    return fail<iprange_list_t*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  RangeList list(kelListCreate());
  if (list == nullptr)
    return fail_allocation<iprange_list_t*>(nullptr, sizeof(iprange_list_t), __func__);
  Text rest = rangeText;
  for (;;) {
    const size_t comma = rest.find(',');
    if (!add_element(list.get(), trim_blanks(rest.substr(0, comma)), rangeText)) return nullptr;
    if (comma == Text::npos) return list.release();
    rest.remove_prefix(comma + 1);
  }
}

int iprange_list_add(iprange_list_t* list, iprange_t* range) {
  if (list == nullptr || range == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  return kelListAdd(list, range);
}

const iprange_t* iprange_list_lookup(const iprange_list_t* list, uint32_t address) {
  if (list == nullptr)
    return fail<const iprange_t*>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  const iprange_t* range = find_range(*list, address);
  return range != nullptr ? range : fail_quietly(range, ENOENT);
}

void iprange_list_destroy(iprange_list_t* list) {
  const ErrnoGuard keep;
  kelListDestroy(list, std::free);
}

int NetIsSingleIP(const char* rangeText) {
  const RangeList list = parse_ranges(rangeText, __func__);
  if (list == nullptr) return -1;
  return single_host(list.get()) != nullptr ? 1 : 0;
}
