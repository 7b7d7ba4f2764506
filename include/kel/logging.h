/**
 * @file
 * Reports: one call, one line, to up to four places.
 *
 * Every function of the library, and every program that uses it, reports through the functions
 * below. A line is formatted once, in a buffer of the calling thread, and goes to the system log,
 * to standard error, to the thread's log file and to the thread's redirector, each under its own
 * test. The text of the last message is kept per thread (kelLogLastMessageA()).
 *
 * Reporting never changes `errno`: a function sets it, reports, and returns its failure value.
 *
 * Threads: any thread may report at any time; formatting takes no lock and allocates nothing once
 * the thread has its context. A line to a file takes that file's lock. Messages are cut, never
 * refused: 2,046 characters and the newline.
 *
 * @code
 * kelLogSet("/var/log/svc.log", KEL_LOG_LONG | KEL_LOG_DATE, 0);
 * errno = ENOENT;
 * ErrorA(errno, "%s: could not open file %s", __func__, path);
 *     // Error: 2: main: could not open file /x
 * @endcode
 */
#ifndef KEL_LOGGING_H
#define KEL_LOGGING_H

#include <kel/export.h>

#include <pthread.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <wchar.h>

/** @name Levels: one bit each, in the level argument and in the flags word.
 * @{ */
#define KEL_LOG_CRIT 0x1
#define KEL_LOG_ERR 0x2
#define KEL_LOG_WARN 0x4
#define KEL_LOG_AUTH 0x8
#define KEL_LOG_INFO 0x10
#define KEL_LOG_NOTICE 0x20
#define KEL_LOG_TRACE 0x40
#define KEL_LOG_BUG 0x80
/** @} */

/** @name Modifiers of the flags word.
 * @{ */
#define KEL_LOG_DATE 0x800            /**< lines carry a date and time */
#define KEL_LOG_SEVERE_CONSOLE 0x2000 /**< only crit, err, warn and bug lines reach the console */
#define KEL_LOG_SILENT 0x4000 /**< no console; in a system log mask: keep the system log closed */
#define KEL_LOG_THREAD 0x8000 /**< lines carry the thread id */
#define KEL_LOG_NO_OUTPUT                                                                     \
  0x10000                      /**< no console, no file; system log and redirector still work \
                                */
#define KEL_LOG_TIMING 0x40000 /**< lines carry the time in microseconds */
#define KEL_LOG_CONSOLE_DATE 0x80000 /**< console lines carry the date too */
#define KEL_LOG_TIME_ONLY 0x800000   /**< the date is shortened to the time of day */
/** @} */

/** @name Extended levels of one component
 * Enabled by #KEL_LOG_INFO; labels of their own, and the long date. @{ */
#define KEL_LOG_YARL_ERROR 0x2000000
#define KEL_LOG_YARL_INFO 0x4000000
#define KEL_LOG_YARL_DEBUG 0x8000000
#define KEL_LOG_YARL_TRACE 0x10000000
#define KEL_LOG_YARL_WARNING 0x20000000
/** @} */

/** @name Presets of the flags word; the default is 0x87 (crit, err, warn, bug).
 * @{ */
#define KEL_LOG_NONE 0x0
#define KEL_LOG_MINIMAL 0x8B /**< crit, err, auth, bug */
#define KEL_LOG_SHORT 0x8F   /**< minimal and warn */
#define KEL_LOG_LONG 0x9F    /**< short and info */
#define KEL_LOG_VERBOSE 0xBF /**< long and notice */
#define KEL_LOG_FULL 0x8FF   /**< all levels, with the date */
/** @} */

KEL_BEGIN_DECLS

/**
 * Receives every enabled message of the thread that set it, on that thread and outside any lock.
 *
 * @param level  the level's enable bit (#KEL_LOG_INFO for the extended levels)
 * @param code   the caller's code, without the base code
 * @param text   the message without code prefix and newline; valid until the thread reports again
 */
typedef void (*kelLogRedirector)(int level, int code, const char* text);

/** A thread's logging context; made on first use, released when the thread ends. */
typedef struct kelLogCtx {
  char path[4096];        /**< log file; empty: no file output */
  char message[2048];     /**< the line being formatted */
  char lastMessage[2048]; /**< the last message, of every level but trace */
  char fatalError[2369];  /**< first fatal error of the thread; empty: none */
  char fatalPrefix[257];  /**< put before fatal error texts */
  char lineTag[32];       /**< goes into file lines, between label and thread part */
  int32_t flags;          /**< flags last given to kelLogSet(); only #KEL_LOG_TIME_ONLY is read */
  int32_t baseCode;       /**< added to every code that is printed */
  int32_t number;         /**< order of creation; 1 owns the global flags */
  char threadTag[32];     /**< " [<thread id>]: " */
  kelLogRedirector redirector; /**< or null */
} kelLogCtx;

