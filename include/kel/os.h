/**
 * @file
 * Questions about the host: mounted file systems and how full they are, memory, the terminal, and
 * the file system `Kofs`.
 *
 * A file system that does not answer, typically a network mount whose server is gone, holds nobody
 * for longer than 5 seconds: the question is put in a thread of its own, and where no answer has
 * come by then the call goes on without one, with `errno` ETIME. The thread ends when the file
 * system answers at last or the process ends; while four of them wait for the same answer, asking
 * again fails at once. The time is taken with alarm(2): one such call at a time is under way in a
 * process, others wait for their turn, and while it is the process's SIGALRM belongs to the
 * library. Afterwards its handler and a timer of the caller's are as they were. A SIGALRM that
 * comes from elsewhere ends the wait.
 *
 * Thread-safe but for ConfigKofsNommap(), which belongs to the start of the program. Sizes are in
 * bytes unless said otherwise. Paths end in `A` for the locale's multibyte text, in `W` for wide
 * text; a wide path that the locale cannot encode is reported and counts as one whose file system
 * does not answer.
 *
 * @code
 * OSMountA **mounts = OSGetMountInfoA(KEL_MOUNTS_LOCAL | KEL_MOUNTS_NETWORK);
 * for (OSMountA **m = mounts; m != NULL && *m != NULL; ++m)
 *   printf("%s on %s: %lu of %lu bytes used\n", (*m)->device, (*m)->mountPoint,
 *          (unsigned long)OSGetFSUsedSizeA((*m)->mountPoint), (unsigned long)(*m)->size);
 * OSFreeMountListA(mounts);
 * @endcode
 */
#ifndef KEL_OS_H
#define KEL_OS_H

#include <kel/export.h>

#include <stdbool.h>
#include <stdint.h>
#include <wchar.h>

/** @name Which mounts a list holds
 * Flags, by the category of the file system's type. @{ */
#define KEL_MOUNTS_LOCAL 0x1u          /**< 'L' */
#define KEL_MOUNTS_MEMORY 0x2u         /**< 'F', memory and device file systems */
#define KEL_MOUNTS_OPTICAL 0x4u        /**< 'C' */
#define KEL_MOUNTS_NETWORK 0x8u        /**< 'N' */
#define KEL_MOUNTS_PSEUDO 0x10u        /**< 'P' and swap, 'S' */
#define KEL_MOUNTS_OTHER 0x40000000u   /**< 'U' */
#define KEL_MOUNTS_ALL 0x4000001fu     /**< every category, but only what can be examined */
#define KEL_MOUNTS_NO_WARN 0x80000000u /**< no warning when the table cannot be opened */
/** @} */

KEL_BEGIN_DECLS

/**
 * One entry of a mount table; the texts belong to the record.
 *
 * The category comes from the type, in upper case, by the words that it begins with; the first row
 * that fits counts:
 *
 * | Category | Types |
 * |---|---|
 * | N network | NFS AUTOFS SMB AFS CIFS NCPFS OCFS2 9P CODA; any mount point with ":/" or "//" |
 * | P pseudo | PROC DEVPTS TMPFS XNAMFS SPECFS NAMEFS FIFOFS STATS TUBEFS DEVFS SYSFS SUBFS SPUFS
 * CONFIGFS | | F memory | FDFS USBFS RAMFS ROMFS CRAMFS | | C optical | CD DVD ISO9660 HIGH ROCK HS
 * UDF | | S swap | SWAP | | U ignored | IGNORE | | L local | all others |
 */
typedef struct OSMountA {
  char* device;
  char* mountPoint;
  char* type;
  uint64_t size; /**< total size; 0 when not asked for or not to be had */
  char category;
} OSMountA;

/** As OSMountA with wide texts. */
typedef struct OSMountW {
  wchar_t* device;
  wchar_t* mountPoint;
  wchar_t* type;
  uint64_t size;
  char category;
} OSMountW;

