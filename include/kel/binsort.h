/**
 * @file
 * External sort: puts more records in order than memory holds.
 *
 * Records are the caller's: the sort moves opaque handles and asks the caller's functions to read,
 * order, write and release what they stand for. It fills memory up to two limits, sorts that batch,
 * writes it to a run file, goes on writing to the same run as long as the input comes in order, and
 * so on; runs are merged a few at a time as they accumulate, and what is left of them at the end is
 * merged into the output. The sort is stable. Records that compare equal can be reduced to one.
 *
 * What it takes:
 * - Memory: 32 bytes for each of `max_objects` records, the records of one batch (below
 *   `max_object_bytes`, and one record more, whose size is known only when it was read), and the
 *   buffers of the open run files. A merge holds one record for each run.
 * - Files: at most 128 open runs. With a fan-in of f the runs fill f - 1 places for each power of
 *   f: a fan-in of 16 is enough for more than 16 to the 8th batches. A fan-in above 128 never
 *   merges before the end, and is the fastest as long as there are no more than 128 batches.
 * - Disk: the runs take as much as the output, and up to twice that while runs are merged.
 * - Time: each record is read and written twice, and once more for each level of merging. Input
 *   that is in order already becomes one run, and costs one comparison a record and a copy.
 *
 * Run files are removed on every way out, unless #BINARY_SORT_KEEP_RUNS is set. Their names,
 * "sort-PID-N.tmp", tell the process and count from 0 in each sort: processes can share a folder,
 * two sorts at the same time in one process cannot. The names are predictable, so the folder must
 * not be writable for others. What a killed process leaves behind is overwritten or may be deleted.
 *
 * Threads: a context serves one sort at a time; different contexts are independent. All functions
 * of the caller are called on the thread of BinarySortFp(), must not throw, and may report.
 *
 * @code
 * static void *read_item(void *context, FILE *in, uint64_t *size) {
 *   struct item *item = malloc(sizeof *item);               // null leaves errno at ENOMEM
 *   if (item == NULL || fread(item, sizeof *item, 1, in) == 1) {
 *     *size = sizeof *item;
 *     return item;
 *   }
 *   free(item);
 *   errno = ferror(in) ? EIO : ENOENT;
 *   return NULL;
 * }
 * static int compare_items(void *context, uint64_t na, void **a, uint64_t nb, void **b) {
 *   return memcmp(*a, *b, 32);
 * }
 * static ssize_t write_item(void *context, void *record, FILE *out, uint64_t offset) {
 *   return fwrite(record, sizeof(struct item), 1, out) == 1 ? (ssize_t)sizeof(struct item) : -1;
 * }
 * static void free_item(void *context, void *record) { free(record); }
 *
 * binary_sort_ctx *sort = BinarySortCtxConstruct(read_item, compare_items, NULL, write_item,
 *                                                free_item, NULL, NULL, 500000, 48 << 20,
 *                                                "/var/tmp/svc", 32, 1 << 16, 0);
 * if (sort != NULL && BinarySortFp(sort, in, out) == 0) puts("sorted");
 * BinarySortCtxDestruct(&sort);
 * @endcode
 */
#ifndef KEL_BINSORT_H
#define KEL_BINSORT_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>

/** @name Flags of a sort
 * @{ */
/** Nothing is reported when a run file cannot be set up or there are too many of them, and a record
 * that cannot be read or written is reported in one short line. */
#define BINARY_SORT_QUIET 0x1u
/** Run files stay where they are, also those that were merged into others, and on failure too. */
#define BINARY_SORT_KEEP_RUNS 0x2u
/** Each record has its number before it, in run files and in the output: 8 bytes, in the machine's
 * order (little-endian). */
#define BINARY_SORT_NUMBERED 0x4u
/** @} */

KEL_BEGIN_DECLS

/**
 * Reads one record from `in`: from the input, or back from a run file that the write function
 * filled. It must take no more from a run file than that one record.
 *
 * @param cbctx  the callback context
 * @param in     the source that BinarySortFp() or the next function gave, passed on as it is; or a
 *               run file
 * @param size   receives the memory that the record takes, for the limit of bytes; is 0 before
 * @return a handle; or null, with `errno` 0 (as it is before the call) for a record to be passed
 *         over, ENOENT at the end of `in`, anything else for an error. A short read because of an
 *         I/O error has to be told from the end of the file (ferror())
 */
typedef void* (*binary_sort_read_fn)(void* cbctx, FILE* in, uint64_t* size);
/**
 * Orders two records: negative, 0 or positive as `a` comes before, equals or comes after `b`.
 *
 * The numbers are positions in the input, counted from 1, passed over records included. While runs
 * are merged that is so with #BINARY_SORT_NUMBERED only; else they are the positions of the two
 * runs, which order equal records in the same way.
 */
