/**
 * @file
 * INI files: configuration by path, section and key.
 *
 * Every call names its file by path, as the last argument as a rule. The first call loads the file
 * into memory, process-wide; from then on it is read and changed there until it is released. A save
 * writes the whole file back, through a temporary file, so that a crash at any moment leaves the
 * old or the new text. Files are known by the text of their path: two paths to one file are two
 * files here.
 *
 *     # comments stay with what follows them
 *     [Section]
 *     Key = value
 *
 * Sections and keys are compared without regard to ASCII case. What stands before the first header
 * belongs to #INIFILE_TOP_SECTION. A section that is opened again goes on; a key that is defined
 * again has several values (InifileGetNthValueA()), of which the last counts. Comments, order and
 * all definitions survive a load and a save; white space around keys and values, and lines that are
 * neither comment, header nor entry, do not. docs/formats/ini.md describes the dialect.
 *
 * There is no quoting and no escaping: a value ends at its line, and texts that callers store are
 * written as they are. Section names must not contain ']', keys not '=', none of them a line break,
 * and comments need their '#'; else they are something else when the file is loaded again.
 *
 * Reading a missing key stores the default in memory: the next save writes it. A file that cannot
 * be read is reported and counts as empty, so that reads give their defaults and a save creates it.
 *
 * Results of the getters (values and typed values), unless said otherwise:
 *
 * - above 0: found; the size of the value's text, its terminator included. Above the capacity of
 *   the buffer when the text was cut (which is reported, ENOBUFS)
 * - below 0: the default was used; the negative size of its text, at most the capacity less 1
 * - 0: neither a value nor a default; or, for some types, a text that does not convert
 * - -1 is ambiguous where a default may be empty or a text may not convert: see each function
 *
 * Failures are reported, leave `errno` and return what each function says; a null path is EINVAL.
 * When memory is short a file is not loaded at all rather than in part, and the call fails.
 *
 * Threads: everything may be called from any thread. One lock guards all files; it is free while a
 * file is being read, and no report is made under it. A thread that is cancelled inside leaves it
 * free; a save is finished first. The time of a call does not depend on how many files, sections
 * or keys are loaded, except for lists and saves.
 *
 * @code
 * int port;
 * InifileGetIntegerA("Net", "Port", &port, 8400, "/etc/svc.conf");
 * if (port < 1 || port > 65535)
 *   InifileValueErrorA("/etc/svc.conf", "Net", "Port", port, "out of range");
 * InifileSaveValueA("Net", "Host", "backup1", "/etc/svc.conf");
 * if (InifileSaveA("/etc/svc.conf") != 0) return -1;
 * @endcode
 */
#ifndef KEL_INIFILE_H
#define KEL_INIFILE_H

#include <kel/export.h>

#include <wchar.h>

/** The section of the entries before the first header; it is never written as a header. */
#define INIFILE_TOP_SECTION "__dummy__section__"

KEL_BEGIN_DECLS

/** @name Files
 * @{ */
/** Loads the file unless it is loaded. 0, also when it cannot be read; -1 for a null path or when
 * memory is short. Changes that others make on disk are not seen until the file is released. */
KEL_API int InifileLoadA(const char* path);
/**
 * Saves the file and keeps the text before as PATH.bak; the file's mode is 0640 afterwards.
 *
 * The new text is written to "PATH-NUMBER.sav" (the number is the time in seconds, or the next free
 * one), flushed to stable storage and renamed, so that at every moment there is a whole file at the
 * path. The backup is a hard link of the old file, or a copy where there are none. Saves whether or
 * not the file is modified, and leaves that flag as it is.
 *
 * @return 0; 2 with ENOENT when the file is not loaded (it is not loaded for this); -1 when a step
 *         failed. Then the old file is in place, unless it was the last step, setting the mode.
 */
KEL_API int InifileSaveA(const char* path);
/** As InifileSaveA(); marks the file as modified first. */
KEL_API int InifileSaveNewA(const char* path);
/**
 * Writes the file's text to another place, without a temporary file or a backup.
 *
 * @param path       a loaded file, which keeps its path
 * @param newPath    where to write; null: standard output
 * @param overwrite  0: an existing file is an error (EEXIST)
 * @return 0; 2 with ENOENT when the file is not loaded; -1 on failure
 */
KEL_API int InifileSaveAsA(const char* path, const char* newPath, int overwrite);
/** As InifileSaveAsA(), but loads the file when it is not loaded; -1 when that fails. */
KEL_API int IniFileLoadAndSaveAsA(const char* path, const char* newPath, int overwrite);
/** Saves every file that is modified: by a stored value or comment, a removal, a section made for a
 * default, or InifileSaveNewA(). Defaults alone do not count. 0, whatever the saves reported. */
