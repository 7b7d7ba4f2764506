// What the reports need of the log files beyond their public classes.
#pragma once

#include <string_view>

#include "frame/deadline.h"

namespace kel::internal {

struct LogAccess {
  /// LogManager::writeToLog() without copies; an `urgent` line reaches the kernel. Throws as that.
  static void write(std::string_view line, std::string_view path, bool urgent);
  /// Writes what has gathered, as far as the locks can be had in time; closes nothing.
  static void flush_before(const Deadline& deadline) noexcept;
  /// LogManager::flushStreams(), where there is a manager.
  static void flush_and_close();
  /// LogManager::reset(), also of the lock under which the manager is made.
  static int reset();
};

}  // namespace kel::internal
