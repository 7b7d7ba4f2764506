#include "known_chunks.h"

#include <kel/logging.h>

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <utility>

#include "stop_signals.h"

namespace lineserver {
namespace {

constexpr std::chrono::seconds kPause{1};

int64_t nanoseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

KnownChunks::~KnownChunks() {
  {
    const std::lock_guard lock(stop_mutex_);
    stops_ = true;
  }
  stop_.notify_all();
  if (watcher_.joinable()) watcher_.join();
}

KnownChunks::State KnownChunks::look() const {
  State state = {};
  struct stat found;
  if (::stat(repository_.containers().c_str(), &found) == 0)
    state.containers = nanoseconds(found.st_mtim);
  if (::stat((repository_.path() + "/index").c_str(), &found) == 0) {
    state.index = nanoseconds(found.st_mtim);
    state.index_file = found.st_ino;
    state.index_size = static_cast<uint64_t>(found.st_size);
  }
  return state;
}

bool KnownChunks::open() {
  if (!repository_.open()) return false;
  state_ = look();
  index_ = std::make_unique<dedup::ChunkIndex>(repository_, dedup::ChunkIndex::Use::kRead);
  return index_->open();
}

void KnownChunks::follow() {
  watcher_ = std::thread([this] {
    leave_stop_signals_to_others();
    log_.use();
    std::unique_lock lock(stop_mutex_);
    while (!stop_.wait_for(lock, kPause, [this] { return stops_; })) {
      lock.unlock();
      try {
        watch();
      } catch (const std::exception& problem) {
        ErrorA(-1, "could not read the index anew: %s", problem.what());
      }
      lock.lock();
    }
  });
}

/// Reads the index anew when the repository has changed. Peers are served from the one before
/// meanwhile.
void KnownChunks::watch() {
  const State now = look();
  const bool has_changed = now != state_;
  if (!has_changed && is_settled_) return;
  state_ = now;
  timespec clock;
  ::clock_gettime(CLOCK_REALTIME, &clock);
  const int64_t age = nanoseconds(clock) - std::max(now.containers, now.index);
  is_settled_ = std::abs(age) > nanoseconds({kPause.count(), 0});

  auto index = std::make_unique<dedup::ChunkIndex>(repository_, dedup::ChunkIndex::Use::kRead);
  if (!index->open()) return;
  if (has_changed)
    InfoA(-1, "the repository has changed; it has %zu containers", index->containers().size());
  const std::lock_guard lock(index_mutex_);
  index_.swap(index);
}

bool KnownChunks::contains(const dedup::Fingerprint& chunk) {
  const std::lock_guard lock(index_mutex_);
  return index_->find(chunk).has_value();
}

}  // namespace lineserver
