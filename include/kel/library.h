/**
 * @file
 * The library as a whole: start and stop, versions, the options that every tool accepts, and the
 * first fatal error of a thread.
 *
 * @code
 * int main(int argc, char **argv) {
 *   const tqutil::LibAutoInit library("tool");
 *   _checkCommonArgs(&argc, argv, usage, GetKELVersion(), __DATE__, __TIME__, "Release");
 *   ...
 * }
 * @endcode
 *
 * Start and stop run once each, on one thread, before and after all other use. Versions may be
 * asked for at any time; the fatal error record belongs to the calling thread.
 */
#ifndef KEL_LIBRARY_H
#define KEL_LIBRARY_H

#include <kel/export.h>

#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>

KEL_BEGIN_DECLS

/** Shows how a tool is used, on standard output. */
typedef void (*kelUsageFn)(const char* programName);

/** @name Start and stop
 * @{ */
/**
 * Starts the library: time base, locale from the environment, libcurl, memory accounting, marker
 * files. Later calls do nothing.
 *
 * @param name     not read
 * @param version  interface version that the caller was compiled for; one that does not begin with
 * '6', or null, gives a warning on standard error and nothing else
 * @return 1
 */
KEL_API int _KelLibInit(const char* name, const char* version);
/** Ends file logging, resets the log configuration, and lets _KelLibInit() start anew; 0. */
KEL_API int KelLibDestroy(void);
/** Whether the performance marker file was there when last looked at. */
KEL_API bool PerfEnabled(void);
/** Looks at the performance marker file again. */
KEL_API void RefreshMarkerFiles(void);
/** @} */

/** @name Versions
 * @{ */
/** Version of the calling convention, "6.0.0.0". */
KEL_API const char* KelGetVersion(void);
/** One line for people: name, interface version, date. */
KEL_API const char* KelGetVersionString(void);
/** Version of the product build, "17.0101.0023.0704". */
KEL_API const char* GetKELVersion(void);
/** Whether `version` is of this product: the first two parts agree, or the whole text when it has
 * fewer. */
KEL_API bool CheckKELVersion(const char* version);
/** @} */

/** @name Common arguments
 * These print to standard output and end the process with status 1, also for --help and --version.
 * @{ */
/**
 * Carries out --help, --features, --os-test, --version and --copyrights, whichever stands first in
 * `argv`, and ends the process then. Removes --noversioncheck; without it, warns when `version` is
 * of another product. Other arguments stay for the tool's own parser. A null text or `usage` is
 * reported and ends the process.
 *
 * @param argc  counted down for what is removed
 * @param argv  ends in null
 */
KEL_API void _checkCommonArgs(int* argc, char** argv, kelUsageFn usage, const char* version,
                              const char* buildDate, const char* buildTime, const char* buildType);
/** Prints what --help prints. */
KEL_API void ShowUsage(char** argv, kelUsageFn usage) __attribute__((noreturn));
/** Prints what --version prints. */
KEL_API void _showVersion(const char* name, const char* version) __attribute__((noreturn));
/** Prints what --features prints. */
KEL_API void _showFeatures(const char* version, const char* buildDate, const char* buildTime,
                           const char* buildType) __attribute__((noreturn));
/** @} */

/** @name Program information
 * @{ */
/** The part of `path` after its last '/'. */
KEL_API const char* GetProgramName(const char* path);
/** Writes the copyright notice to standard output; the result of fputs(3). */
KEL_API int ShowCopyrights(void);
/** Writes it to `stream`. */
KEL_API int ShowCopyrights2(FILE* stream);
/** Prints a summary of system, memory, mounted file systems (as OSGetMountListA() lists them) and
 * process; null: to standard output. */
KEL_API void OSTest(FILE* stream);
/** @} */

/** @name First fatal error
 * A thread keeps the first fatal error until it is cleared, so that a program can show at its end
 * why a run failed. @{ */
/**
 * Records and logs "PREFIX FUNCTION: text K-454-ID"; does nothing at all when a record exists.
 *
 * @param messageId  -1: no identifier
 * @param fmt        the whole record is cut at 2,368 characters
 */
KEL_API void kelSetFatalError(const char* function, int messageId, const char* fmt, ...)
    KEL_PRINTF(3, 4);
/** Copies the record into `buf` (`len` bytes), empty when there is none; a cut is reported. */
KEL_API void kelGetFatalError(char* buf, size_t len);
/** 1 when there is a record, else 0. */
KEL_API int kelFatalErrorExists(void);
/** Empties the record, so that the next error is recorded again. */
KEL_API void kelClearFatalError(void);
/** Sets the prefix of later records, 256 characters at most; with `overwrite` 0 only when none is
 * set. */
KEL_API void kelSetFatalPrefix(const char* prefix, int overwrite);
/** @} */

KEL_END_DECLS

#ifdef __cplusplus
#include <string>

namespace tqutil {

/** Starts the library and stops it at the end of its scope. */
class KEL_API LibAutoInit {
 public:
  explicit LibAutoInit(const std::string& name);
  ~LibAutoInit();
  LibAutoInit(const LibAutoInit&) = delete;
  LibAutoInit& operator=(const LibAutoInit&) = delete;
};

}  // namespace tqutil
#endif

#endif
