// The settings error block: one layout for everything that is wrong with a setting.
#include <kel/inifile.h>
#include <kel/logging.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr size_t kReasonSize = 1024;

struct Setting {
  const char* file;
  const char* section;
  const char* entry;
};

const char* shown(const char* text) noexcept { return text == nullptr ? "(none)" : text; }

void report(int level, const Setting& at, const char* value, const char* format, va_list args) {
  char reason[kReasonSize];
  std::vsnprintf(reason, sizeof reason, format, args);
  kelLog(value == nullptr ? ENOENT : EINVAL, level,
         "\nBadValue : %s\nFile     : %s\nSection  : %s\nEntry    : %s\nReason   : %s\n",
         shown(value), shown(at.file), shown(at.section), shown(at.entry), reason);
}

void report(int level, const Setting& at, long value, const char* format, va_list args) {
  char text[24];
  std::snprintf(text, sizeof text, "%li", value);
  report(level, at, text, format, args);
}

}  // namespace

void InifileErrorA(const char* file, const char* section, const char* entry, const char* value,
                   const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(KEL_LOG_ERR, {file, section, entry}, value, fmt, args);
  va_end(args);
}

void InifileWarningA(const char* file, const char* section, const char* entry, const char* value,
                     const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(KEL_LOG_WARN, {file, section, entry}, value, fmt, args);
  va_end(args);
}

void InifileNoticeA(const char* file, const char* section, const char* entry, const char* value,
                    const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(KEL_LOG_NOTICE, {file, section, entry}, value, fmt, args);
  va_end(args);
}

void InifileValueErrorA(const char* file, const char* section, const char* entry, long value,
                        const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(KEL_LOG_ERR, {file, section, entry}, value, fmt, args);
  va_end(args);
}

void InifileValueWarningA(const char* file, const char* section, const char* entry, long value,
                          const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(KEL_LOG_WARN, {file, section, entry}, value, fmt, args);
  va_end(args);
}

void InifileValueNoticeA(const char* file, const char* section, const char* entry, long value,
                         const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  report(KEL_LOG_NOTICE, {file, section, entry}, value, fmt, args);
  va_end(args);
}