KEL_API int InifileFlushAll(void);
/** Forgets a file; changes that were not saved are lost. 1, or 0 when it is not loaded. */
KEL_API int InifileReleaseA(const char* path);
/** Forgets all files, as KelLibDestroy() does; 0. */
KEL_API int InifileReleaseAll(void);
/** Prints the paths of the loaded files to standard output. */
KEL_API void inifilePrintLoadedFiles(void);
/** Prints the contents of the loaded files to standard output, under the lock. */
KEL_API void inifilePrintLoadedFileContents(void);
/** @} */

/** @name Values
 * @{ */
/** As InifileGetNthValueA() with an `n` of 0. */
KEL_API int InifileGetValueA(const char* section, const char* key, char* buf, int buflen,
                             const char* defaultValue, const char* path);
/**
 * Reads a value, or lists sections or keys.
 *
 * With a null `section` the result is the names of all sections, #INIFILE_TOP_SECTION first; with a
 * null `key` those of the section's keys. Each has its terminator, and the result is the size of
 * all; when that is above `buflen`, `buf` is empty.
 *
 * @param n             0 for the latest definition of the key, 1 for the one before, and so on
 * @param buf           cleared first (`buflen` bytes); always terminated
 * @param buflen        capacity of `buf` in bytes, at least 1
 * @param defaultValue  used, and stored in memory as the key's value, when the key is missing or
 *                      its latest definition is empty; null: the empty text is stored
 * @return see the top of this file; -1 also when an existing key has no `n`-th definition or that
 *         one is empty. 0 with EINVAL for a null `buf` or a `buflen` below 1
 */
KEL_API int InifileGetNthValueA(int n, const char* section, const char* key, char* buf, int buflen,
                                const char* defaultValue, const char* path);
/**
 * Stores a value in memory, and makes section and key when they are missing. Earlier definitions of
 * the key are dropped; its comment stays.
 *
 * @param key    null or empty: only the section is made
 * @param value  null counts as empty
 * @return 1; -1 with EINVAL for a null or empty section
 */
KEL_API int InifileSaveValueA(const char* section, const char* key, const char* value,
                              const char* path);
/**
 * Removes the latest definition of a key, or a section with everything in it when `key` is null or
 * empty. What was removed is gone for all calls and for the next save; a definition before the one
 * removed becomes the latest. #INIFILE_TOP_SECTION is emptied.
 *
 * @return 0; -1 with ENOENT when there is no such section (reported) or key (not reported)
 */
KEL_API int InifileDeleteValueA(const char* section, const char* key, const char* path);
/**
 * Tells whether there is such a key, or such a section when `key` is null or empty.
 *
 * @return 0 there is; -1 no such key; -2 no such section, or none given; -3 no file
 */
KEL_API int InifileValueExistsA(const char* section, const char* key, const char* path);
/** @} */

/** @name Comments
 * Of a key, of a section (`key` null or empty), or of the file's beginning (both null or empty).
 * @{ */
/** Sets a comment; section and key are made when they are missing. The text is written as it is,
 * with a newline at its end; null or empty removes the comment. 0, or -1 (EINVAL for a key without
 * a section). */
KEL_API int InifileSaveCommentA(const char* section, const char* key, const char* comment,
                                const char* path);
/** Reads a comment with its marks and line breaks. Its length; `buflen` when it was cut; -1 when
 * there is none. -1 with ENOMEM for a null `buf` or a `buflen` below 1. A definition without a
 * comment has that of the definition before. */
KEL_API int InifileGetCommentA(const char* section, const char* key, char* buf, int buflen,
                               const char* path);
/** @} */

/** @name Typed values: reading
 * `*out` receives the number at the start of the text, whatever follows; it is left alone when
 * there is neither value nor default. When the text is not a number and nothing else, or is out of
 * the range of 64 bits, the result is 0 (up to 32 bits) or -1. Numbers are cut to the type, not
 * checked against it. The form of numbers does not depend on the locale.
 *
 * A null `out` is reported (EINVAL) and gives -1. @{ */
KEL_API int InifileGetIntegerA(const char* section, const char* key, int* out, int defaultValue,
                               const char* path);
KEL_API int InifileGetUIntegerA(const char* section, const char* key, unsigned int* out,
                                unsigned int defaultValue, const char* path);
KEL_API int InifileGetShortA(const char* section, const char* key, short* out, short defaultValue,
                             const char* path);
KEL_API int InifileGetUShortA(const char* section, const char* key, unsigned short* out,
                              unsigned short defaultValue, const char* path);
KEL_API int InifileGetLongLongA(const char* section, const char* key, long* out, long defaultValue,
                                const char* path);
KEL_API int InifileGetULongLongA(const char* section, const char* key, unsigned long* out,
                                 unsigned long defaultValue, const char* path);
