// The NAT proxy of this host, kept for a while in between readings of its file.
#include <kel/logging.h>
#include <kel/strings.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <string_view>

#include "internal/handles.h"
#include "internal/report.h"
#include "net/resolve.h"

using namespace kel::internal;

namespace {

constexpr char kName[] = "get_nat_qxproxy";
constexpr char kPath[] = "/usr/quorv/brelvox/vq.conf";
constexpr std::string_view kHostKey = "NAT_QXPROXY_HOST";
constexpr std::string_view kPortKey = "NAT_QXPROXY_PORT";
constexpr std::time_t kFresh = 119;  // seconds

struct Settings {
  char host[sizeof(cvnetinfo::cvlinkhost)] = "";
  char port[sizeof(cvnetinfo::cvlinkport)] = "";
  bool known = false;  // both of them
  bool read = false;
  std::time_t read_at = 0;

  bool are_fresh() const { return read && steady_seconds() - read_at <= kFresh; }
};

std::mutex kept_mutex;
Settings kept;

Settings kept_settings() {
  const std::scoped_lock lock(kept_mutex);
  return kept;
}

void keep_settings(const Settings& settings) {
  const std::scoped_lock lock(kept_mutex);
  kept = settings;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n\v\f";
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

template <size_t Size>
void take_value(std::string_view line, std::string_view key, char (&value)[Size]) {
  const size_t equals = line.find('=');
  if (!line.starts_with(key) || equals == line.npos) return;
  char text[4096];
  text[trimmed(line.substr(equals + 1)).copy(text, sizeof text - 1)] = '\0';
  kelstrcpy(value, text, Size);
}

/// What the file says now; nothing, after a report, when it cannot be opened.
Settings read_settings() {
  Settings settings;
  settings.read = true;
  settings.read_at = steady_seconds();
  const UniqueFile file{std::fopen(kPath, "re")};
  if (file == nullptr) {
    report_error(-1, "%s: file (%s) open error ", kName, kPath);
    return settings;
  }
  char line[4096];
  while (std::fgets(line, sizeof line, file.get()) != nullptr) {
    take_value(trimmed(line), kHostKey, settings.host);
    take_value(trimmed(line), kPortKey, settings.port);
  }
  const bool has_host = settings.host[0] != '\0';
  const bool has_port = settings.port[0] != '\0';
  if (TraceOn()) {
    if (has_host) __Trace("%s: NAT_QXPROXY_HOST = %s", kName, settings.host);
    if (has_port) __Trace("%s: NAT_QXPROXY_PORT = %s", kName, settings.port);
  }
  if (has_host != has_port)
    report_error(-1, "%s: failed to get NAT_QXPROXY_HOST and NAT_QXPROXY_PORT, missed one of them.",
                 kName);
  settings.known = has_host && has_port;
  return settings;
}

size_t capacity(int length) { return static_cast<size_t>(std::max(length, 0)); }

}  // namespace

bool get_nat_qxproxy(char* host, int hostlen, char* port, int portlen) {
  if (host == nullptr || port == nullptr)
    return fail(false, EINVAL, "%s: invalid NULL parameter", kName);
  // The file is read outside the lock: two threads may do so at once, and either is right.
  Settings settings = kept_settings();
  if (!settings.are_fresh()) {
    settings = read_settings();
    keep_settings(settings);
  }
  kelstrcpy(host, settings.host, capacity(hostlen));
  kelstrcpy(port, settings.port, capacity(portlen));
  return settings.known;
}
