/**
 * @file
 * Log files: one open file a path, rotation by size, idle close, and the lines of the time before a
 * path is known. C++ only; the C entry points (logFileWriteA() and others) stand in kel/logging.h.
 *
 * Every file line of the reports (InfoA() and others) goes through the one kel::util::LogManager.
 * Lines are appended whole: those of different threads, and of other processes that append to the
 * same file, never mix. Lines given to one path by one thread keep their order.
 *
 * **When a line reaches the kernel** (what has reached it survives the process):
 *
 * - critical, error, internal-error and security lines of the reports: before the call returns;
 * - the first 100 lines a second of each file, and 1,000 of the process: before the call returns;
 * - lines of a faster stream than that: when 16 KiB have gathered, with the file's first line of
 *   the next second, within about two seconds as long as any thread logs to any file, when the file
 *   is closed, rotated or flushed, before fork(2), and when the process ends with exit(3) or
 *   through a failed #KEL_ASSERT.
 *
 * So only a process that is killed or ends with _exit(2) right in such a stream loses the last of
 * it. Nothing is flushed to the disk itself (fsync(2)).
 *
 * **Rotation.** When a file has reached the maximum size, the next line first moves it to its name,
 * ".", and the local time as "%Y%m%d%H%M%S" (app.log.20230705000733), then starts it anew; files
 * are at most one line larger than the limit. A second rotation of the file within the same second
 * replaces the first one's: set a size that lasts longer. Rotated files are never deleted here.
 * Where the file cannot be moved or opened anew, for instance because the process has changed its
 * user since it opened it, writing goes on in the open file, and rotation is tried again once a
 * second. Devices and pipes are never rotated.
 *
 * **Files that are moved or deleted** by somebody else are noticed with the first line of the next
 * second, which starts a new file under the path (and makes its directory again); so a program
 * needs no signal when its log is rotated from outside.
 *
 * **Full disks.** What cannot be written stays in the file's 16 KiB until it can; further lines are
 * dropped, whole, with one message on standard error until the file can be written again. A line
 * that was cut by the failing write is taken off the file again.
 *
 * **Processes.** After fork(2) the child calls kellog_reset_for_fork() before it logs. Lines that
 * the parent still gathered are the parent's to write. Log files are not inherited through exec.
 *
 * Thread-safe, all of it, except kel::util::OFStream and LogManager::reset().
 *
 * @code
 * using kel::util::LogManager;
 * LogManager::getInstance()->setMaxFileSize(64 << 20);
 * LogManager::getInstance()->writeToLog("started\n", "/var/log/svc/audit.log");
 * @endcode
 */
#ifndef KEL_LOGFILES_H
#define KEL_LOGFILES_H

#ifdef __cplusplus

#include <kel/export.h>

#include <atomic>
#include <ctime>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

namespace kel::internal {
class LineWriter;
class Deadline;
struct LogAccess;
}  // namespace kel::internal

namespace kel::util {

/** A log file's directory cannot be made, or the file cannot be opened. */
class KEL_API BadPathException : public std::runtime_error {
 public:
  explicit BadPathException(const std::string& message);
};

/** Owner of one output file stream, or of none. Belongs to one thread at a time. */
class KEL_API OFStream {
 public:
  /// No stream.
  OFStream();
  /// A stream on `path`, opened as std::ofstream opens it; ask it whether that worked.
  OFStream(const char* path, std::ios_base::openmode mode);
  /// Flushes, closes and frees the stream.
  ~OFStream();
  OFStream(const OFStream&) = delete;
  OFStream& operator=(const OFStream&) = delete;

  bool isNull() const;
  /// The stream, or null.
  std::ofstream* operator->() const;
  /// The stream, which must be there.
  std::ofstream& operator*() const;

 private:
  std::unique_ptr<std::ofstream> stream_;
};

/**
 * One log file. Opened with the first line, for appending, with the permissions 0644; opened again
 * with the next line after it was closed.
 */
class KEL_API LogFile {
 public:
  /// Makes the directories of `path`; throws as setPath() does.
  explicit LogFile(const std::string& path);
  LogFile(const LogFile&) = delete;
  LogFile& operator=(const LogFile&) = delete;

  /// A copy of the path.
  virtual std::string getPath() const;
  /**
   * Appends `line` as it is: no newline is added. Rotates the file first when it is due.
   *
   * Throws BadPathException with "A thread (id=ID) encountered an error while attempting to write
   * to file PATH" when the file cannot be opened; std::bad_alloc.
   */
  virtual void writeToLog(const std::string& line);
  /// The same in the multibyte encoding of the current locale; characters that it does not have are
  /// written as \\uXXXX or \\UXXXXXXXX.
  virtual void writeToLog(const std::wstring& line);
  /// When the file was last written to, or made.
  virtual time_t getLastUsed() const;
  /// Writes what has gathered and closes the file.
  virtual ~LogFile();
  /**
   * A stream of its own on the open file, behind what has been written so far; rotates and opens
   * the file first as writeToLog() does, and throws as it does.
   *
   * As long as the file is open, and the caller holds the stream, each line goes to the kernel at
   * once, behind a flush of the stream: the stream must not be written to while other threads log
   * to the file. It does not follow the file when that is rotated or closed.
   */
  virtual std::shared_ptr<OFStream> getLogStream();

  /**
   * Closes the file, after the line "LogFile: Changing path to PATH" when it is open, and makes the
   * next line go to `path`, whose directories are made with mode 0755 less the umask.
   *
   * Throws BadPathException with "A thread (id=ID) encountered an error while attempting to create
   * path DIRECTORY"; the file is closed then and keeps its old path.
   */
  void setPath(const std::string& path);

