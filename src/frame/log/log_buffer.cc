// Lines that were written before any path was known.
#include <kel/logfiles.h>

#include <utility>

#include "frame/log/log_state.h"

namespace kel::util {

using internal::log_lines_waiting;

namespace {

constexpr size_t kMostLines = 50;

}  // namespace

LogBuffer::LogBuffer() : LogFile("") {}

LogBuffer::~LogBuffer() { log_lines_waiting -= static_cast<long>(lines_.size()); }

void LogBuffer::writeToLog(const std::string& line) { keep(LogLine(line)); }
void LogBuffer::writeToLog(const std::wstring& line) { keep(LogLine(line)); }

void LogBuffer::keep(LogLine line) {
  const std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
  ++log_lines_waiting;
  if (lines_.size() <= kMostLines) return;
  lines_.pop_front();
  --log_lines_waiting;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface is given
void LogBuffer::flushToFile(std::shared_ptr<LogFile> file) {
  if (file == nullptr || file.get() == this) return;
  const std::lock_guard lock(mutex_);
  while (!lines_.empty()) {
    const LogLine& line = lines_.front();
    if (!line.narrow.empty())
      file->writeToLog(line.narrow);
    else if (!line.wide.empty())
      file->writeToLog(line.wide);
    lines_.pop_front();
    --log_lines_waiting;
  }
}

/// In a child: whether a thread of the parent was changing the lines at the moment of the fork.
bool LogBuffer::isTorn() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  return !lock.owns_lock();
}

}  // namespace kel::util
