/**
 * @file
 * Directory trees and paths: make and remove them, make them absolute, put them in order.
 *
 * Every function has a narrow form (`A`, the locale's multibyte text) and a wide one (`W`). The
 * wide forms of the tree functions convert their path first; where it has no such form they fail
 * with EILSEQ and "could not convert to multi-byte".
 *
 * The functions on trees answer 1 (done) or 0 (`errno` tells why). A directory that is there
 * already counts as made, one that is gone already as removed.
 *
 * **Sizes.** RealPathA() and ResolvePathA() take the capacity of their output, in characters with
 * the terminator, through a `size_t`. On success it becomes the length of the result (without the
 * terminator); when the result does not fit the functions return -1 with ENOBUFS, and the capacity
 * that is needed stands there instead: enlarge and call again.
 *
 * Thread-safe: no state, and the working directory is read, never changed.
 *
 * @code
 * char path[4096];
 * size_t size = sizeof path;
 * if (RealPathA("../images", path, &size) == 0 && CreateTreeA(path, 0750)) use(path);
 * DeleteTreeA("/srv/old");   // links are removed, never followed
 * @endcode
 */
#ifndef KEL_PATH_H
#define KEL_PATH_H

#include <kel/export.h>

#include <stdbool.h>
#include <stddef.h>
#include <sys/types.h>
#include <wchar.h>

KEL_BEGIN_DECLS

/** @name One directory
 * Return 1 or 0, without a message. @{ */
/** mkdir(2). Anything that has the name already (EEXIST) counts as success. */
KEL_API int CreateDirA(const char* path, mode_t mode);
KEL_API int CreateDirW(const wchar_t* path, mode_t mode);
/** Another name of CreateDirA(). */
KEL_API int CreateDirLoggingOptionalA(const char* path, mode_t mode);
KEL_API int CreateDirLoggingOptionalW(const wchar_t* path, mode_t mode);
/** rmdir(2). A path that does not exist (ENOENT) counts as success. */
KEL_API int DeleteDirA(const char* path);
KEL_API int DeleteDirW(const wchar_t* path);
/** @} */

/** @name Trees: make
 * Make every directory of the path that is missing, each with `mode` less the umask; 0 means 0755.
 * What was made stays when a later directory fails. A name without '/' is one directory, whatever
 * else it contains.
 *
 * Errors (reported, unless `log` is false): EINVAL for a null path, ENAMETOOLONG for more than
 * 4,095 characters (4,094 when a directory above the last one is missing), else those of mkdir(2)
 * with "could not create directory". @{ */
KEL_API int CreateTreeA(const char* path, mode_t mode);
KEL_API int CreateTreeW(const wchar_t* path, mode_t mode);
KEL_API int CreateTreeLoggingOptionalA(const char* path, mode_t mode, bool log);
KEL_API int CreateTreeLoggingOptionalW(const wchar_t* path, mode_t mode, bool log);
/** @} */

/** @name Trees: remove
 * Remove what `path` names and everything below it: a directory, a file, or a link itself. Return 1
 * when all is gone. In a path without '/' every backslash becomes '/' first.
 *
 * Links are removed and never followed, also when another process puts one in the place of a
 * directory while the removal is under way: every step is taken from an open directory, not from a
 * path. Below `path` the names may add up to any length. At most 64 descriptors are open at a time,
 * fewer when the process runs short of them. Other file systems mounted in the tree are emptied
 * too.
 *
 * What cannot be removed is passed over, and the first such error is reported in the end, as "Could
 * not delete %s (%s)", and left in `errno`. Others: ENOENT for a path that does not exist (not
 * reported) or is empty or null; ENAMETOOLONG for more than 4,095 characters; ENOTDIR when a '/'
 * ends the name of something that is no directory; ESTALE when a directory that was being emptied
 * was moved elsewhere and the way back to where it had been is lost. @{ */
KEL_API int DeleteTreeA(const char* path);
KEL_API int DeleteTreeW(const wchar_t* path);
/** @} */