 protected:
  mutable std::mutex mutex_;  ///< guards everything below

 private:
  friend class LogManager;

  struct Opened;

  bool append(std::string_view line, bool urgent, bool evenDetached);
  void detach();
  bool detachWhenIdle(time_t now);
  void flush();
  void flushBefore(const internal::Deadline& deadline);
  void dropInChild();

  // With the mutex held:
  void makeReady(time_t now);
  bool isInPlace() const;
  bool openAnew();
  void rotate(time_t now);
  Opened open() const;
  void bind(Opened opened);
  void put(std::string_view line, bool urgent);
  void close();
  void forgetLinesOfParent();
  int newFailure();

  std::shared_ptr<OFStream> stream_;  ///< what getLogStream() gave away, else null
  std::string path_;
  std::atomic<time_t> lastUsed_;

  std::unique_ptr<internal::LineWriter> writer_;  ///< null while the file is closed
  unsigned long device_ = 0;                      ///< and file_ identify the open file
  unsigned long file_ = 0;
  bool regular_ = false;      ///< the open file is no device or pipe
  bool detached_ = false;     ///< no longer known to the manager, which would flush it in time
  unsigned forks_;            ///< of the process that the gathered lines belong to
  time_t second_ = 0;         ///< of the last line
  unsigned atOnce_ = 0;       ///< lines that went straight to the kernel in that second
  time_t rotationTried_ = 0;  ///< when the file could last not be moved
  bool failing_ = false;      ///< the last write did not take everything
};

/** A line that waits for a file: one of the two texts is empty. */
class LogLine {
 public:
  explicit LogLine(const std::string& line) : narrow(line) {}
  explicit LogLine(const std::wstring& line) : wide(line) {}

  std::string narrow;
  std::wstring wide;
};

/** Keeps the newest 50 lines, instead of writing them to a file. */
class KEL_API LogBuffer : public LogFile {
 public:
  LogBuffer();
  ~LogBuffer() override;

  void writeToLog(const std::string& line) override;
  void writeToLog(const std::wstring& line) override;
  /// Moves every line to `file`, the oldest first. A line that `file` throws for stays, as do those
  /// behind it.
  void flushToFile(std::shared_ptr<LogFile> file);

 private:
  friend class LogManager;

  void keep(LogLine line);
  bool isTorn();

  std::deque<LogLine> lines_;
};

/** The log files of the process, one a path. */
class KEL_API LogManager {
 public:
  LogManager();
  LogManager(const LogManager&) = delete;
  LogManager& operator=(const LogManager&) = delete;

  /// The one instance, made on the first call and never destroyed.
  static LogManager* getInstance();

  /// Appends `line` as it is to the file at `path`; with an empty path, to the buffer. Throws as
  /// LogFile does.
  void writeToLog(const std::string& line, const std::string& path);
  void writeToLog(const std::wstring& line, const std::string& path);
  /// The file of `path` (exactly that text), made when it is missing, with the lines of the buffer
  /// moved to it; the buffer when `path` is empty. Throws as LogFile does.
  std::shared_ptr<LogFile> getLogFile(const std::string& path);
  /// The buffer of lines that were written to an empty path.
  std::shared_ptr<LogFile> getBuffer();
  /// Closes the files that were not used for more than 60 seconds. Runs by itself, once a second,
  /// while lines are written.
  void cleanUpStaleFiles();
  /// Writes what has gathered, closes every file and forgets it. Who holds one may go on writing.
  void flushStreams();
  /// For a child after fork(2), on its only thread: forgets every file without writing what the
  /// parent gathered, and makes the mutexes anew. The buffer is kept. 0.
  int reset();
  /// Bytes; 0 (the initial value): no rotation.
  unsigned long getMaxFileSize() const;
  void setMaxFileSize(unsigned long bytes);
  static time_t currentTime();

 private:
  friend struct internal::LogAccess;

  void write(std::string_view line, std::string_view path, bool urgent);
  std::shared_ptr<LogFile> find(std::string_view path);
  const std::shared_ptr<LogFile>& add(std::string_view path);
  void sweepOncePerSecond();
  void sweep(time_t now);
  void flushBefore(const internal::Deadline& deadline);

  static std::atomic<LogManager*> instancePtr;

  std::map<std::string, std::shared_ptr<LogFile>> files_;
  std::shared_ptr<LogBuffer> buffer_;
  std::atomic<unsigned long> maxFileSize_{0};
  std::mutex filesMutex_;   ///< before a file's own
  std::mutex bufferMutex_;  ///< guards buffer_
  std::atomic<time_t> swept_{0};
  /// The files of files_, whose keys it refers to, without a search that grows with their number.
  std::unordered_map<std::string_view, std::shared_ptr<LogFile>> index_;
};

}  // namespace kel::util

/** Traces entering and leaving its scope: "NAME: enter" and "NAME: exit". */
class KEL_API AutoTrace {
 public:
  explicit AutoTrace(const std::string& name);
  ~AutoTrace();
  AutoTrace(const AutoTrace&) = delete;
  AutoTrace& operator=(const AutoTrace&) = delete;

 private:
  std::string name_;
};

/** Keeps a level and a name for its scope; writes nothing. */
class KEL_API AutoDebug {
 public:
  AutoDebug(int level, const std::string& name);
  ~AutoDebug();
  AutoDebug(const AutoDebug&) = delete;
  AutoDebug& operator=(const AutoDebug&) = delete;

 private:
  int level_;
  std::string name_;
};

#endif

#endif
