// Settings of the plug-in that are read once per process, and its fixed directories.
#include "config/probes.h"

#include <kel/inifile.h>
#include <kel/logging.h>
#include <kel/probes.h>
#include <kel/strings.h>

#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <utility>

#include "internal/report.h"

using namespace kel::internal;
using namespace kel::config;

namespace {

constexpr char kPluginDirectory[] = "/etc/ZORNagent/";
constexpr char kCacheDirectory[] = "/usr/quorv/tolq/tqag/var/cache/";

/// The capacity that a signed size stands for.
size_t capacity(int size) noexcept { return static_cast<size_t>(std::max(size, 0)); }

enum class MissingFile { kRead, kPassOver };

/// One number, read at the first call and kept for the life of the process.
class Probe {
 public:
  constexpr Probe(const char* file, const char* section, const char* key,
                  MissingFile missing) noexcept
      : file_(file), section_(section), key_(key), missing_(missing) {}

  int value() {
    // Reading may report, and the redirector that receives the report may ask for the value.
    if (being_read == this) return 0;
    std::call_once(once_, [this] {
      const Probe* const outer = std::exchange(being_read, this);
      value_ = read();
      being_read = outer;
    });
    return value_;
  }

 private:
  int read() const {
    trace_plugin_directory();
    if (missing_ == MissingFile::kPassOver && ::access(file_, F_OK) != 0) {
      if (TraceOn() != 0) __Trace("fips.conf do not exist");
      return 0;
    }
    char text[32];
    if (InifileGetValueA(section_, key_, text, sizeof text, "0", file_) == 0) return 0;
    const ErrnoGuard keep;
    return number_in(text, nullptr);
  }

  static thread_local const Probe* being_read;

  const char* const file_;
  const char* const section_;
  const char* const key_;
  const MissingFile missing_;
  std::once_flag once_;
  int value_ = 0;
};

thread_local const Probe* Probe::being_read = nullptr;

constinit Probe fips(kFipsFile, "Main", "FIPS", MissingFile::kPassOver);
constinit Probe latest_tls(kPluginSettingsFile, INIFILE_TOP_SECTION, "DISABLE_BACKLEVEL_TLS",
                           MissingFile::kRead);
constinit Probe ssl_verify(kPluginSettingsFile, INIFILE_TOP_SECTION, "TQDO_SSL_VERIFY",
                           MissingFile::kRead);

}  // namespace

void kel::config::trace_plugin_directory() {
  if (TraceOn() != 0) __Trace("getPluginPath : %s", kPluginDirectory);
}

char* getPluginPath(char* buf, int len) {
  if (buf == nullptr) return fail_quietly<char*>(nullptr, EINVAL);
  kelstrcpy(buf, kPluginDirectory, capacity(len));
  trace_plugin_directory();
  return buf;
}

void setPluginPath(const char*) {}

int GetCacheDir(char* buf, size_t len) {
  kelstrcpy(buf, kCacheDirectory, len);
  return 1;
}

int getFIPSMode(void) {
  const int value = fips.value();
  if (TraceOn() != 0) __Trace("getFIPSMode return value is: %d ", value);
  return value;
}

int supportLatestTLS(void) { return latest_tls.value(); }
int supportTQDOSSLVerify(void) { return ssl_verify.value(); }