/** @name Absolute paths
 * A relative path is put behind the working directory; components "." and "..", each ".." with the
 * one before it, and repeated slashes are then taken out of the text. The file system is not asked,
 * so links are not resolved and nothing has to exist. See the notes on sizes above; `out` is
 * unspecified on failure, and may be `path` itself.
 *
 * Errors: EINVAL for a null argument, ENOBUFS with the capacity needed (reported as "size of path
 * too large for buffer" or "buffer too small" when the argument alone does not fit), those of
 * getcwd(3) with the size 0, EILSEQ when the working directory has no wide form. @{ */
/** Writes the path without a '/' at its end, but for the root. 0 or -1. */
KEL_API int RealPathA(const char* path, char* out, size_t* size);
KEL_API int RealPathW(const wchar_t* path, wchar_t* out, size_t* size);
/**
 * Splits a path behind its last '/': the directory, absolute and with a '/' at its end, goes to
 * `dirOut`, the rest as it is to `fileOut`. Of "name" the directory is the working directory.
 *
 * `fileSize` may be null: the file name is then not wanted; `fileOut` may be null too. When the
 * path as a whole exceeds `dirSize`, both sizes become its size. 0 or -1.
 */
KEL_API int ResolvePathA(const char* path, char* dirOut, char* fileOut, size_t* dirSize,
                         size_t* fileSize);
KEL_API int ResolvePathW(const wchar_t* path, wchar_t* dirOut, wchar_t* fileOut, size_t* dirSize,
                         size_t* fileSize);
/** @} */

/** @name Copies
 * @{ */
/** Copies `path` to `out` (`size` characters). 0, or -1 with "could not copy path" after the report
 * of the bounded copy (kelstrcpy()); `out` then holds what fitted. */
KEL_API int StatPathA(const char* path, char* out, size_t size);
KEL_API int StatPathW(const wchar_t* path, wchar_t* out, size_t size);
/** Turns every backslash of a path without '/' into '/', in place; returns `path`, null for null.
 */
KEL_API char* PathToNativePathA(char* path);
KEL_API wchar_t* PathToNativePathW(wchar_t* path);
/** @} */

/** @name Order of paths
 * Negative, 0 or positive as `a` comes before, equals or comes after `b`. `sep`, the separator,
 * comes before every other character but after the end of the text: "a", "a/b", "a-b", which is the
 * order of a depth-first listing. Other characters compare by value, narrow ones as unsigned. Null
 * counts as empty. The `Case` forms see ASCII capitals as small letters. @{ */
KEL_API int PathCompareA(const char* a, const char* b, char sep);
KEL_API int PathCompareW(const wchar_t* a, const wchar_t* b, wchar_t sep);
KEL_API int PathCaseCompareA(const char* a, const char* b, char sep);
KEL_API int PathCaseCompareW(const wchar_t* a, const wchar_t* b, wchar_t sep);
/** Compare `dir1` `sep` `name1` with `dir2` `sep` `name2` without building them; where a name is
 * empty, its directory stands alone, without the separator. */
KEL_API int PathCompareCombinedA(const char* dir1, const char* name1, const char* dir2,
                                 const char* name2, char sep);
KEL_API int PathCompareCombinedW(const wchar_t* dir1, const wchar_t* name1, const wchar_t* dir2,
                                 const wchar_t* name2, wchar_t sep);
KEL_API int PathCaseCompareCombinedA(const char* dir1, const char* name1, const char* dir2,
                                     const char* name2, char sep);
KEL_API int PathCaseCompareCombinedW(const wchar_t* dir1, const wchar_t* name1, const wchar_t* dir2,
                                     const wchar_t* name2, wchar_t sep);
/** @} */

/** @name Order of text
 * Null counts as empty. @{ */
/** -1, 0 or 1 by the values of the characters, unsigned. */
KEL_API int BufCompareA(const char* a, const char* b);
KEL_API int BufCompareW(const wchar_t* a, const wchar_t* b);
/** strcasecmp(3), wcscasecmp(3): by the rules of the locale. */
KEL_API int BufCaseCompareA(const char* a, const char* b);
KEL_API int BufCaseCompareW(const wchar_t* a, const wchar_t* b);
/**
 * Orders dotted version numbers: -1, 0 or 1. Up to five numbers are compared, as 32-bit values,
 * whatever single character stands between them; a version equals every longer one that begins with
 * it ("7.1" and "7.1.3"), so this is no order to sort by.
 */
KEL_API int ProtocolCompare(const char* a, const char* b);
/** @} */

KEL_END_DECLS

#endif
