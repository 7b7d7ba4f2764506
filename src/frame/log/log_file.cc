// One log file: opening, rotating, closing, and the rules of when its lines reach the kernel.
#include <kel/logfiles.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "frame/deadline.h"
#include "frame/local_time.h"
#include "frame/log/line_writer.h"
#include "frame/log/log_state.h"
#include "internal/transfer.h"

namespace kel::util {

using namespace kel::internal;

namespace {

/// Lines a second and file that are not worth gathering: a hundred writes cost well below a
/// millisecond, and few programs log more while somebody watches.
constexpr unsigned kAtOncePerSecond = 100;
constexpr uint64_t kAtOncePerSecondOfAll = 1000;
constexpr time_t kIdleSeconds = 60;

/// Counts a line that goes to the kernel at once, so that a thousand files do not add up to a
/// hundred thousand writes; false when the process has had its share of this second.
bool take_share(time_t now) noexcept {
  static std::atomic<uint64_t> shares;  // the second, and behind it 16 bits that count
  const uint64_t none = static_cast<uint64_t>(now) << 16;
  uint64_t taken = shares.load(std::memory_order_relaxed);
  for (;;) {
    const uint64_t mine = taken >> 16 == none >> 16 ? taken : none;
    if (mine >= none + kAtOncePerSecondOfAll) return false;
    if (shares.compare_exchange_weak(taken, mine + 1, std::memory_order_relaxed)) return true;
  }
}

/// The part of `path` that has to be there before the file; empty when there is none.
std::string directory_of(const std::string& path) {
  for (size_t i = 1; i + 1 < path.size(); ++i)
    if (path[i] == '/' && path[i - 1] != ':') return path.substr(0, path.rfind('/'));
  return {};
}

std::string rotated_name(const std::string& path, time_t now) {
  const struct tm local = local_time(now);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, ".%Y%m%d%H%M%S", &local);
  return path + stamp;
}

UniqueFd open_to_append(const std::string& path) {
  return UniqueFd{retry_interrupted([&] {
    return ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY, 0644);
  })};
}

}  // namespace

BadPathException::BadPathException(const std::string& message) : std::runtime_error(message) {}

OFStream::OFStream() = default;
OFStream::OFStream(const char* path, std::ios_base::openmode mode)
    : stream_(std::make_unique<std::ofstream>(path, mode)) {}
OFStream::~OFStream() = default;
bool OFStream::isNull() const { return stream_ == nullptr; }
std::ofstream* OFStream::operator->() const { return stream_.get(); }
std::ofstream& OFStream::operator*() const { return *stream_; }

struct LogFile::Opened {
  UniqueFd fd;
  struct stat status = {};
};

LogFile::LogFile(const std::string& path)
    : lastUsed_(LogManager::currentTime()), forks_(log_forks) {
  setPath(path);
}

LogFile::~LogFile() { close(); }

std::string LogFile::getPath() const {
  const std::lock_guard lock(mutex_);
  return path_;
}

time_t LogFile::getLastUsed() const {
  const std::lock_guard lock(mutex_);
  return lastUsed_;
}

void LogFile::setPath(const std::string& path) {
  const std::lock_guard lock(mutex_);
  if (writer_ != nullptr) put("LogFile: Changing path to " + path + "\n", false);
  close();
  const std::string directory = directory_of(path);
  if (!directory.empty() && !make_log_directory(directory))
    throw_bad_path("create path " + directory);
  path_ = path;
}

void LogFile::writeToLog(const std::string& line) { append(line, false, true); }
void LogFile::writeToLog(const std::wstring& line) { append(to_multibyte(line), false, true); }

std::shared_ptr<OFStream> LogFile::getLogStream() {
  const std::lock_guard lock(mutex_);
  makeReady(LogManager::currentTime());
  writer_->flush();
  if (stream_ == nullptr)
    stream_ = std::make_shared<OFStream>(
        path_.c_str(), std::ios_base::out | std::ios_base::app | std::ios_base::binary);
  return stream_;
}

/// Appends a line; false when the manager has let go of this file and `evenDetached` is not set.
bool LogFile::append(std::string_view line, bool urgent, bool evenDetached) {
  std::string unwritable;
  int failure;
  {
    const std::lock_guard lock(mutex_);
    if (detached_ && !evenDetached) return false;
    const time_t now = LogManager::currentTime();
    makeReady(now);
    lastUsed_.store(now, std::memory_order_relaxed);
    put(line, urgent);
    failure = newFailure();
    if (failure != 0) unwritable = path_;
  }
  if (failure != 0) tell_lost_lines(unwritable, std::strerror(failure));
  return true;
}

