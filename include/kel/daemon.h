/**
 * @file
 * What a service needs to run in the background, and to run once.
 *
 * A daemon detaches from its terminal (DaemonInit()), makes sure that no other copy runs
 * (DaemonLockSimple()), or only leaves its process id where others look for it (DaemonLogPID()).
 * Pid and lock files hold the decimal process id and a newline. A lock file counts as long as a
 * process of that id and of the caller's name lives: what a killed daemon left behind never keeps
 * its successor from starting. KelFileLock keeps two processes out of the same code.
 *
 * The functions are for the main thread before others are started: paths and texts that they keep
 * are the process's, without a lock. KelFileLock is for any thread.
 *
 * @code
 * if (DaemonInit(foreground) != 0) return 1;
 * if (DaemonLockSimple("/run/brelvox", "chunkd") != 0) return 1;  // the file goes at exit
 * @endcode
 */
#ifndef KEL_DAEMON_H
#define KEL_DAEMON_H

#include <kel/export.h>

#include <stdbool.h>
#include <stddef.h>

KEL_BEGIN_DECLS

/**
 * Leaves the terminal: goes on in a child process of its own session, the parent ends at once with
 * status 0, without its exit handlers. In the child, standard input, output and error are
 * "/dev/null", the log and its files start anew. Buffered output is written first, by the parent.
 *
 * @param foreground  stays in this process and leaves its files alone
 * @return 0; -1 when there is no child (this process goes on) or no "/dev/null", reported. In each
 *         case the umask is 022 and the process leads a session, where it can.
 */
KEL_API int DaemonInit(bool foreground);

/**
 * Writes the process id to "DIR/NAME.pid"; where that cannot be opened to "NAME.pid" in the working
 * directory; else to "/tmp/NAME.pid". Reported when none can be written.
 *
 * At exit (exit(3), not a signal), a process that leads its session removes its pid and lock files,
 * as long as they still hold its own id.
 */
KEL_API void DaemonLogPID(const char* dir, const char* name);

/** @name The lock that keeps a second copy out
 * The lock file is "DIR/NAME.pid"; the path, of 1,024 characters at most, is kept for the functions
 * without arguments. Results: 0, or -1 with `errno`: EEXIST for every refusal, EINVAL for a null
 * argument, ENAMETOOLONG.
 *
 * Who holds it is told by name: the lock is in force when its owner lives and has this process's
 * name, and between the daemons "chunkd" and "bundlerd"; a "sweepd" gives way to a "chunkd". Else
 * the id was given to a program that has nothing to do with it: the file is stale, and removed. Of
 * processes that find a stale file at the same time only one gets the lock. @{ */
/** Takes the lock and has it released at exit as DaemonLogPID() describes. */
KEL_API int DaemonLockSimple(const char* dir, const char* name);
/** Whether the lock is free, 0, or in force, -1; removes a stale file. Reports refusals, but not
 * that of a "sweepd". */
KEL_API int DaemonLockSimpleTest(const char* dir, const char* name);
/** The same without reports. */
KEL_API int DaemonLockSimpleTestNoError(const char* dir, const char* name);
/** The first line of the lock file, 127 characters at most, in a static buffer; "(not set)" when no
 * path is kept, "(not found)" when the file cannot be read. */
KEL_API const char* DaemonLockSimpleRead(void);
/** Removes the lock file, whoever owns it, and forgets its path. */
KEL_API void DaemonLockSimpleClear(void);
/** @} */

/** The short name of process `pid` (0: this one), of at most 15 characters and up to its first
 * space, in a static buffer; empty when there is no such process. */
KEL_API const char* OSGetProcName(int pid);

/** @name Shared memory
 * Not supported here: nothing succeeds, `errno` is ENOSYS, nothing is reported. @{ */
KEL_API void* KelShMOpen(const char* name, size_t size, int flags);
KEL_API int KelShMRead(void* shm, void* buf, size_t len);
KEL_API int KelShMWrite(void* shm, const void* buf, size_t len);
KEL_API void KelShMClose(void* shm);
KEL_API bool KelShMSupported(void);
/** @} */

KEL_END_DECLS

#ifdef __cplusplus
#include <ctime>
#include <mutex>
#include <string>

/**
 * Excludes other threads through a mutex and other processes through a lock on a file, to the end
 * of its scope.
 *
 * The file lock is of the fcntl(2) kind: it is the process's, and lost when the process closes any
 * descriptor of that file. Nothing else should open the file.
 *
 * @code
 * static std::mutex repository;
 * KelFileLock lock(repository);
 * if (!lock.Lock("/repo/.lock")) return -1;
 * @endcode
 */
class KEL_API KelFileLock {
 public:
  /// Waits for `mutex`, which outlives the object; throws std::system_error where that fails.
  explicit KelFileLock(std::mutex& mutex);
  /// Releases the file, when it is locked, and the mutex. The file stays.
  ~KelFileLock();
  KelFileLock(const KelFileLock&) = delete;
  KelFileLock& operator=(const KelFileLock&) = delete;

  /// Makes the file if there is none, and waits until no other process holds it. A file locked
  /// before is released first. False after a report: the file could not be opened for writing in 20
  /// attempts, a second apart, or not be locked.
  bool Lock(const std::string& path);

 private:
  void Unlock() noexcept;

  std::mutex& mutex_;
  alignas(int) unsigned char file_lock_[sizeof(int)];  // a lock object over its descriptor
  bool locked_ = false;
  std::time_t constructed_;
};
#endif

#endif
