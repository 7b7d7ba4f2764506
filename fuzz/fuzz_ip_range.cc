// Range texts and addresses of any kind, in blocks of exactly their size: what the list form makes
// of a text is a set of networks, and the access form, where both take a text, agrees with it.
#include <kel/iprange.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_target.h"

namespace {

/// A block that ends with the terminator.
std::vector<char> block_of(const std::string& text) {
  return {text.c_str(), text.c_str() + std::strlen(text.c_str()) + 1};
}

bool is_shortened(const std::string& text) {
  const auto elements = 1 + std::count(text.begin(), text.end(), ',');
  return std::count(text.begin(), text.end(), '.') != 3 * elements;
}

/// Requires the shape of a record, and that its text and mask make the same one again.
void check_record(const iprange_t& range) {
  const uint32_t host = ~range.mask;
  require((host & (host + 1)) == 0 && (range.network & host) == 0);
  const std::string text =
      range.text + ("/" + std::to_string(32 - (host == 0 ? 0 : 32 - __builtin_clz(host))));
  iprange_t* again = iprange_create(text.c_str());
  require(again != nullptr && again->mask == range.mask && again->network == range.network);
  iprange_destroy(again);
  require(NetCheckIPRange(text.c_str(), range.text, true));
}

}  // namespace

/// The input is an address and, behind a semicolon, a range text.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const size_t end = std::min(input.find(';'), size);
  const std::vector<char> ip = block_of(input.substr(0, end));
  const std::vector<char> ranges = block_of(input.substr(std::min(end + 1, size)));
  const bool valid = NetCheckIPRange(ranges.data(), nullptr, true);
  const bool inside = NetCheckIPRange(ranges.data(), ip.data(), true);
  require(inside == NetCheckIPRange(ranges.data(), ip.data(), false));

  iprange_list_t* list = iprange_list_create(ranges.data());
  size_t count = 0;
  for (void* range = kelListFirst(list); range != nullptr; range = kelListNext(list), ++count)
    check_record(*static_cast<iprange_t*>(range));
  require((list == nullptr) == (count == 0));
  const int single = NetIsSingleIP(ranges.data());
  require((single == -1) == (list == nullptr) && (single != 1 || count == 1));
  if (valid && ranges.size() > 1 && !is_shortened(ranges.data())) require(list != nullptr);

  const std::string host = ip.data() + std::string("/32");
  iprange_t* address = iprange_create(host.c_str());
  if (address != nullptr && valid && list != nullptr)
    require(inside == (iprange_list_lookup(list, address->network) != nullptr));
  iprange_destroy(address);
  iprange_list_destroy(list);
  return 0;
}
