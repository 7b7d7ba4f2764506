/**
 * @file
 * Walks through a tree of directories.
 *
 * A walk visits everything below one root, depth first: a directory (#DDS_D), then each of its
 * entries, a subdirectory's contents before the next sibling, then the directory once more
 * (#DDS_DP). Entries come in the order of the directory, or in that of a comparison. The design is
 * that of the fts(3) functions of the BSD C libraries, whose option bits and kinds it shares; on
 * top there are a pause before each `stat`, and callbacks when an entry comes and goes.
 *
 * **Working directory.** Without #DDS_NOCHDIR the walk changes into the directory whose entries it
 * returns, so that `dds_accpath` is a bare name and trees may be deeper than PATH_MAX. The working
 * directory belongs to the whole process: where other threads use relative paths, pass
 * #DDS_NOCHDIR (#DDS_LOGICAL implies it), which works at any depth too, but leaves the client with
 * full paths. A directory reached through a followed link keeps a descriptor of the directory that
 * holds the link, and the walk returns there. A walk holds up to 16 descriptors of the directories
 * that it is in, fewer when the process runs short of them. Where a tree is deeper and a directory
 * was moved elsewhere meanwhile, the walk returns by the path it came, or stops with ESTALE when
 * that does not lead back.
 *
 * **Cost.** Status comes from one `lstat` (or `stat`) for each entry, relative to its directory.
 * With #DDS_NOSTAT and #DDS_PHYSICAL only directories are examined, and entries whose type the
 * directory does not tell while its link count says that subdirectories are left; a link count
 * below 2 (overlay, btrfs) says nothing. A sorted directory costs a qsort(3). Memory is that of the
 * entries not yet passed, in the directories from the root to where the walk stands.
 *
 * **Failures.** What concerns one object never stops a walk: it is an entry of kind #DDS_NS,
 * #DDS_DNR, #DDS_ERR or #DDS_DC, with `dds_errno` and a report. A directory that cannot be read to
 * its end, memory that is out, a refusal by the client's callback, and a way back that is lost end
 * the walk: DirGetNextA() then returns null with `errno` set, from there on. In the wide form a
 * name that has no wide form in the locale is such an end too (EILSEQ); the narrow form takes any
 * name.
 *
 * Names ending in `A` take and give narrow text, those in `W` wide text. A walk and its entries
 * belong to one thread.
 *
 * @code
 * DDS *walk = DirOpenA("/srv/data", DDS_PHYSICAL | DDS_NOCHDIR, NULL, 0);
 * DDSENT *entry;
 * if (walk == NULL) return -1;
 * while ((entry = DirGetNextA(walk)) != NULL)
 *   if (entry->dds_info == DDS_F) total += entry->dds_statp->st_size;
 * failed = errno != 0;
 * DirCloseA(walk);
 * @endcode
 */
#ifndef KEL_DIR_H
#define KEL_DIR_H

#include <kel/export.h>

#include <stdbool.h>
#include <stddef.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <wchar.h>

/** @name Options of a walk
 * @{ */
#define DDS_COMFOLLOW 0x001 /**< follow the root when it is a symbolic link */
#define DDS_LOGICAL 0x002   /**< follow every symbolic link; turns on #DDS_NOCHDIR */
#define DDS_NOCHDIR 0x004   /**< leave the working directory alone; access paths are full paths */
#define DDS_NOSTAT 0x008    /**< entries carry no status; see "Cost" for #DDS_PHYSICAL with it */
#define DDS_PHYSICAL 0x010  /**< do not follow symbolic links */
#define DDS_SEEDOT 0x020    /**< return "." and ".." of each directory, as #DDS_DOT */
#define DDS_XDEV 0x040      /**< stay out of directories on another device than the root's */
#define DDS_WHITEOUT 0x080  /**< no effect */
#define DDS_NAMEONLY 0x100  /**< not for opening: DirGetChildrenA() with names only */
#define DDS_STOP 0x200      /**< not for opening: set in `dds_options` when a walk has failed */
/** @} */

/** @name Kinds of entries (`dds_info`)
 * @{ */
