// Building one line and sending it to its places. This is the hot path of every report: no lock but
// that of the file, no allocation, and for a disabled level nothing beyond the formatting and the
// copy.
#include <kel/logging.h>

#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "frame/local_time.h"
#include "frame/log_context.h"
#include "frame/log_sink.h"
#include "internal/ascii.h"
#include "internal/atomic_field.h"
#include "internal/report.h"

namespace kel::internal {
namespace {

constexpr size_t kMessageLimit = 2046;  // characters before the closing newline
constexpr size_t kFileLineSize = 2368;
constexpr size_t kDateSize = 256;

struct LevelTraits {
  int level;
  const char* label;    // in the file and the system log
  const char* console;  // on the console
  int priority;         // of syslog(3); 0 keeps the line away from it
  int threshold;        // the console level that the console output needs
  bool extended;
  bool urgent;  // a file line reaches the kernel before the call returns
};

constexpr LevelTraits kLevels[] = {
    {KEL_LOG_CRIT, "CRIT", "Fatal Error", 0, 1, false, true},
    {KEL_LOG_ERR, "ERR", "Error", LOG_ERR, 1, false, true},
    {KEL_LOG_WARN, "WARNING", "Warning", LOG_WARNING, 1, false, false},
    {KEL_LOG_AUTH, "AUTH", "Auth", LOG_NOTICE, 2, false, true},
    {KEL_LOG_INFO, "INFO", "Info", LOG_INFO, 2, false, false},
    {KEL_LOG_NOTICE, "NOTICE", "Notice", LOG_NOTICE, 2, false, false},
    {KEL_LOG_TRACE, "TRACE", "Trace", 0, 2, false, false},
    {KEL_LOG_BUG, "BUG", "BUG", LOG_ALERT, 1, false, true},
    {KEL_LOG_YARL_ERROR, "YARL ERROR", "YARL Error", LOG_ERR, 2, true, true},
    {KEL_LOG_YARL_WARNING, "YARL WARNING", "YARL Warning", LOG_WARNING, 2, true, false},
    {KEL_LOG_YARL_INFO, "YARL INFO", "YARL Info", LOG_INFO, 2, true, false},
    {KEL_LOG_YARL_DEBUG, "YARL DEBUG", "YARL Debug", LOG_DEBUG, 2, true, false},
    {KEL_LOG_YARL_TRACE, "YARL TRACE", "YARL Trace", 0, 2, true, false},
};
constexpr LevelTraits kOtherLevel = {0, "INFO", "Info", LOG_INFO, 2, false, false};

const LevelTraits& traits_of(int level) noexcept {
  const auto* found = std::find_if(std::begin(kLevels), std::end(kLevels),
                                   [level](const LevelTraits& t) { return t.level == level; });
  return found != std::end(kLevels) ? *found : kOtherLevel;
}

int shown_code(const kelLogCtx& context, int code) noexcept {
  return static_cast<int>(static_cast<unsigned>(context.baseCode) + static_cast<unsigned>(code));
}

/// Writes "CODE: " at the start of the message where the level asks for it; returns its length.
size_t write_prefix(kelLogCtx& context, int code, int level) noexcept {
  const bool always = level == KEL_LOG_CRIT || level == KEL_LOG_ERR || level == KEL_LOG_WARN;
  if (!always && code <= 0) return 0;
  const int shown = code == -1 ? -1 : shown_code(context, code);
  char* end = std::to_chars(context.message, context.message + 16, shown).ptr;
  *end++ = ':';
  *end++ = ' ';
  return static_cast<size_t>(end - context.message);
}

/// Formats prefix and text into the message and ends it in one newline; returns the whole length, 0
/// for an empty message.
size_t write_message(kelLogCtx& context, size_t prefix, const char* format, va_list args) noexcept {
  const size_t room = sizeof context.message - prefix;
  const int formatted = std::vsnprintf(context.message + prefix, room, format, args);
  const size_t text = formatted < 0 ? 0 : static_cast<size_t>(formatted);
  if (prefix + text == 0) return 0;
  size_t length = std::min(prefix + text, kMessageLimit);
  if (context.message[length - 1] != '\n') context.message[length++] = '\n';
  context.message[length] = '\0';
  return length;
}

enum class DateForm { kNone, kTimeOnly, kStandard, kExtended };

/// The thread's last date text. Only the second, the form, and the time zone that tzset(3) last
/// chose can change it.
struct DateText {
  time_t second;
  DateForm form;
  long zone;
  const char* zone_name;
  size_t length;
  char text[64];
};
constinit thread_local DateText date_text = {};

template <size_t Size>
size_t print_time(char (&text)[Size], DateForm form, const struct tm& time) {
  switch (form) {
    case DateForm::kTimeOnly:
      return std::strftime(text, Size, "%H:%M:%S ", &time);
    case DateForm::kStandard:
      return std::strftime(text, Size, "%B %d %H:%M:%S ", &time);
    default:
      return std::strftime(text, Size, "%Y-%m-%d %H:%M:%S.", &time);
  }
}

const DateText& date_of(time_t now, DateForm form) {
  DateText& date = date_text;
  if (date.second != now || date.form != form || date.zone != timezone ||
      date.zone_name != tzname[0]) {
    date.length = print_time(date.text, form, local_time(now));
    date.second = now;
    date.form = form;
    date.zone = timezone;
    date.zone_name = tzname[0];
  }
  return date;
}

size_t append_date(char (&text)[kDateSize], int flags, const kelLogCtx& context, bool extended) {
  const DateForm form = ((flags | context.flags) & KEL_LOG_TIME_ONLY) != 0 ? DateForm::kTimeOnly
                        : extended                                         ? DateForm::kExtended
                                                                           : DateForm::kStandard;
  const DateText& date = date_of(time(nullptr), form);
  std::memcpy(text, date.text, date.length);
  if (form != DateForm::kExtended) return date.length;
  struct timespec precise = {};
  clock_gettime(CLOCK_REALTIME_COARSE, &precise);
  return date.length +
         static_cast<size_t>(std::snprintf(text + date.length, sizeof text - date.length, "%03li ",
                                           precise.tv_nsec / 1'000'000));
}

/// Returns the length of the date part.
size_t format_date(char (&date)[kDateSize], int flags, const kelLogCtx& context, bool extended) {
  size_t length = (flags & KEL_LOG_DATE) != 0 ? append_date(date, flags, context, extended) : 0;
  date[length] = '\0';
  if ((flags & KEL_LOG_TIMING) != 0) {
    struct timeval now = {};
    gettimeofday(&now, nullptr);
    length += static_cast<size_t>(std::snprintf(date + length, sizeof date - length, "[%li] ",
                                                now.tv_sec * 1'000'000 + now.tv_usec));
  }
  return length;
}

/// What stands between the label and the message.
const char* thread_part(char (&buffer)[64], int flags, const kelLogCtx& context, bool extended) {
  if ((flags & KEL_LOG_THREAD) == 0) return ": ";
  if (!extended) return context.threadTag;
  std::snprintf(buffer, sizeof buffer, " [%ld:%lu]: ", static_cast<long>(getpid()),
                static_cast<unsigned long>(pthread_self()));
  return buffer;
}

/// A file line being put together; cut where its room ends.
class FileLine {
 public:
  void add(std::string_view text) noexcept {
    const size_t length = std::min(text.size(), kFileLineSize - 1 - length_);
    std::memcpy(text_ + length_, text.data(), length);
    length_ += length;
  }
  std::string_view text() const noexcept { return {text_, length_}; }

