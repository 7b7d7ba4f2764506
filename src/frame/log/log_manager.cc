// Finding the file of a line, closing what is idle, and the process's forks and end.
#include <kel/logfiles.h>
#include <kel/logging.h>

#include <pthread.h>
#include <unistd.h>

#include <memory>
#include <new>
#include <utility>

#include "frame/local_time.h"
#include "frame/log/log_access.h"
#include "frame/log/log_state.h"
#include "internal/report.h"

namespace kel::util {

using namespace kel::internal;
using std::chrono::milliseconds;

namespace {

constexpr milliseconds kForkPatience{100};
constexpr milliseconds kExitPatience{1000};

std::mutex instance_mutex;
std::atomic<pid_t> process = 0;

/// The file that a thread wrote to last, so that its next line to the same path needs no look-up.
struct LastFile {
  std::string path;
  std::shared_ptr<LogFile> file;

  ~LastFile();
  LogFile* of(std::string_view wanted) const { return path == wanted ? file.get() : nullptr; }
  void clear() { file.reset(), path.clear(); }
};
thread_local LastFile last_file;
thread_local bool last_file_is_gone = false;  // the thread is ending, and still logging

LastFile::~LastFile() { last_file_is_gone = true; }

/// Makes a mutex anew that a vanished thread may hold.
void make_anew(std::mutex& mutex) { std::construct_at(&mutex); }

/// Notices that this process is a child of the one that wrote so far.
void notice_fork() noexcept {
  const pid_t now = ::getpid();
  if (process.exchange(now) != now) ++log_forks;
}

void before_fork() noexcept {
  const ErrnoGuard keep;
  LogAccess::flush_before(Deadline(kForkPatience));
  hold_local_time();
}

void after_fork_in_child() noexcept {
  renew_local_time_in_child();
  notice_fork();
}

/// Writes what has gathered when the process ends. What is logged still later, by destructors of
/// other objects, goes to the kernel at once.
struct AtExit {
  ~AtExit() {
    log_ending = true;
    if (process == ::getpid()) LogAccess::flush_before(Deadline(kExitPatience));
  }
} at_exit;

}  // namespace

std::atomic<LogManager*> LogManager::instancePtr = nullptr;

LogManager::LogManager() = default;

LogManager* LogManager::getInstance() {
  LogManager* instance = instancePtr.load(std::memory_order_acquire);
  if (instance != nullptr) return instance;
  const std::lock_guard lock(instance_mutex);
  instance = instancePtr.load(std::memory_order_relaxed);
  if (instance != nullptr) return instance;
  // Never destroyed: lines may come until the last static object is gone.
  alignas(LogManager) static unsigned char storage[sizeof(LogManager)];
  instance = new (storage) LogManager;
  process = ::getpid();
  pthread_atfork(before_fork, release_local_time, after_fork_in_child);
  instancePtr.store(instance, std::memory_order_release);
  return instance;
}

time_t LogManager::currentTime() { return time(nullptr); }

void LogManager::writeToLog(const std::string& line, const std::string& path) {
  write(line, path, false);
}

void LogManager::writeToLog(const std::wstring& line, const std::string& path) {
  if (path.empty())
    getBuffer()->writeToLog(line);
  else
    write(to_multibyte(line), path, false);
}

void LogManager::write(std::string_view line, std::string_view path, bool urgent) {
  if (path.empty()) {
    getBuffer()->writeToLog(std::string(line));
    return;
  }
  if (last_file_is_gone) {
    while (!find(path)->append(line, urgent, false)) {
    }
  } else {
    LogFile* file =
        log_lines_waiting.load(std::memory_order_relaxed) == 0 ? last_file.of(path) : nullptr;
    while (file == nullptr || !file->append(line, urgent, false)) {
      last_file.clear();
      last_file.file = find(path);
      last_file.path = path;
      file = last_file.file.get();
    }
  }
  sweepOncePerSecond();
}

std::shared_ptr<LogFile> LogManager::getLogFile(const std::string& path) {
  return path.empty() ? getBuffer() : find(path);
}

std::shared_ptr<LogFile> LogManager::find(std::string_view path) {
  const std::lock_guard lock(filesMutex_);
  const auto known = index_.find(path);
  const auto& file = known != index_.end() ? known->second : add(path);
  if (log_lines_waiting.load(std::memory_order_relaxed) != 0) {
    std::unique_lock guard(bufferMutex_);
    const auto buffer = buffer_;
    guard.unlock();
    if (buffer != nullptr) buffer->flushToFile(file);
  }
  return file;
}

const std::shared_ptr<LogFile>& LogManager::add(std::string_view path) {
  const std::string key(path);
  const auto added = files_.emplace(key, std::make_shared<LogFile>(key)).first;
  return index_[added->first] = added->second;
}

std::shared_ptr<LogFile> LogManager::getBuffer() {
  const std::lock_guard lock(bufferMutex_);
  if (buffer_ == nullptr) buffer_ = std::make_shared<LogBuffer>();
  return buffer_;
}

/// Looking at every file after every line would make lines dearer the more files are open.
void LogManager::sweepOncePerSecond() {
  const time_t now = currentTime();
  if (swept_.load(std::memory_order_relaxed) == now) return;
  if (swept_.exchange(now) == now) return;
  sweep(now);
}

void LogManager::cleanUpStaleFiles() { sweep(currentTime()); }

void LogManager::sweep(time_t now) {
  const std::lock_guard lock(filesMutex_);
  std::erase_if(files_, [this, now](const auto& entry) {
    LogFile& file = *entry.second;
    if (file.detachWhenIdle(now)) {
      index_.erase(entry.first);
      return true;
    }
    file.flush();
    return false;
  });
}

void LogManager::flushStreams() {
  const std::lock_guard lock(filesMutex_);
  for (const auto& entry : files_) entry.second->detach();
  index_.clear();
  files_.clear();
}

void LogManager::flushBefore(const Deadline& deadline) {
  if (const auto lock = deadline.lock(filesMutex_))
    for (const auto& entry : files_) entry.second->flushBefore(deadline);
}

int LogManager::reset() {
  notice_fork();
  if (!last_file_is_gone) last_file.clear();
  if (const std::unique_lock lock(filesMutex_, std::try_to_lock); lock) {
    for (const auto& entry : files_) entry.second->dropInChild();
    index_.clear();
    files_.clear();
  } else {
    // A thread of the parent was changing the maps; nothing in them can be trusted, so they are
    // left behind with their memory.
    std::construct_at(&index_);
    std::construct_at(&files_);
  }
  if (const std::unique_lock lock(bufferMutex_, std::try_to_lock);
      !lock || (buffer_ != nullptr && buffer_->isTorn())) {
    std::construct_at(&buffer_);
    log_lines_waiting = 0;
  }
  make_anew(filesMutex_);
  make_anew(bufferMutex_);
  return 0;
}

unsigned long LogManager::getMaxFileSize() const {
  return maxFileSize_.load(std::memory_order_relaxed);
}

void LogManager::setMaxFileSize(unsigned long bytes) {
  const std::lock_guard lock(filesMutex_);
  maxFileSize_.store(bytes, std::memory_order_relaxed);
}

}  // namespace kel::util

namespace kel::internal {

void LogAccess::write(std::string_view line, std::string_view path, bool urgent) {
  kel::util::LogManager::getInstance()->write(line, path, urgent);
}

void LogAccess::flush_before(const Deadline& deadline) noexcept {
  using kel::util::LogManager;
  if (LogManager* manager = LogManager::instancePtr.load(std::memory_order_acquire))
    manager->flushBefore(deadline);
}

void LogAccess::flush_and_close() {
  using kel::util::LogManager;
  if (LogManager* manager = LogManager::instancePtr.load(std::memory_order_acquire))
    manager->flushStreams();
}

int LogAccess::reset() {
  kel::util::make_anew(kel::util::instance_mutex);
  return kel::util::LogManager::getInstance()->reset();
}

}  // namespace kel::internal