/// Sees to it that the path is open, and the right file behind it.
void LogFile::makeReady(time_t now) {
  forgetLinesOfParent();
  if (now != second_) {
    second_ = now;
    atOnce_ = 0;
    if (writer_ != nullptr && !isInPlace()) openAnew();
  }
  if (stream_ != nullptr) {
    // Whoever holds the stream may have written to it.
    (*stream_)->flush();
    if (stream_.use_count() == 1) stream_.reset();
    struct stat status;
    if (::fstat(writer_->fd(), &status) == 0)
      writer_->set_size(static_cast<uint64_t>(status.st_size));
  }
  if (writer_ == nullptr) {
    bind(open());
    return;
  }
  const uint64_t limit = LogManager::getInstance()->getMaxFileSize();
  if (limit != 0 && regular_ && writer_->position() >= limit && rotationTried_ != now) rotate(now);
}

/// Whether the path still leads to the open file; also when nobody can tell.
bool LogFile::isInPlace() const {
  struct stat status;
  if (!regular_) return true;
  if (::stat(path_.c_str(), &status) != 0) return errno != ENOENT;
  return status.st_dev == device_ && status.st_ino == file_;
}

/// Opens the path again in place of the open file, which stays when that fails.
bool LogFile::openAnew() {
  try {
    bind(open());
    return true;
  } catch (const BadPathException&) {
    return false;
  }
}

/// Moves the file aside and starts it anew. Where either cannot be done, for instance because the
/// process has become another user, the open file goes on.
void LogFile::rotate(time_t now) {
  writer_->flush();
  const bool moved =
      !isInPlace() || std::rename(path_.c_str(), rotated_name(path_, now).c_str()) == 0;
  if (!moved || !openAnew()) rotationTried_ = now;
}

LogFile::Opened LogFile::open() const {
  Opened opened{open_to_append(path_)};
  if (!opened.fd && errno == ENOENT && make_log_directory(directory_of(path_)))
    opened.fd = open_to_append(path_);
  if (!opened.fd || ::fstat(opened.fd.get(), &opened.status) != 0)
    throw_bad_path("write to file " + path_);
  // Not for devices: a log to /dev/null must not close that to everybody else.
  if (S_ISREG(opened.status.st_mode)) ::fchmod(opened.fd.get(), 0644);
  return opened;
}

void LogFile::bind(Opened opened) {
  const auto size = static_cast<uint64_t>(opened.status.st_size);
  if (writer_ == nullptr)
    writer_ = std::make_unique<LineWriter>(std::move(opened.fd), size);
  else
    writer_->rebind(std::move(opened.fd), size);
  stream_.reset();
  device_ = opened.status.st_dev;
  file_ = opened.status.st_ino;
  regular_ = S_ISREG(opened.status.st_mode);
  forget_lost_lines(path_);
}

void LogFile::put(std::string_view line, bool urgent) {
  writer_->append(line);
  const bool few = atOnce_ < kAtOncePerSecond && take_share(second_);
  if (few) ++atOnce_;
  if (urgent || few || detached_ || stream_ != nullptr ||
      log_ending.load(std::memory_order_relaxed))
    writer_->flush();
}

/// Why lines cannot be written, once for each time that this begins; else 0.
int LogFile::newFailure() {
  const bool fails = writer_ != nullptr && writer_->error() != 0;
  if (fails == failing_) return 0;
  failing_ = fails;
  if (fails) return writer_->error();
  forget_lost_lines(path_);
  return 0;
}

/// Writes what has gathered and closes the file.
void LogFile::close() {
  if (writer_ == nullptr) return;
  forgetLinesOfParent();
  writer_->flush();
  if (writer_->pending()) tell_lost_lines(path_, std::strerror(writer_->error()));
  writer_.reset();
  stream_.reset();
  failing_ = false;
}

void LogFile::forgetLinesOfParent() {
  const unsigned forks = log_forks.load(std::memory_order_relaxed);
  if (forks_ == forks) return;
  forks_ = forks;
  if (writer_ != nullptr) writer_->discard();
}

void LogFile::detach() {
  const std::lock_guard lock(mutex_);
  close();
  detached_ = true;
}

bool LogFile::detachWhenIdle(time_t now) {
  const auto idle = [&] { return now - lastUsed_.load(std::memory_order_relaxed) > kIdleSeconds; };
  if (!idle()) return false;
  const std::lock_guard lock(mutex_);
  if (!idle()) return false;
  close();
  detached_ = true;
  return true;
}

/// Writes what has gathered, unless somebody is busy with the file, who sees to that too.
void LogFile::flush() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock || writer_ == nullptr) return;
  forgetLinesOfParent();
  writer_->flush();
}

void LogFile::flushBefore(const Deadline& deadline) {
  const auto lock = deadline.lock(mutex_);
  if (!lock || writer_ == nullptr) return;
  forgetLinesOfParent();
  writer_->flush();
}

/// In a child: closes the file without writing what the parent gathered. One that a thread of the
/// parent was busy with at the moment of the fork is left as it is.
void LogFile::dropInChild() {
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (!lock) return;
  close();
  detached_ = true;
}

}  // namespace kel::util
