// Resolution: the system's resolver with patience, and its answers as lists of the library's own.
#include "net/resolve.h"

#include <kel/logging.h>
#include <kel/strings.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "internal/handles.h"

using namespace kel::internal;

namespace {

constexpr char kName[] = "tq_getaddrinfo";
constexpr char kCopyName[] = "copy_addrinfo";  // the name in reports
constexpr int kTries = 3;
constexpr std::time_t kPatience = 30;  // seconds after the first try

struct FreeFound {
  void operator()(struct addrinfo* list) const noexcept {
    const ErrnoGuard keep;
    ::freeaddrinfo(list);
  }
};
using FoundList = std::unique_ptr<struct addrinfo, FreeFound>;

const char* shown(const char* text) { return text == nullptr ? "NULL" : text; }

/// One entry of either kind of list, nothing owned.
tq_addrinfo view(const struct addrinfo& from) {
  return {from.ai_flags,     from.ai_family, from.ai_socktype, from.ai_protocol, from.ai_addrlen,
          from.ai_canonname, from.ai_addr,   nullptr,          nullptr};
}
const tq_addrinfo& view(const tq_addrinfo& from) { return from; }

const struct addrinfo* next_of(const struct addrinfo& entry) { return entry.ai_next; }
const tq_addrinfo* next_of(const tq_addrinfo& entry) { return entry.next; }

template <class T>
T* copy_bytes(const T* from, size_t size) {
  void* copy = std::malloc(size);
  return static_cast<T*>(copy == nullptr ? nullptr : std::memcpy(copy, from, size));
}

/// Gives `to` its own copies of what `from` owns.
bool copy_owned(const tq_addrinfo& from, tq_addrinfo* to) {
  if (from.canonname != nullptr && (to->canonname = ::strdup(from.canonname)) == nullptr)
    return fail(false, ENOMEM, "%s: could not duplicate string", kCopyName);
  if (from.addr != nullptr && (to->addr = copy_bytes(from.addr, from.addrlen)) == nullptr)
    return fail(false, ENOMEM, "%s: could not allocate memory for address", kCopyName);
  if (from.cvnetinfo != nullptr &&
      (to->cvnetinfo = copy_bytes(from.cvnetinfo, sizeof(cvnetinfo))) == nullptr)
    return fail(false, ENOMEM, "%s: could not allocate memory for cvnetinfo", kCopyName);
  return true;
}

/// A copy of the list; null after a report.
template <class Source>
AddressList copy_list(const Source* from) {
  AddressList list;
  tq_addrinfo* last = nullptr;
  for (; from != nullptr; from = next_of(*from)) {
    auto* entry = static_cast<tq_addrinfo*>(std::calloc(1, sizeof(tq_addrinfo)));
    if (entry == nullptr)
      return last == nullptr
                 ? fail(nullptr, ENOMEM, "%s: could not allocate memory for dst", kCopyName)
                 : fail(nullptr, ENOMEM, "%s: could not allocate memory for next dst", kCopyName);
    if (last == nullptr)
      list.reset(entry);
    else
      last->next = entry;
    last = entry;
    const tq_addrinfo& source = view(*from);
    entry->flags = source.flags;
    entry->family = source.family;
    entry->socktype = source.socktype;
    entry->protocol = source.protocol;
    entry->addrlen = source.addrlen;
    if (!copy_owned(source, entry)) return nullptr;
  }
  return list;
}

bool is_transient(int err) { return err == EAI_AGAIN || (err == EAI_SYSTEM && errno == EAGAIN); }

/// getaddrinfo(), called again while it may know better in a second.
int ask_system(const char* host, const char* service, const struct addrinfo& hints,
               FoundList* found) {
  const std::time_t started = steady_seconds();
  for (int number = 1;; ++number) {
    struct addrinfo* list = nullptr;
    const int err = ::getaddrinfo(host, service, &hints, &list);
    found->reset(list);
    if (err == 0) return 0;
    const ErrnoGuard keep;
    const char* const text = ::gai_strerror(err);
    const bool transient = is_transient(err);
    if (transient && number > 1 && steady_seconds() - started > kPatience) {
      report_error(-1, "%s: EAI_AGAIN took too long for host %s using service %s: %s", kName,
                   shown(host), shown(service), text);
      return err;
    }
    if (!transient || number == kTries) {
      if (TraceOn())
        __Trace("%s: getaddrinfo failed for host %s using service %s: %s", kName, shown(host),
                shown(service), text);
      return err;
    }
    for (unsigned left = 1; left != 0;) left = ::sleep(left);
    report_error(-1, "%s: getaddrinfo EAI_AGAIN for host %s using service %s try %d: %s", kName,
                 shown(host), shown(service), number, text);
  }
}

void free_entry(tq_addrinfo* entry) {
  std::free(entry->canonname);
  std::free(entry->addr);
  std::free(entry->cvnetinfo);
  std::free(entry);
}

/// As much of `text` as fits.
template <size_t Size>
void put(char (&field)[Size], const char* text) {
  kelstrncpy(field, text == nullptr ? "" : text, Size, Size - 1);
}

}  // namespace