/** @name Mounted file systems
 * Return a new array of records that ends in null, empty when nothing was selected, for
 * OSFreeMountListA() or OSFreeMountListW(); null when the table cannot be opened (a warning) or
 * memory is short (ENOMEM, reported). Entries come in the order of the table.
 *
 * With #KEL_MOUNTS_ALL, an entry whose mount point cannot be examined with stat(2), in time, is
 * left out, which is traced. The wide forms leave out entries that have no wide form, with a
 * warning.
 * @{ */
/** OSGetMountInfoA() with #KEL_MOUNTS_ALL. */
KEL_API OSMountA** OSGetMountListA(void);
KEL_API OSMountW** OSGetMountListW(void);
/** What "/etc/mtab" lists of the categories in `flags`, with the sizes of those mount points that
 * begin with '/'. */
KEL_API OSMountA** OSGetMountInfoA(unsigned int flags);
KEL_API OSMountW** OSGetMountInfoW(unsigned int flags);
/** What the mount table `table` ("/etc/fstab" for null and for the empty text) lists of the
 * categories in `flags`, mounted or not, without sizes. */
KEL_API OSMountA** OSGetFstabA(unsigned int flags, const char* table);
KEL_API OSMountW** OSGetFstabW(unsigned int flags, const char* table);
/** Releases a list; null is ignored. */
KEL_API void OSFreeMountListA(OSMountA** list);
KEL_API void OSFreeMountListW(OSMountW** list);
/** @} */

/** @name How large and how full a file system is
 * Answers for the file system that holds `path`, which the caller must be allowed to read. 0 when
 * they are not to be had: `errno` tells why (ETIME: not within 5 seconds) and the trace too. Null
 * (EINVAL) and a path of 4,096 characters or more (ENAMETOOLONG) are reported; the result is then
 * -1, of the used size 0. @{ */
/** Its total size. */
KEL_API int64_t OSGetFSSizeA(const char* path);
KEL_API int64_t OSGetFSSizeW(const wchar_t* path);
/** What is used of it. */
KEL_API int64_t OSGetFSUsedSizeA(const char* path);
KEL_API int64_t OSGetFSUsedSizeW(const wchar_t* path);
/** What users without privileges may still fill; less than size minus use where the file system
 * keeps a reserve. */
KEL_API int64_t OSGetFSAvailSizeA(const char* path);
KEL_API int64_t OSGetFSAvailSizeW(const wchar_t* path);
/** @} */

/** @name Memory
 * @{ */
/** Physical memory; 128 MiB when the system does not tell. Traced. */
KEL_API unsigned long OSGetTotalRamValue(void);
/** Physical memory and swap space together; likewise. */
KEL_API unsigned long OSGetMaxMemoryValue(void);
/** Free memory, by the smaller of two measures: free, buffers and page cache as "/proc/meminfo" has
 * them; free and buffers as sysinfo(2) has them. 0 when neither is to be had. */
KEL_API unsigned long OSGetFreeMemoryValue(void);
/** Memory that this process keeps resident; 0 when "/proc/self/stat" cannot be read. */
KEL_API unsigned long OSGetRSS(void);
/** @} */

/**
 * The size of the terminal that is standard input, in characters.
 *
 * @return 0; -1 with `errno` from ioctl(2), unreported, and a size of 80 by 24, when there is none
 */
KEL_API int OSGetTerminalSize(unsigned short* cols, unsigned short* rows);

/** @name The file system Kofs
 * It keeps files cached through memory maps, which does not pay for files that are read once. What
 * fails thousands of times over is reported at the first time and then at every 1,000th. @{ */
/** Whether `path` lies on one; false, reported as information, when statfs(2) fails. */
KEL_API bool IsKofs(const char* path);
/** Whether ConditionalEnableNommap() does anything; initially not. */
KEL_API void ConfigKofsNommap(bool enable);
/**
 * Has the file system stop caching the open file `fd` through memory maps.
 *
 * @param name  the file's name in reports
 * @return 0; -1 with `errno`, of which at most five are reported, as information
 */
KEL_API int EnableNommap(const char* name, int fd);
/** EnableNommap() when it was switched on, else 0. */
KEL_API int ConditionalEnableNommap(const char* name, int fd);
/** @} */

KEL_END_DECLS

#endif
