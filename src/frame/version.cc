// What version this is, and whether another one fits.
#include "frame/version.h"

#include <kel/library.h>

#include <string_view>

using namespace kel::internal;

const char* KelGetVersion(void) { return kInterfaceVersion; }

const char* KelGetVersionString(void) { return "libkel, interface version 6.0.0.0, July 7, 2004"; }

const char* GetKELVersion(void) { return kProductVersion; }

bool CheckKELVersion(const char* version) {
  if (version == nullptr) return false;
  const std::string_view theirs = version;
  const std::string_view ours = kProductVersion;
  const size_t first = theirs.find('.');
  const size_t second = first == theirs.npos ? theirs.npos : theirs.find('.', first + 1);
  return theirs.substr(0, second) == ours.substr(0, second);
}
