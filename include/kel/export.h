/**
 * @file
 * What every public header of the library leans on: visibility, linkage and format checking.
 */
#ifndef KEL_EXPORT_H
#define KEL_EXPORT_H

/** Marks what the library exports; everything else in it is hidden. */
#define KEL_API __attribute__((visibility("default")))

/** Lets the compiler check a printf format: `fmt` and `args` are argument positions from 1; `args`
 * is 0 for a va_list. */
#define KEL_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

#ifdef __cplusplus
#define KEL_BEGIN_DECLS extern "C" {
#define KEL_END_DECLS }
#else
/** Opens a run of declarations with C linkage. */
#define KEL_BEGIN_DECLS
/** Closes what #KEL_BEGIN_DECLS opened. */
#define KEL_END_DECLS
#endif

#endif