/** Bytes, with a unit: "10MiB"; see strtosize(). */
KEL_API int InifileGetSizeA(const char* section, const char* key, unsigned long* out,
                            unsigned long defaultValue, const char* path);
/** Takes what strtod() makes of the text; never fails to convert. */
KEL_API int InifileGetFloatA(const char* section, const char* key, float* out, const char* path,
                             float defaultValue);
/** 1 when the text begins with one of T, t, Y, y, 1, else 0. `*out` is the default when there is
 * no value. A null `out` gives 0. */
KEL_API int InifileGetBooleanA(const char* section, const char* key, int* out, int defaultValue,
                               const char* path);
/** A number and one '%': "50%" gives 50. -1 with `*out` left alone for any other text. */
KEL_API int InifileGetPercentageA(const char* section, const char* key, double* out,
                                  const char* path, double defaultPercent);
/** As InifileGetValueA(); in a value without '/' every backslash becomes '/'. */
KEL_API int InifileGetPathA(const char* section, const char* key, char* buf, int buflen,
                            const char* defaultValue, const char* path);
/** @} */

/** @name Typed values: storing
 * As InifileSaveValueA() with the value as text. @{ */
KEL_API int InifileSaveIntegerA(const char* section, const char* key, int value, const char* path);
/** Values above 2147483647 are written as negative numbers; InifileGetUIntegerA() reads them back
 * as they were. */
KEL_API int InifileSaveUIntegerA(const char* section, const char* key, unsigned int value,
                                 const char* path);
KEL_API int InifileSaveShortA(const char* section, const char* key, short value, const char* path);
KEL_API int InifileSaveUShortA(const char* section, const char* key, unsigned short value,
                               const char* path);
KEL_API int InifileSaveLongLongA(const char* section, const char* key, long value,
                                 const char* path);
KEL_API int InifileSaveULongLongA(const char* section, const char* key, unsigned long value,
                                  const char* path);
/** With 48 digits after the point: exact for what is above 2^-48. */
KEL_API int InifileSaveFloatA(const char* section, const char* key, float value, const char* path);
KEL_API int InifileSaveBooleanA(const char* section, const char* key, unsigned int value,
                                const char* path);
/** In the largest unit that divides it, as sizetostr(): "1MiB", "1500". */
KEL_API int InifileSaveSizeA(const char* section, const char* key, unsigned long value,
                             const char* path);
/** @} */

/** @name Reports about settings
 * Log a block of five labelled lines (BadValue, File, Section, Entry, Reason) with the code EINVAL;
 * a null text value is shown as "(none)" with the code ENOENT. `fmt` and what follows give the
 * reason, cut at 1,023 characters. `errno` is left alone. @{ */
KEL_API void InifileErrorA(const char* file, const char* section, const char* entry,
                           const char* value, const char* fmt, ...) KEL_PRINTF(5, 6);
KEL_API void InifileWarningA(const char* file, const char* section, const char* entry,
                             const char* value, const char* fmt, ...) KEL_PRINTF(5, 6);
KEL_API void InifileNoticeA(const char* file, const char* section, const char* entry,
                            const char* value, const char* fmt, ...) KEL_PRINTF(5, 6);
KEL_API void InifileValueErrorA(const char* file, const char* section, const char* entry,
                                long value, const char* fmt, ...) KEL_PRINTF(5, 6);
KEL_API void InifileValueWarningA(const char* file, const char* section, const char* entry,
                                  long value, const char* fmt, ...) KEL_PRINTF(5, 6);
KEL_API void InifileValueNoticeA(const char* file, const char* section, const char* entry,
                                 long value, const char* fmt, ...) KEL_PRINTF(5, 6);
/** @} */

/** @name Settings that name a file
 * @{ */
/** As InifileCheckPathStripA() with a `strip` of 1. */
KEL_API int InifileCheckPathA(const char* file, const char* section, const char* entry,
                              char* pathValue, unsigned int mode);
/**
 * Checks that a path setting names an existing file, and what kind of file that is; reports what
 * is wrong with InifileErrorA().
 *
 * @param file,section,entry  where the setting stands, for the report
 * @param pathValue  the setting
 * @param mode       file type and permissions as in `st_mode`; 0 in either part: anything goes
 * @param strip      not 0: a final '/' of `pathValue` is removed, except that of "/"
 * @return the number of problems
 */
KEL_API int InifileCheckPathStripA(const char* file, const char* section, const char* entry,
                                   char* pathValue, unsigned int mode, int strip);
/** The name of the file type in `mode`: "directory", "file" ... or "unknown file type". Static. */
KEL_API const char* DeviceModeToStringA(int mode);
/** The same as wide text. */
KEL_API const wchar_t* DeviceModeToStringW(int mode);
/** @} */

KEL_END_DECLS

#endif
