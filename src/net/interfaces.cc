// Lists of local interfaces, and the choice of one by its address.
#include <kel/iprange.h>
#include <kel/runtime.h>
#include <kel/strings.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "internal/ascii.h"
#include "internal/handles.h"
#include "internal/text_traits.h"
#include "net/interface_table.h"
#include "net/ip_range.h"

using namespace kel::internal;

namespace {

constexpr int kListAllocation = 140;  // the code under which a list that cannot be had is reported

struct FreeInterfaces {
  void operator()(NetInterface** list) const noexcept { iflist_destroy(list); }
};
using InterfaceList = std::unique_ptr<NetInterface*, FreeInterfaces>;

/// Bytes of a list: the pointers, the ending null, and the records behind them.
constexpr size_t list_size(size_t count) {
  return (count + 1) * sizeof(NetInterface*) + count * sizeof(NetInterface);
}

/// A list of cleared records; null without a report.
NetInterface** make_list(size_t count) {
  if (count > PTRDIFF_MAX / (sizeof(NetInterface) + sizeof(NetInterface*)) - 1) return nullptr;
  void* block = std::calloc(1, list_size(count));
  if (block == nullptr) return nullptr;
  auto** list = static_cast<NetInterface**>(block);
  auto* records = reinterpret_cast<NetInterface*>(list + count + 1);
  for (size_t i = 0; i < count; ++i) list[i] = &records[i];
  return list;
}

NetInterface** fail_list(size_t size) {
  errno = ENOMEM;
  report_error(kListAllocation, "%s: calloc failed for %lu bytes (NetGetIfList())\n",
               "NetGetIfaceList", size);
  return fail_quietly<NetInterface**>(nullptr, ENOMEM);
}

/// "a.b.c.d" of an entry.
struct AddressText {
  explicit AddressText(const ifreq& entry) {
    const in_addr address = {htonl(address_of(entry.ifr_addr))};
    inet_ntop(AF_INET, &address, text, sizeof text);
  }
  char text[INET_ADDRSTRLEN] = {};
};

bool read_table(InterfaceTable* table, const char* function) {
  const UniqueFd socket = request_socket();
  if (!socket) return fail(false, errno, "%s: could not create socket", function);
  if (table->read(socket.get())) return true;
  return errno == ENOMEM ? false
                         : fail(false, errno, "%s: could not list the interfaces", function);
}

/// The entries that `wanted` picks; null when there are none.
template <class Wanted>
NetInterface** select(const InterfaceTable& table, Wanted wanted) {
  const auto entries = table.entries();
  const auto count = static_cast<size_t>(std::ranges::count_if(entries, wanted));
  if (count == 0) return fail_quietly<NetInterface**>(nullptr, ENOENT);
  NetInterface** list = make_list(count);
  if (list == nullptr) return fail_list(list_size(count));
  NetInterface** next = list;
  for (const ifreq& entry : entries) {
    if (!wanted(entry)) continue;
    copy_cut((*next)->name, entry.ifr_name);
    copy_cut((*next++)->address, AddressText(entry).text);
  }
  return list;
}

}  // namespace

NetInterface** NetGetIfaceList(const char* filter) {
  InterfaceTable table;
  if (!read_table(&table, __func__)) return nullptr;
  return select(table, [filter](const ifreq& entry) {
    if (filter == nullptr) return true;
    if (is_digit(*filter)) return std::strcmp(AddressText(entry).text, filter) == 0;
    return std::strcmp(entry.ifr_name, filter) == 0;
  });
}

void NetFreeIfaceList(NetInterface** list) { iflist_destroy(list); }

NetInterface** iflist_create(size_t count) {
  NetInterface** list = make_list(count);
  return list != nullptr ? list : fail_allocation(list, list_size(count), __func__);
}

void iflist_destroy(NetInterface** list) {
  const ErrnoGuard keep;
  std::free(list);
}

NetInterface** NetGetIPAddrList(const iprange_list_t* list) {
  if (list == nullptr)
    return fail<NetInterface**>(nullptr, EINVAL, "%s: invalid NULL parameter", __func__);
  InterfaceTable table;
  if (!read_table(&table, __func__)) return nullptr;
  if (table.entries().empty())
    return fail<NetInterface**>(nullptr, ENOENT, "%s: invalid interface list", __func__);
  return select(table, [list](const ifreq& entry) {
    return find_range(*list, address_of(entry.ifr_addr)) != nullptr;
  });
}

NetInterface** NetGetIPAddrListFromIPRange(const char* rangeText) {
  const RangeList ranges = parse_ranges(rangeText, __func__);
  return ranges != nullptr ? NetGetIPAddrList(ranges.get()) : nullptr;
}

int NetGetIfaceAddr(FILE* out) {
  const InterfaceList list(NetGetIfaceList(nullptr));
  if (list == nullptr) return -1;
  for (NetInterface** iface = list.get(); *iface != nullptr; ++iface)
    std::fprintf(out != nullptr ? out : stdout, "%s\t%s\n", (*iface)->name, (*iface)->address);
  return 0;
}

int NetGetIfaceAddr_r(const NetInterface* iface, char* buf, size_t len) {
  if (iface == nullptr || buf == nullptr || len == 0)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  return kelstrncpy(buf, iface->address, len, sizeof iface->address) != nullptr ? 0 : -1;
}

int NetGetIFFromIPRange(const char* rangeText, char* ip, size_t iplen, char* ifname,
                        size_t ifnamelen) {
  if (ip == nullptr || iplen == 0 || ifname == nullptr || ifnamelen == 0)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  *ip = *ifname = '\0';
  const RangeList ranges = parse_ranges(rangeText, __func__);
  if (ranges == nullptr) return -1;
  const iprange_t* host = single_host(ranges.get());
  if (host == nullptr) return fail(-1, EINVAL, "%s: no single host: %s", __func__, rangeText);
  InterfaceTable table;
  if (!read_table(&table, __func__)) return -1;
  for (const ifreq& entry : table.entries()) {
    if (address_of(entry.ifr_addr) != host->network) continue;
    const bool fitted = kelstrcpy(ip, host->text, iplen) != nullptr &&
                        kelstrcpy(ifname, entry.ifr_name, ifnamelen) != nullptr;
    return fitted ? 0 : -1;
  }
  return fail(-1, EADDRNOTAVAIL, "%s: no local interface has the address %s", __func__, host->text);
}

int NetGetRandomIPFromIPRange(const char* rangeText, char* ip, size_t iplen) {
  if (rangeText == nullptr || *rangeText == '\0' || ip == nullptr || iplen == 0)
    return fail(-1, EINVAL, "%s: invalid NULL or empty parameter", __func__);
  *ip = '\0';
  const InterfaceList list(NetGetIPAddrListFromIPRange(rangeText));
  unsigned count = 0;
  while (list != nullptr && list.get()[count] != nullptr) ++count;
  if (count == 0)
    return fail(-1, errno, "%s: Get random ip address failed.%s", __func__, rangeText);
  return NetGetIfaceAddr_r(list.get()[RandomRange(0, count - 1)], ip, iplen);
}