#define DDS_D 1       /**< directory, before its contents */
#define DDS_DC 2      /**< directory that is its own ancestor `dds_cycle`; not entered */
#define DDS_DEFAULT 3 /**< no directory, regular file or symbolic link */
#define DDS_DNR 4     /**< directory that could not be opened, the second time it is returned */
#define DDS_DOT 5     /**< "." or ".." */
#define DDS_DP 6      /**< directory, after its contents */
#define DDS_ERR 7     /**< error, after a directory's contents or when a link was to be followed */
#define DDS_F 8       /**< regular file */
#define DDS_INIT 9    /**< what `dds_cur` is before the first DirGetNextA() */
#define DDS_NS 10     /**< `stat` failed; the status is all zeros */
#define DDS_NSOK 11   /**< not examined, since nobody wanted it */
#define DDS_SL 12     /**< symbolic link */
#define DDS_SLNONE 13 /**< symbolic link that was to be followed and leads nowhere */
/** @} */

/** @name Instructions (DirSetFlagsA())
 * @{ */
#define DDS_AGAIN 1   /**< return the entry once more, examined afresh */
#define DDS_FOLLOW 2  /**< follow the symbolic link and return the entry once more */
#define DDS_NOINSTR 3 /**< go on */
#define DDS_SKIP 4    /**< stay out of this directory; pass over this entry of a child list */
/** @} */

/** @name Bits of `dds_flags`
 * @{ */
#define DDS_DONTCHDIR 1 /**< the directory could not be entered */
#define DDS_SYMFOLLOW 2 /**< `dds_symfd` is open */
/** @} */

KEL_BEGIN_DECLS

/** An object that the walk came upon. It belongs to the walk and lives until the walk has moved
 * past it: a file until the next DirGetNextA(), a directory until the one after its #DDS_DP. */
typedef struct DDSENT {
  struct DDSENT* dds_cycle;  /**< for #DDS_DC, the ancestor that it repeats */
  struct DDSENT* dds_parent; /**< the directory that holds it; the root's is of level -1 */
  struct DDSENT* dds_link;   /**< next entry of the same directory */
  long dds_number;           /**< the client's; 0 at first */
  void* dds_pointer;         /**< the client's; null at first */
  char* dds_accpath;         /**< the path from the working directory, while it is current; for
                                  entries of a directory that could not be entered, that
                                  directory's */
  char* dds_path;            /**< the path from the root on, while it is current; `dds_path` of the
                                  walk */
  int dds_errno;             /**< error of the last operation on it that failed, or 0 */
  int dds_symfd;             /**< with #DDS_SYMFOLLOW, the directory that holds the link */
  int dds_pathlen;           /**< length of `dds_path` */
  int dds_namelen;           /**< length of `dds_name` */
  ino_t dds_ino;             /**< of a directory; so are the next two */
  dev_t dds_dev;             /**< device */
  nlink_t dds_nlink;         /**< link count */
  short dds_level;           /**< 0 for the root, 1 for what it holds, ... */
  unsigned short dds_info;   /**< kind of entry, #DDS_D ... */
  unsigned short dds_flags;  /**< #DDS_DONTCHDIR, #DDS_SYMFOLLOW */
  unsigned short dds_instr;  /**< instruction for the next DirGetNextA() */
  struct stat* dds_statp;    /**< status; null with #DDS_NOSTAT, zeros when never examined */
  void* dds_userdata;        /**< the client's; null at first, may be set by the alloc callback */
  char dds_name[1];          /**< name, as long as it takes; the root's is the last component of its
                                  path, or all of it when that ends in '/' */
} DDSENT;

/** As #DDSENT, with wide text. */
typedef struct DDSENTW {
  struct DDSENTW* dds_cycle;  /**< as in #DDSENT, like all that follows */
  struct DDSENTW* dds_parent; /**< parent */
  struct DDSENTW* dds_link;   /**< next */
  long dds_number;            /**< the client's */
  void* dds_pointer;          /**< the client's */
  wchar_t* dds_accpath;       /**< path from the working directory */
  wchar_t* dds_path;          /**< path from the root on */
  int dds_errno;              /**< error */
  int dds_symfd;              /**< descriptor */
  int dds_pathlen;            /**< in characters */
  int dds_namelen;            /**< in characters */
  ino_t dds_ino;              /**< inode */
  dev_t dds_dev;              /**< device */
  nlink_t dds_nlink;          /**< link count */
  short dds_level;            /**< depth */
  unsigned short dds_info;    /**< kind */
  unsigned short dds_flags;   /**< flags */
  unsigned short dds_instr;   /**< instruction */
  struct stat* dds_statp;     /**< status */
  void* dds_userdata;         /**< the client's */
  wchar_t dds_name[1];        /**< name */
} DDSENTW;