 private:
  size_t length_ = 0;
  char text_[kFileLineSize];
};

void write_file(const LevelTraits& traits, const kelLogCtx& context, std::string_view date,
                const char* thread, std::string_view message) {
  FileLine line;
  line.add(date);
  line.add(traits.label);
  line.add(context.lineTag);
  line.add(thread);
  line.add(message);
  write_log_line(line.text(), context.path, traits.urgent);
}

/// Sends the message to system log, console and file, as far as they want it.
void deliver(const kelLogCtx& context, size_t length, int level, const LevelTraits& traits,
             int flags) {
  const bool to_syslog = load_field(logconf.syslogOpen) && traits.priority != 0 &&
                         (load_field(logconf.syslogFlags) & level) == level;
  const bool to_output = (flags & level) == level && (flags & KEL_LOG_NO_OUTPUT) == 0;
  if (!to_syslog && !to_output) return;

  char thread_buffer[64];
  const char* thread = thread_part(thread_buffer, flags, context, traits.extended);
  if (to_syslog) syslog(traits.priority, "%s%s%s", traits.label, thread, context.message);
  if (!to_output) return;

  const bool to_console = load_field(logconf.consoleLevel) >= traits.threshold;
  const bool to_file = context.path[0] != '\0';
  if (!to_console && !to_file) return;
  const bool console_date = to_console && (flags & KEL_LOG_CONSOLE_DATE) != 0;
  char date[kDateSize];
  size_t date_length = 0;
  if (to_file || console_date) date_length = format_date(date, flags, context, traits.extended);
  if (to_console)
    std::fprintf(stderr, "%s%s%s%s", console_date ? date : "", traits.console, thread,
                 context.message);
  if (to_file) write_file(traits, context, {date, date_length}, thread, {context.message, length});
}

}  // namespace

void log_message(int code, int level, const char* format, va_list args) {
  const ErrnoGuard keep;
  kelLogCtx& context = *log_context();
  const size_t prefix = write_prefix(context, code, level);
  const size_t length = write_message(context, prefix, format, args);
  if (length == 0) return;

  const LevelTraits& traits = traits_of(level);
  const int enable = traits.extended ? KEL_LOG_INFO : level;
  const int flags = load_field(logconf.flags);
  deliver(context, length, enable, traits, flags);
  if (level != KEL_LOG_TRACE) std::memcpy(context.lastMessage, context.message, length + 1);

  if (context.redirector != nullptr && (flags & enable) == enable) {
    context.message[length - 1] = '\0';
    keep.restore();
    context.redirector(enable, code, context.message + prefix);
  }
}

}  // namespace kel::internal

