// Starting and stopping the library.
#include <kel/library.h>
#include <kel/logging.h>
#include <kel/runtime.h>

#include <curl/curl.h>
#include <unistd.h>

#include <clocale>

#include "frame/clocks.h"
#include "frame/stop_hook.h"
#include "frame/version.h"
#include "internal/atomic_field.h"

using namespace kel::internal;

namespace {

constexpr char kPerformanceMarker[] = "/usr/quorv/tolq/pelk-perf";

bool initialized = false;
bool performance_marker = false;
void (*stop_hook)() = nullptr;

void check_interface(const char* version) {
  if (version != nullptr && version[0] == kInterfaceVersion[0]) return;
  std::fprintf(stderr,
               "Warning: libkel: version mismatch: this application was compiled using version %s "
               "but is linked against version %s instead.\n",
               version == nullptr ? "(unknown)" : version, kInterfaceVersion);
}

}  // namespace

int _KelLibInit(const char*, const char* version) {
  if (initialized) return 1;
  initialized = true;
  check_interface(version);
  init_tick_count();
  std::setlocale(LC_ALL, "");
  curl_global_init(CURL_GLOBAL_ALL);
  XAllocInit();
  RefreshMarkerFiles();
  return 1;
}

void kel::internal::set_stop_hook(void (*hook)()) noexcept { store_field(stop_hook, hook); }

int KelLibDestroy(void) {
  if (const auto hook = load_field(stop_hook)) hook();
  kelLogClose();
  kelLogDestroy();
  initialized = false;
  return 0;
}

bool PerfEnabled(void) { return load_field(performance_marker); }

void RefreshMarkerFiles(void) {
  store_field(performance_marker, access(kPerformanceMarker, F_OK) == 0);
}

tqutil::LibAutoInit::LibAutoInit(const std::string& name) {
  _KelLibInit(name.c_str(), kInterfaceVersion);
}

tqutil::LibAutoInit::~LibAutoInit() {
  try {
    KelLibDestroy();
  } catch (...) {  // NOLINT(bugprone-empty-catch): nobody is left to tell
  }
}
