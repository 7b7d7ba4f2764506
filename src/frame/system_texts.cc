// One-line questions to the C library and the system.
#include <kel/runtime.h>

#include <netdb.h>
#include <wchar.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/ascii.h"
#include "internal/report.h"

namespace {

constexpr size_t kTextSize = 1024;

const wchar_t* widen(wchar_t (&buffer)[kTextSize], const char* text) {
  if (swprintf(buffer, kTextSize, L"%hs", text) < 0) buffer[0] = L'\0';
  return buffer;
}

}  // namespace

unsigned long GetTid(void) { return pthread_self(); }

int KelThreadActive(pthread_t thread) { return thread != 0; }

int KelIsDecimalNumber(const char* s) {
  while (kel::internal::is_digit(*s)) ++s;
  return *s == '\0';
}

char* kelgetenv(const char* name) { return std::getenv(name); }

const wchar_t* OSErrorW(void) {
  static wchar_t text[kTextSize];
  const kel::internal::ErrnoGuard keep;
  return widen(text, std::strerror(errno));
}

const wchar_t* hstrerrorW(int error) {
  static wchar_t text[kTextSize];
  return widen(text, hstrerror(error));
}