/** The order of two entries of a directory, as for qsort(3): at most their name, level, parent,
 * kind, status and userdata are there to compare. */
typedef int (*DDSCompareFn)(const DDSENT** a, const DDSENT** b);
/** As #DDSCompareFn. */
typedef int (*DDSWCompareFn)(const DDSENTW** a, const DDSENTW** b);
/** Called for each new entry, once its name, level and parent are there. False refuses it, which
 * ends the walk (or fails its opening) with ENOMEM; this is not reported. */
typedef bool (*DDSAllocFn)(DDSENT* entry);
/** As #DDSAllocFn. */
typedef bool (*DDSWAllocFn)(DDSENTW* entry);
/** Called before an entry goes whose `dds_userdata` is not null. */
typedef void (*DDSFreeFn)(DDSENT* entry);
/** As #DDSFreeFn. */
typedef void (*DDSWFreeFn)(DDSENTW* entry);

/** A walk. To be read only, and made by DirOpenA() only: there is more behind it. */
typedef struct DDS {
  DDSENT* dds_cur;         /**< the entry last returned; null when the walk is over */
  DDSENT* dds_child;       /**< its entries, when they have been read ahead */
  DDSENT** dds_array;      /**< room for sorting */
  dev_t dds_dev;           /**< device of the root when that is a directory */
  char* dds_path;          /**< path of the current entry */
  int dds_rfd;             /**< working directory when the walk was opened; -1: #DDS_NOCHDIR */
  int dds_pathlen;         /**< capacity of `dds_path`, in characters */
  int dds_nitems;          /**< capacity of `dds_array` */
  int dds_options;         /**< #DDS_COMFOLLOW ... */
  unsigned int dds_delay;  /**< milliseconds of rest before each `stat` */
  DDSCompareFn dds_compar; /**< null for the order of the directory */
  DDSAllocFn dds_alloc;    /**< may be null */
  DDSFreeFn dds_free;      /**< may be null */
} DDS;

/** As #DDS, with wide text. */
typedef struct DDSW {
  DDSENTW* dds_cur;         /**< as in #DDS, like all that follows */
  DDSENTW* dds_child;       /**< entries read ahead */
  DDSENTW** dds_array;      /**< room for sorting */
  dev_t dds_dev;            /**< device */
  wchar_t* dds_path;        /**< path */
  int dds_rfd;              /**< descriptor */
  int dds_pathlen;          /**< capacity */
  int dds_nitems;           /**< capacity */
  int dds_options;          /**< options */
  unsigned int dds_delay;   /**< milliseconds */
  DDSWCompareFn dds_compar; /**< order */
  DDSWAllocFn dds_alloc;    /**< callback */
  DDSWFreeFn dds_free;      /**< callback */
} DDSW;

/** Other names of the narrow types. */
typedef DDS DDSA;
typedef DDSENT DDSENTA; /**< @copydoc DDSA */

/** @name Open
 * Begin a walk at `path`, with the options or-ed together. The `Ex` forms take the callbacks, and
 * the others are those without. `delay_ms` is a pause in milliseconds before every `stat`, which
 * keeps a scan of a large tree from taking the disk for itself. A root "." or ".." is an ordinary
 * directory.
 *
 * Null on failure, with `errno` set: ENOENT for a null or empty path (reported), and for one that
 * does not exist (not reported, so a dangling link as root too); what access(2) says of others
 * ("cannot access path."); EINVAL for option bits outside 0x4FF; EILSEQ for a wide path that the
 * locale cannot encode; ENOMEM. @{ */