using namespace kel::internal;

const char* kelLogLastErrorA(void) { return log_context()->lastMessage; }

const char* kelLogLastMessageA(void) {
  char* text = log_context()->lastMessage;
  const size_t length = std::strlen(text);
  if (length != 0 && text[length - 1] == '\n') text[length - 1] = '\0';
  if (!is_digit(text[0]) && !(text[0] == '-' && is_digit(text[1]))) return text;
  const char* colon = std::strchr(text, ':');
  if (colon == nullptr) return text;
  return colon[1] == '\0' ? colon + 1 : colon + 2;
}

void kelSyslog(int code, int priority, const char* fmt, ...) {
  constexpr const char* kLabels[] = {"EMERG",   "ALERT",  "CRIT", "ERR",
                                     "WARNING", "NOTICE", "INFO", "DEBUG"};
  const ErrnoGuard keep;
  const char* label = priority >= 0 && priority < 8 ? kLabels[priority] : "";
  char text[2048];
  const int prefix =
      code == -1 || priority == LOG_INFO
          ? std::snprintf(text, sizeof text, "%s: ", label)
          : std::snprintf(text, sizeof text, "%s: %i: ", label, shown_code(*log_context(), code));
  const auto start = static_cast<size_t>(prefix);
  va_list args;
  va_start(args, fmt);
  if (std::vsnprintf(text + start, sizeof text - start, fmt, args) < 0) text[start] = '\0';
  va_end(args);
  const size_t length = std::strlen(text);
  if (length != 0 && text[length - 1] == '\n') text[length - 1] = '\0';
  syslog(priority, "%s", text);
}
