// The chunks of a repository, as it is now: what is stored while the service runs is known about a
// second later.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "chunk_index.h"
#include "options.h"

namespace lineserver {

class KnownChunks {
 public:
  KnownChunks(const std::string& path, const std::string& key_file, LogTarget log)
      : repository_(path, key_file), log_(std::move(log)) {}
  ~KnownChunks();
  KnownChunks(const KnownChunks&) = delete;
  KnownChunks& operator=(const KnownChunks&) = delete;

  /// Reads the index; false after a report.
  bool open();
  /// Starts to follow the repository, in a thread of its own.
  void follow();
  /// For any thread.
  bool contains(const dedup::Fingerprint& chunk);

 private:
  /// What changes whenever a container or an index is added.
  struct State {
    int64_t containers, index;  // times of modification, nanoseconds
    uint64_t index_file, index_size;

    friend bool operator==(const State&, const State&) = default;
  };

  State look() const;
  void watch();

  dedup::Repository repository_;
  const LogTarget log_;
  State state_ = {};         // before the index was read
  bool is_settled_ = false;  // nothing can have been added since within the same tick of the clock

  std::mutex index_mutex_;  // a look-up moves blocks and tables in and out of memory
  std::unique_ptr<dedup::ChunkIndex> index_;

  std::mutex stop_mutex_;
  std::condition_variable stop_;
  bool stops_ = false;
  std::thread watcher_;
};

}  // namespace lineserver
