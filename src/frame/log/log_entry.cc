// The C entry points and the reports' way to the log files. Exceptions end here: a line that cannot
// be written is dropped, and that is told once.
#include <kel/logging.h>

#include <atomic>
#include <exception>

#include "frame/log/log_access.h"
#include "frame/log/log_state.h"
#include "frame/log_sink.h"
#include "internal/report.h"

namespace {

using namespace kel::internal;
using kel::util::LogManager;

std::atomic<unsigned long> process_log_max_size;

/// Calls `write`, which is about lines for `path`; errno stays.
template <class Write>
void contain(std::string_view path, Write write) noexcept {
  const ErrnoGuard keep;
  try {
    write();
  } catch (const std::exception& e) {
    tell_lost_lines(path, e.what());
  }
}

}  // namespace

namespace kel::internal {

void write_log_line(std::string_view line, const char* path, bool urgent) noexcept {
  contain(path, [&] { LogAccess::write(line, path, urgent); });
}

void flush_log_files() noexcept {
  contain("", [] { LogAccess::flush_and_close(); });
}

void rescue_log_lines() noexcept {
  LogAccess::flush_before(Deadline(std::chrono::milliseconds(100)));
}

int reset_log_files() noexcept { return LogAccess::reset(); }

}  // namespace kel::internal

void logFileWriteA(const char* line, const char* path) {
  if (line != nullptr) write_log_line(line, path != nullptr ? path : "", false);
}

void logFileWriteW(const wchar_t* line, const char* path) {
  if (line == nullptr) return;
  const char* const to = path != nullptr ? path : "";
  contain(to, [&] { LogManager::getInstance()->writeToLog(std::wstring(line), to); });
}

void logFileFlushStreams(void) { flush_log_files(); }
int logFileReset(void) { return reset_log_files(); }

void logFileSetMaxSize(unsigned long bytes) {
  contain("", [=] { LogManager::getInstance()->setMaxFileSize(bytes); });
}

void kelLogSetProcessMaxSize(unsigned long bytes) {
  process_log_max_size = bytes;
  logFileSetMaxSize(bytes);
  InfoA(-1, "set entire process max log size to %lu", bytes);
}
void kelLogSetMaxSize(unsigned long bytes) { kelLogSetProcessMaxSize(bytes); }

unsigned long kelLogGetProcessMaxSize(unsigned long* out) {
  const unsigned long bytes = process_log_max_size;
  if (out != nullptr) *out = bytes;
  return bytes;
}
unsigned long kelLogGetMaxSize(unsigned long* out) { return kelLogGetProcessMaxSize(out); }
