// Range lists inside the library.
#pragma once

#include <kel/iprange.h>

#include <memory>

#include "containers/list.h"

namespace kel::internal {

struct FreeRanges {
  void operator()(iprange_list_t* list) const noexcept { iprange_list_destroy(list); }
};
using RangeList = std::unique_ptr<iprange_list_t, FreeRanges>;

/// iprange_list_create(); null after a report of `function` too.
RangeList parse_ranges(const char* range_text, const char* function);

/// iprange_list_lookup() that leaves errno alone.
inline const iprange_t* find_range(const iprange_list_t& list, uint32_t address) noexcept {
  for (const ListNode* node = list.head.next; node != nullptr; node = node->next) {
    const auto* range = static_cast<const iprange_t*>(node->element);
    if ((address & range->mask) == range->network) return range;
  }
  return nullptr;
}

/// The one record of a list that is a single host, else null.
const iprange_t* single_host(const iprange_list_t* list);

}  // namespace kel::internal