KEL_API DDS* DirOpenA(const char* path, int options, DDSCompareFn compar, unsigned int delay_ms);
KEL_API DDSW* DirOpenW(const wchar_t* path, int options, DDSWCompareFn compar,
                       unsigned int delay_ms);
KEL_API DDS* DirOpenExA(const char* path, int options, DDSCompareFn compar, DDSAllocFn alloc,
                        DDSFreeFn free, unsigned int delay_ms);
KEL_API DDSW* DirOpenExW(const wchar_t* path, int options, DDSWCompareFn compar, DDSWAllocFn alloc,
                         DDSWFreeFn free, unsigned int delay_ms);
/** @} */

/** @name Walk
 * @{ */
/**
 * Goes on to the next entry, after carrying out the instruction on the one before.
 *
 * Entering a directory, the walk reads all of it; one that cannot be opened is returned once more,
 * as #DDS_DNR. One that cannot be changed into (no search permission) gives its entries as #DDS_NS
 * and comes back as #DDS_ERR.
 *
 * @return null at the end, with `errno` 0; else null with an error after a failure that ends the
 *         walk, and again for each further call
 */
KEL_API DDSENT* DirGetNextA(DDS* walk);
KEL_API DDSENTW* DirGetNextW(DDSW* walk);
/**
 * Reads ahead: lists what the current directory (#DDS_D) holds, linked by `dds_link`. The list
 * belongs to the walk, which will return these entries next; DirSetFlagsA() on them tells how. On
 * the first of the list an instruction takes effect after it was returned.
 *
 * Before the first DirGetNextA() the list is the root alone.
 *
 * @param instr  0, or #DDS_NAMEONLY: nothing is examined, and the walk will read the directory once
 *               more
 * @return null with `errno` 0 when the directory is empty or the current entry is none; else null
 *         with an error: EINVAL for another `instr`, a directory that cannot be read
 */
KEL_API DDSENT* DirGetChildrenA(DDS* walk, int instr);
KEL_API DDSENTW* DirGetChildrenW(DDSW* walk, int instr);
/**
 * Gives the walk an instruction about an entry, 0 or #DDS_AGAIN to #DDS_SKIP: the current one, or
 * one of DirGetChildrenA(). #DDS_FOLLOW needs a link that was examined, not #DDS_NSOK.
 *
 * @return 1; 0 with EINVAL (reported) for any other `instr` or a null entry
 */
KEL_API int DirSetFlagsA(DDSENT* entry, int instr);
KEL_API int DirSetFlagsW(DDSENTW* entry, int instr);
/**
 * Ends a walk at any time and releases all that belongs to it, with a call of the free callback for
 * each entry left. The working directory is again that of the opening.
 *
 * @return 0, also for null (reported with EINVAL); -1 when the working directory could not be
 *         restored (reported; everything is released nevertheless)
 */
KEL_API int DirCloseA(DDS* walk);
KEL_API int DirCloseW(DDSW* walk);
/** @} */

/** @name Errors of an entry
 * @{ */
/** `dds_errno`; EINVAL for null. */
KEL_API int DirGetErrnoA(const DDSENT* entry);
KEL_API int DirGetErrnoW(const DDSENTW* entry);
/** strerror(3) of that. */
KEL_API const char* DirGetStrerrorA(const DDSENT* entry);
KEL_API const char* DirGetStrerrorW(const DDSENTW* entry);
/** @} */

/** @name Modes as text
 * The type ('d', 'c', 'b', '-', 'l', 's', 'p', or '?'), the permissions of owner, group and others
 * ("rwxr-sr-T"), as ls(1) shows them, and a blank: "drwxr-xr-x ". In a static buffer: for one
 * caller at a time. @{ */
KEL_API const char* GetModeStringA(unsigned int st_mode);
KEL_API const wchar_t* GetModeStringW(unsigned int st_mode);
/** @} */

/** @name Content indexing, which this platform does not have
 * The argument is ignored. @{ */
/** 0. */
KEL_API int CheckDirContentIndexingA(const void* path);
KEL_API int CheckDirContentIndexingW(const void* path);
/** 1. */
KEL_API int DisableDirContentIndexingA(const void* path);
KEL_API int DisableDirContentIndexingW(const void* path);
/** @} */

KEL_END_DECLS

#endif
