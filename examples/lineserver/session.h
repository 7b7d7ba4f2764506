// One peer: its lines and the answers to them.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "known_chunks.h"

namespace lineserver {

class Session {
 public:
  /// @param sock  stays the caller's
  /// @param stop  a descriptor that becomes readable when the line in work shall be the last one
  Session(int sock, int stop, KnownChunks& chunks, std::chrono::seconds patience)
      : sock_(sock), stop_(stop), chunks_(chunks), patience_(patience) {}

  /// Serves until the peer has enough, is too slow, or the service ends.
  void run();

  uint64_t lines() const { return lines_; }
  uint64_t known() const { return known_; }

 private:
  enum class Input { kMore, kEnd, kExpired, kStop };

  Input read_more();
  std::string answer_lines();
  const char* answer(std::string_view line);
  bool send(const std::string& answers) const;
  void take_leave(const char* farewell) const;

  const int sock_, stop_;
  KnownChunks& chunks_;
  const std::chrono::seconds patience_;
  std::string unread_;  // less than a line, between answers
  uint64_t lines_ = 0, known_ = 0;
};

}  // namespace lineserver