/** Template for new contexts, and the context of a thread for which none could be allocated. */
extern KEL_API kelLogCtx lclocal;
/** Number of live contexts. */
extern KEL_API int num_lc;

/** @name Reports
 * `code` is an errno value, or -1 for none; `fmt` is a printf format, by convention starting with
 * "%s: " and the reporting function's name. Error, warning and critical lines always show the code;
 * other lines show it when it is above 0. @{ */
KEL_API void ErrorA(int code, const char* fmt, ...) KEL_PRINTF(2, 3);
KEL_API void WarningA(int code, const char* fmt, ...) KEL_PRINTF(2, 3);
KEL_API void NoticeA(int code, const char* fmt, ...) KEL_PRINTF(2, 3);
KEL_API void InfoA(int code, const char* fmt, ...) KEL_PRINTF(2, 3);
KEL_API void AuthA(int code, const char* fmt, ...) KEL_PRINTF(2, 3);
/** Reports at the critical level, then ends the process with exit(1). */
KEL_API void ErrorExitA(int code, const char* fmt, ...) KEL_PRINTF(2, 3) __attribute__((noreturn));
/** Reports at the trace level, without a code. Ask TraceOn() first where arguments are costly. */
KEL_API void __Trace(const char* fmt, ...) KEL_PRINTF(1, 2);
/** Reports at `level`: one of the level bits, an extended level, or any mask of enable bits. */
KEL_API void kelLog(int code, int level, const char* fmt, ...) KEL_PRINTF(3, 4);
/** @} */

/** @name Reports from an argument list, without a code; the first five at the extended levels
 * @{ */
KEL_API void ErrorVA(const char* fmt, va_list ap) KEL_PRINTF(1, 0);
KEL_API void WarningVA(const char* fmt, va_list ap) KEL_PRINTF(1, 0);
KEL_API void InfoVA(const char* fmt, va_list ap) KEL_PRINTF(1, 0);
KEL_API void DebugVA(const char* fmt, va_list ap) KEL_PRINTF(1, 0);
KEL_API void __YarlLogTraceVA(const char* fmt, va_list ap) KEL_PRINTF(1, 0);
KEL_API void __TraceVA(const char* fmt, va_list ap) KEL_PRINTF(1, 0);
/** @} */

/** 1 when trace lines are wanted, else 0. */
KEL_API int TraceOn(void);

/**
 * Sends one message to syslog(3) without asking flags or mask. The line is "LABEL: text" or
 * "LABEL: code: text", cut at 2,047 characters; no code for -1 or LOG_INFO.
 *
 * @param priority  a syslog priority, LOG_EMERG to LOG_DEBUG
 */
KEL_API void kelSyslog(int code, int priority, const char* fmt, ...) KEL_PRINTF(3, 4);

/** The thread's last message as stored: code prefix and newline included; empty when none. */
KEL_API const char* kelLogLastErrorA(void);
/**
 * The thread's last message without code prefix and newline; valid until the thread reports again.
 * A text that itself starts with a digit is cut behind its first colon as if it had a prefix.
 */
KEL_API const char* kelLogLastMessageA(void);

/** @name Settings
 * The first thread of the process that reports or sets anything owns the global flags: its calls
 * replace them. Calls of other threads set their own path, tag and context flags only, unless
 * nothing was set before. @{ */

/** As kelLogSetEx() with no line tag. */
KEL_API void kelLogSet(const char* path, int flags, int syslogFlags);
/**
 * Sets this thread's log file and line tag and, on the owning thread, the process's flags.
 *
 * The first call of the process opens the system log when `syslogFlags` is neither 0 nor silent;
 * later calls change the mask only. Takes the log lock; that first call may block for two seconds,
 * after which the system log is given up.
 *
 * @param path         log file, cut at 4,095 characters; null or empty: none. In a path without '/'
 *                     every backslash becomes '/'.
 * @param flags        level bits and modifiers
 * @param syslogFlags  levels that also go to the system log
 * @param unused       not read
 * @param lineTag      written into file lines, cut at 31 characters; may be null
 */
KEL_API void kelLogSetEx(const char* path, int flags, int syslogFlags, const char* unused,
                         const char* lineTag);