int kel::internal::resolve_here(const char* host, const char* service, const struct addrinfo* hints,
                                tq_addrinfo** res) {
  if (res == nullptr) return fail(EAI_FAIL, EINVAL, "%s: invalid NULL parameter", kName);
  *res = nullptr;
  struct addrinfo wanted = {};
  if (hints != nullptr) wanted = *hints;
  wanted.ai_flags |= AI_NUMERICSERV;
  wanted.ai_socktype = SOCK_STREAM;

  FoundList found;
  int err = ask_system(host, service, wanted, &found);
  if (err == 0) {
    *res = copy_list(found.get()).release();
    if (*res == nullptr) err = fail(EAI_MEMORY, ENOMEM, "%s: could not copy address info", kName);
  }
  if (TraceOn()) __Trace("%s: exiting, err = %d", kName, err);
  return err;
}

int tq_getaddrinfo(const char* host, const char* service, const struct addrinfo* hints,
                   tq_addrinfo** res) {
  char proxy_host[sizeof(cvnetinfo::cvlinkhost)];
  char proxy_port[sizeof(cvnetinfo::cvlinkport)];
  if (get_nat_qxproxy(proxy_host, sizeof proxy_host, proxy_port, sizeof proxy_port))
    return tq_getaddrinfo4cvnet(host, service, proxy_host, proxy_port, res);
  return resolve_here(host, service, hints, res);
}

int tq_getaddrinfo4cvnet(const char* desthost, const char* destport, const char* cvlinkhost,
                         const char* cvlinkport, tq_addrinfo** res) {
  if (res == nullptr) return fail(EAI_FAIL, EINVAL, "%s: invalid NULL parameter", __func__);
  *res = nullptr;
  AddressList entry{static_cast<tq_addrinfo*>(std::calloc(1, sizeof(tq_addrinfo)))};
  if (entry == nullptr)
    return fail(EAI_MEMORY, ENOMEM, "%s : could not allocate memory for tq_addrinfo", __func__);
  entry->socktype = SOCK_STREAM;
  auto* relay = static_cast<cvnetinfo*>(std::calloc(1, sizeof(cvnetinfo)));
  entry->cvnetinfo = relay;
  if (relay == nullptr)
    return fail(EAI_MEMORY, ENOMEM, "%s : could not allocate memory for cvnetinfo", __func__);
  put(relay->desthost, desthost);
  put(relay->destport, destport);
  put(relay->cvlinkhost, cvlinkhost);
  put(relay->cvlinkport, cvlinkport);
  InfoA(-1, "%s: getaddrinfo with desthost %s, destport %s, cvlinkhost %s, cvlinkport %s", __func__,
        relay->desthost, relay->destport, relay->cvlinkhost, relay->cvlinkport);
  *res = entry.release();
  if (TraceOn()) __Trace("%s: exiting, err = %d", __func__, 0);
  return 0;
}

void tq_freeaddrinfo(tq_addrinfo* list) {
  const ErrnoGuard keep;
  while (list != nullptr) {
    tq_addrinfo* const next = list->next;
    free_entry(list);
    list = next;
  }
}

int tq_copyaddrinfo(const tq_addrinfo* src, tq_addrinfo** dst) {
  if (dst != nullptr) *dst = nullptr;
  if (src == nullptr || dst == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  *dst = copy_list(src).release();
  return *dst == nullptr ? -1 : 0;
}