typedef int (*binary_sort_compare_fn)(void* cbctx, uint64_t number_a, void** record_a,
                                      uint64_t number_b, void** record_b);
/**
 * Chooses between two records that compare equal, of which `a` came first: negative keeps `b`, else
 * `a` is kept; the other one is released. The same pair of positions may be decided more than once,
 * and `a` may have been written already, so it has to choose and cannot combine the two.
 */
typedef int (*binary_sort_resolve_fn)(void* cbctx, uint64_t number_a, void** record_a,
                                      uint64_t number_b, void** record_b);
/**
 * Writes one record so that the read function can read it back.
 *
 * @param cbctx   the callback context
 * @param record  the handle
 * @param out     a run file or the output
 * @param offset  bytes that this sort has written to `out` before, by the results of this function
 *                and with 8 bytes for each number
 * @return bytes written; -1 with `errno` on failure
 */
typedef ssize_t (*binary_sort_write_fn)(void* cbctx, void* record, FILE* out, uint64_t offset);
/** Releases a record. */
typedef void (*binary_sort_free_fn)(void* cbctx, void* record);
/** The next input when one is at its end, not closed by the sort; null with `errno` 0 (as it is
 * before the call) after the last one, null with anything else for an error. */
typedef FILE* (*binary_sort_next_fn)(void* cbctx);

/** The settings of a sort, and its memory. */
typedef struct binary_sort_ctx binary_sort_ctx;

/**
 * Prepares a sort. The arrays of entries are allocated here, so that a sort cannot fail for them.
 *
 * @param read,compare,write,free  the caller's functions; required
 * @param resolve  reduces equal records to one; null keeps all, in the order of the input
 * @param next     supplies more inputs; null: there is one
 * @param cbctx    handed to all of them; may be null
 * @param max_objects       most records in a batch; 0 counts as 1
 * @param max_object_bytes  a batch is full when the sizes that `read` gave reach this sum
 * @param tmpdir   folder for the run files, existing; copied
 * @param num_files_to_merge  how many runs of one level are merged into one of the next: from 2
 * @param temp_buffer_size  bytes of stdio buffer for each open run file, 64 KiB or more being
 *                 well spent; -1: the C library's choice
 * @param flags    #BINARY_SORT_QUIET and so on
 * @return the context, for BinarySortCtxDestruct(); null with EINVAL, which is not reported, when
 *         something required is null or the fan-in below 2; null with ENOMEM, reported
 */
KEL_API binary_sort_ctx* BinarySortCtxConstruct(
    binary_sort_read_fn read, binary_sort_compare_fn compare, binary_sort_resolve_fn resolve,
    binary_sort_write_fn write, binary_sort_free_fn free, binary_sort_next_fn next, void* cbctx,
    uint64_t max_objects, uint64_t max_object_bytes, const char* tmpdir,
    uint64_t num_files_to_merge, ssize_t temp_buffer_size, uint32_t flags);

/** Releases `*ctx` and sets it to null; null is ignored in both places. */
KEL_API void BinarySortCtxDestruct(binary_sort_ctx** ctx);

/**
 * Sorts everything that can be read from `src` and from the inputs that the next function supplies.
 * The context can be used again afterwards, whatever the result.
 *
 * @param ctx     the settings
 * @param src     the first input; the sort itself does not touch it, so it may be null or whatever
 *                else the read function understands
 * @param dst_fp  receives the records from where it stands, and is flushed: what could not be
 *                written is known before this function returns. Not closed
 * @return 0; -1 after a report, with all records and run files released and an unspecified part of
 *         the output written. `errno` is then EINVAL for a null `ctx` or `dst_fp`, ENOBUFS when 128
 *         run files are not enough (a lower fan-in helps), EFAULT when a record or its number could
 *         not be written (the report tells why, a full disk for one), EIO when a run file could not
 *         be buffered, copied or read back to its end; else what the failing read or next function,
 *         fopen() or malloc() left there
 */
KEL_API int BinarySortFp(binary_sort_ctx* ctx, FILE* src, FILE* dst_fp);

/**
 * Sorts an array in memory; equal elements keep their order. Takes count * log2(count) comparisons
 * at most, and count - 1 when the array is in order.
 *
 * @param base     the elements
 * @param count    how many
 * @param size     bytes per element; 8 and 16 are the fastest
 * @param compare  negative, 0 or positive; its elements lie in `base` or `scratch`, unaligned if
 *                 those or `size` are
 * @param ctx      handed to `compare`; may be null
 * @param scratch  room for `count` elements that does not overlap `base`
 */
KEL_API void BinarySortMergeSort(void* base, size_t count, size_t size,
                                 int (*compare)(void* ctx, const void* a, const void* b), void* ctx,
                                 void* scratch);

KEL_END_DECLS

#endif