/** As kelLogSet(NULL, 0, 0), then flushes all log files. */
KEL_API void kelLogClose(void);
/** Returns the process's log configuration to its initial values, closing the system log; 0. */
KEL_API int kelLogDestroy(void);
/** Sets the process's flags and system log mask from any thread; returns 1 when `flags` has trace,
 * else 0. */
KEL_API int kelLogSetFlags(int flags, int syslogFlags);
/** Reads the process's flags and system log mask; either pointer may be null. */
KEL_API void kelLogGetFlags(int* flags, int* syslogFlags);
/** This thread's log file, or "(null)". */
KEL_API const char* kelLogPathA(void);
/**
 * Sets this thread's redirector; null removes it. Threads that begin to report later take over the
 * redirector and the base code that the owning thread had at its last kelLogSet().
 */
KEL_API void kelLogSetRedirector(kelLogRedirector redirector);
/** Sets what is added to every printed code of this thread; returns the value before. */
KEL_API int kelLogSetBaseCode(int base);
/** @} */

/** @name Contexts, for programs that move one between threads.
 * @{ */
/** This thread's context (a ::kelLogCtx), or null when it has none yet. */
KEL_API void* kelLogGetCtx(void);
/** Binds `ctx` to the calling thread, which owns it from then on; what was bound before is not
 * freed. 0 or an errno value. */
KEL_API int kelLogSetCtx(void* ctx);
/** Releases a context; null is ignored. Takes the log lock. */
KEL_API void kelLogCtxDestroy(void* ctx);
/** @} */

/** @name Log files
 * Where file lines go; kel/logfiles.h tells when they reach the kernel, how files are rotated, and
 * what happens on a full disk. Nothing here fails or changes `errno`: a line that cannot be written
 * is dropped, and that is told once on standard error. @{ */
/** Appends `line` as it is (no newline is added) to the file at `path`, which stays open. With an
 * empty or null path the newest 50 such lines are kept for the first file that is written to. */
KEL_API void logFileWriteA(const char* line, const char* path);
/** The same in the multibyte encoding of the current locale. */
KEL_API void logFileWriteW(const wchar_t* line, const char* path);
/** Writes what has gathered for log files and closes them; the next line opens its file again. */
KEL_API void logFileFlushStreams(void);
/** For a child after fork: forgets the parent's open files. Part of kellog_reset_for_fork(); 0. */
KEL_API int logFileReset(void);
/** Sets the size in bytes from which a log file is rotated; 0 (the initial value): never. */
KEL_API void logFileSetMaxSize(unsigned long bytes);
/** @} */

/** @name Size limit of the process
 * What logFileSetMaxSize() sets, kept as a setting of its own that can be asked for: 0 until it is
 * set, and not changed by that function. The forms without "Process" are other names. @{ */
/** Sets the limit, in bytes, also as that of the log files, and reports it at the info level. */
KEL_API void kelLogSetProcessMaxSize(unsigned long bytes);
KEL_API void kelLogSetMaxSize(unsigned long bytes);
/** Returns the limit, and stores it in `*out` unless `out` is null. */
KEL_API unsigned long kelLogGetProcessMaxSize(unsigned long* out);
KEL_API unsigned long kelLogGetMaxSize(unsigned long* out);
/** @} */

/**
 * Turns words into a flags word. They are found anywhere in the text, in either case, also within
 * longer words ("Errors,Warnings" has "err" and "warn", "debug" has "bug").
 *
 * - "none": 0, whatever else is there
 * - else the first of "minimal", "short", "long", "verbose" and "full" that is there: that preset
 * - else the levels among "crit", "err", "warn", "auth", "info", "notice", "trace" and "bug"
 *
 * To these come the modifiers "thread", "date", "silent" and "timing".
 *
 * @param text  null or empty: 0
 * @return the flags word, or -1 (not reported) when the text names no level
 */
KEL_API int kelLogParseFlagsA(const char* text);
/**
 * Describes a flags word: "full, threadid, date". The first word is the largest preset that the
 * flags contain, else "none"; single levels do not show, so the text may stand for other flags.
 *
 * @param buf  receives the text, silently cut to `len` bytes; 40 are always enough
 * @return `buf`; "(unknown)" when it is null or `len` is below 4
 */
KEL_API const char* kelLogFlagsToString(int flags, char* buf, size_t len);

