/**
 * @file
 * Checksums, and id files: a 64-bit counter on disk that survives crashes.
 *
 * The library's "CRC" is Adler-32 (RFC 1950, section 8.2), whose value for no bytes is 1. It finds
 * accidents, not forgeries: where someone may want to deceive, use a fingerprint (kel/digest.h).
 *
 * An id file holds one number and its checksum in 12 bytes, which are always written in one piece
 * over the old ones and flushed: a process that is killed at any moment leaves the number from
 * before or the one from after. Numbers are read back with a check; a file found corrupt is never
 * repaired, that is its owner's decision. `docs/formats/id-file.md` describes the format.
 *
 * Each id function takes a `name` for what is counted ("container number"), which only appears in
 * its reports. They return 0 or a descriptor, and -1 with `errno` set after a report. Null `path`,
 * `name`, `value` and descriptor pointers are refused with EINVAL.
 *
 * Threads: the checksum functions keep no state. The id functions take no lock; one process owns an
 * id file, and its threads share the descriptor and the value under a lock of their own, since
 * WriteId() and NextId() may replace the descriptor.
 *
 * @code
 * uint64_t last = 0;
 * if (access(path, F_OK) != 0 && WriteIdToPath(path, "container number", 0) != 0) return -1;
 * int fd = OpenId(path, "container number", &last, 0);
 * if (fd == -1) return -1;
 * if (NextId(path, "container number", &last, &fd) == 0) use(last);
 * close(fd);
 * @endcode
 */
#ifndef KEL_CRC_H
#define KEL_CRC_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/** What the file functions return after a read error: no data have this checksum. */
#define KEL_CRC_READ_ERROR 0xFFF1FFF1u

KEL_BEGIN_DECLS

/**
 * Continues a checksum.
 *
 * @param adler  the checksum so far; 1 to begin with
 * @param data   `len` bytes; null gives 1, the checksum of nothing, whatever `adler` and `len` are
 * @return the checksum of what went before and the data
 */
KEL_API uint32_t CRCAppend(uint32_t adler, const void* data, size_t len);

/**
 * Checksum of a whole file; 1 for an empty one. Takes 96 KiB of the thread's stack.
 *
 * @return 0 when the file could not be opened, #KEL_CRC_READ_ERROR when it could not be read; no
 *         data have either checksum. Both are reported, with the `errno` of the failed call.
 */
KEL_API uint32_t CRCFromFile(const char* path);

/**
 * As CRCFromFile(), of the part from where lseek(2) goes with `offset` and `whence` up to the end.
 * The seek is made only for an `offset` above 0: other offsets give the whole file. 0 also when the
 * seek failed.
 */
KEL_API uint32_t CRCFromPartFile(const char* path, off_t offset, int whence);

/**
 * Opens an id file for reading and writing, and reads it as ReadId() does.
 *
 * @param value    receives the id
 * @param minimum  the least id that is believed
 * @return the descriptor, which is the caller's to close; -1 with nothing left open
 */
KEL_API int OpenId(const char* path, const char* name, uint64_t* value, uint64_t minimum);

/**
 * Reads an id from the start of the file behind `fd`; `path` only appears in reports.
 *
 * A file of 8 to 11 bytes has no checksum and is read without the check.
 *
 * @param value  receives the id; what the file holds even when that is refused with ERANGE,
 *               unchanged by any other failure
 *
 * Errors: EINVAL for an `fd` of -1; ENODATA for a file of less than 8 bytes; ERANGE for a checksum
 * that does not match and for an id below `minimum`: both mean that the file is corrupt; else those
 * of lseek(2) and read(2).
 */
KEL_API int ReadId(const char* path, const char* name, uint64_t* value, int fd, uint64_t minimum);

/**
 * Stores an id and flushes it to the disk.
 *
 * When the file cannot be written through `fd`, it is opened again by its path, once: if it still
 * holds a valid id, `fd` is closed and replaced by the new descriptor, and the id is written
 * through that. After a failure the file may hold either id.
 */
KEL_API int WriteId(const char* path, const char* name, uint64_t value, int* fd);

/**
 * Stores the id after `value`, then raises `value` by one. Each id that ends in 0 is read back and
 * compared.
 *
 * When the id could not be stored, `value` is unchanged and the file may hold either id: only the
 * failed one is in doubt, so trying again is safe. When the comparison failed (ERANGE, or what
 * ReadId() says), `value` has been raised, and somebody else writes to the file or the disk does
 * not keep what it is given.
 */
KEL_API int NextId(const char* path, const char* name, uint64_t* value, int* fd);

/**
 * Stores an id in the file at `path`, which is made with mode 0600 if need be and is 12 bytes long
 * afterwards. An id that was there stays until the new one replaces it. A new file's entry in its
 * directory is not flushed: see dirfsync().
 */
KEL_API int WriteIdToPath(const char* path, const char* name, uint64_t value);

KEL_END_DECLS

#endif
