// The first fatal error of a thread, kept in its logging context.
#include <kel/library.h>
#include <kel/logging.h>
#include <kel/strings.h>

#include <algorithm>
#include <cstdarg>

#include "frame/log_context.h"

using namespace kel::internal;

namespace {

constexpr size_t kRecordSize = sizeof(kelLogCtx::fatalError);

/// Fills a record part by part; each part is cut to the room that is left.
class RecordWriter {
 public:
  explicit RecordWriter(char (&record)[kRecordSize]) : record_(record) {}

  void append(const char* format, ...) KEL_PRINTF(2, 3) {
    va_list args;
    va_start(args, format);
    append(format, args);
    va_end(args);
  }
  void append(const char* format, va_list args) KEL_PRINTF(2, 0) {
    const int wanted = std::vsnprintf(record_ + length_, kRecordSize - length_, format, args);
    if (wanted > 0) length_ = std::min(length_ + static_cast<size_t>(wanted), kRecordSize - 1);
    record_[length_] = '\0';
  }

 private:
  char (&record_)[kRecordSize];
  size_t length_ = 0;
};

}  // namespace

void kelSetFatalError(const char* function, int messageId, const char* fmt, ...) {
  kelLogCtx* context = log_context();
  if (context->fatalError[0] != '\0') return;
  RecordWriter record(context->fatalError);
  record.append("%s %s: ", context->fatalPrefix, function);
  va_list args;
  va_start(args, fmt);
  record.append(fmt, args);
  va_end(args);
  if (messageId != -1) record.append(" %s%d", "K-454-", messageId);
  ErrorA(-1, "%s", context->fatalError);
}

void kelGetFatalError(char* buf, size_t len) {
  if (buf == nullptr || len == 0) return;
  buf[0] = '\0';
  const kelLogCtx* context = log_context();
  if (context->fatalError[0] != '\0') kelstrncpy(buf, context->fatalError, len, kRecordSize);
}

int kelFatalErrorExists(void) { return log_context()->fatalError[0] != '\0'; }

void kelClearFatalError(void) { log_context()->fatalError[0] = '\0'; }

void kelSetFatalPrefix(const char* prefix, int overwrite) {
  kelLogCtx* context = log_context();
  if (overwrite == 0 && context->fatalPrefix[0] != '\0') return;
  kelstrcpy(context->fatalPrefix, prefix, sizeof context->fatalPrefix);
}