/**
 * Reads a service's logging settings from its INI file and makes its log directory. Sets nothing:
 * that is kelLogSet()'s, with the path and the flags that come out.
 *
 *     [Logging]                    ; or the service's own section, which comes first
 *     Logging = verbose, date      ; kelLogParseFlagsA(); default "long"
 *     LogPath = /var/log/svc       ; under the key `pathKey`; default "/var/log/"
 *     Retention = 14               ; days; default 0
 *
 * Each setting counts in `section` when that has it, else in the section Logging, where missing
 * ones are stored with their default, in memory only. A directory without '/' has each backslash
 * turned into '/'; unless the flags are 0 it is made, with those above it (0755 less the umask).
 *
 * A wrong setting is reported as by InifileErrorA(): flags without a level, a path that is no
 * directory or cannot be looked at. A directory that cannot be made is reported by
 * CreateTreeLoggingOptionalA(), a path that is too long with EINVAL. Thread-safe, as INI files are.
 *
 * @param iniPath        the file, loaded when it is not
 * @param section        the service's own section; null or empty: none
 * @param pathKey        the key of the directory; null or empty is EINVAL where it is needed
 * @param logPath        receives the directory, a '/' and the file name; null: the directory is
 *                       neither read nor made
 * @param logPathLen     capacity of `logPath` in bytes, terminator included; 0 is like null
 * @param fileName       null or empty: the path ends in '/'
 * @param retentionDays  receives the number that the setting starts with, 0 for a negative one or
 *                       none, INT_MAX for one beyond; may be null
 * @param stripSlash     not 0: one final '/' of the directory (not the root's) is taken off before
 *                       the directory is looked at
 * @return the flags word, or -1: keep the logging as it is
 *
 * @code
 * char path[4096];
 * int days = 0;
 * int flags = kelLogLoadA("/etc/svc.conf", "Svc", "LogPath", path, sizeof path, "svc.log", &days);
 * if (flags != -1) kelLogSet(path, flags, 0);
 * @endcode
 */
KEL_API int kelLogLoadStripA(const char* iniPath, const char* section, const char* pathKey,
                             char* logPath, size_t logPathLen, const char* fileName,
                             int* retentionDays, int stripSlash);
/** As kelLogLoadStripA() with a `stripSlash` of 1. */
KEL_API int kelLogLoadA(const char* iniPath, const char* section, const char* pathKey,
                        char* logPath, size_t logPathLen, const char* fileName, int* retentionDays);

/** The console stream: standard error. */
KEL_API FILE* kelLogFile(void);
/** For a child after fork, before it reports: makes the locks of the log anew and forgets the log
 * files of the parent. 0 or an errno value. */
KEL_API int kellog_reset_for_fork(void);
/** Prints `id` in decimal into `buf` (`len` bytes); returns `buf`, or null when it does not fit. */
KEL_API char* pthread2str(char* buf, size_t len, pthread_t id);

/** Writes up to 200 stack frames to standard error; returns the result of the closing fsync(2). */
KEL_API int kelLogBacktrace(void);
/** Reports a failed assertion on standard error and the system log, then aborts. See #KEL_ASSERT.
 */
KEL_API void __kel_assert_fail(const char* expression, const char* file, unsigned line,
                               const char* function) __attribute__((noreturn));

KEL_END_DECLS

/** Ends the process with a report when `expression` is false; active in every build. */
#define KEL_ASSERT(expression) \
  ((expression) ? (void)0 : __kel_assert_fail(#expression, __FILE__, __LINE__, __func__))

#ifdef __cplusplus
/**
 * The process's log configuration. Its fields are read and written atomically by the library; other
 * code uses kelLogGetFlags() and kelLogSetFlags().
 */
class KEL_API LogConfig {
 public:
  constexpr LogConfig() noexcept {}

  /// Sets the flags when `force` is set or nothing was set before; the first call may open the
  /// system log.
  void Init(int flags, int syslogFlags, bool force);
  void SetFlags(int flags, int syslogFlags);
  /// Closes the system log and returns every field to its initial value.
  void Reset();
  /// Opens the system log and tells whether it answered within one second. Uses SIGALRM, which is
  /// left at its default action.
  bool SupportSyslog();

  bool initialized = false;  ///< set by the first Init()
  bool syslogOpen = false;   ///< the system log was opened and answered
  int32_t syslogFlags = 0;   ///< levels that also go to the system log
  int32_t flags = 0x87;      ///< enable bits and modifiers
  int32_t consoleLevel = 2;  ///< 0 no console, 1 severe levels only, 2 all enabled levels
  bool traceOn = false;      ///< the trace bit of `flags`
};

/** The one instance. */
extern KEL_API LogConfig logconf;
#endif

#endif
