/**
 * @file
 * Command-line options from a table, with a configuration file behind them.
 *
 * A tool describes its options once, as a null-terminated array of pointers to ::opt_t. opt_parse()
 * fills the tool's variables from three sources, each overruling the one before:
 *
 * 1. the default in the table,
 * 2. a value in the configuration file: an INI file (kel/inifile.h) that an option of type
 *    #OPT_INIFILE names, by the table's default or on the command line,
 * 3. the command line.
 *
 * The same table checks itself (opt_validate()) and prints the help (opt_fprintf_help()).
 *
 * On the command line options come before operands; the first operand, or "--", ends them. A value
 * stands in the same argument (--name=VALUE, -nVALUE) or in the next one (--name VALUE, -n VALUE),
 * which must not begin with '-': a value that does is attached. Short flags are not grouped, long
 * names not abbreviated, and "-" alone is no operand. When an option is given twice the last
 * counts.
 *
 * Failures are reported, mostly without a code, leave `errno` (EINVAL unless said otherwise) and
 * return -1; what was stored before stays stored. A table is used by one thread at a time.
 *
 * @code
 * static bool verbose;
 * static uint32_t count;
 * static char *config;
 * static opt_t verbose_option = {NULL, 'v', "verbose", OPT_SET, NULL, NULL, NULL, NULL, 0,
 * &verbose, "Tell more."}; static opt_t count_option = {NULL, 'n', "count", OPT_NUMBER32, NULL,
 * "10", "Tool", "Count", 0, &count, "How often."}; static opt_t config_option = {NULL, 0, "config",
 * OPT_INIFILE, "FILE", "/etc/tool.conf", NULL, NULL, 0, &config, NULL}; static opt_t *options[] =
 * {&verbose_option, &count_option, &config_option, NULL};
 *
 * int first = opt_parse(options, argc, argv);  // tool --count=5 -v file: 3
 * if (first < 0) {
 *   opt_fprintf_help(stderr, argv[0], argc, argv, options, "FILE...");
 *   return 1;
 * }
 * ...
 * opt_free(options);
 * @endcode
 */
#ifndef KEL_OPTIONS_H
#define KEL_OPTIONS_H

#include <kel/export.h>

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

/** @name Types of options
 * What is stored, and what text is taken. Numbers and sizes begin with a digit, have nothing behind
 * them and fit their width. Strings belong to the parser until opt_free().
 * @{ */
#define OPT_CLEAR 1  /**< a flag: `bool`, true until the option is given */
#define OPT_SET 2    /**< a flag: `bool`, false until the option is given */
#define OPT_STRING 4 /**< `char *`, any text */
#define OPT_STRING_UTF8                                                                            \
  5                     /**< `char *`, any text, from the locale's code set to UTF-8; a default of \
                             the table is stored as it is, without a copy */
#define OPT_PATH 6      /**< `char *`, any text */
#define OPT_INIFILE 7   /**< `char *`, the path of the configuration file; empty: none */
#define OPT_NUMBER64 8  /**< `uint64_t`, decimal digits */
#define OPT_NUMBER32 9  /**< `uint32_t` */
#define OPT_NUMBER16 10 /**< `uint16_t` */
#define OPT_SIZE64 11   /**< `uint64_t`, a size such as "64KiB" (see strtosize()) */
#define OPT_SIZE32 12   /**< `uint32_t` */
#define OPT_SIZE16 13   /**< `uint16_t` */
#define OPT_BOOLEAN 14  /**< `bool`: yes, y, 1, true, t, no, n, 0, false or f in any case */
#define OPT_TEXT 15     /**< as #OPT_STRING; the help shows its default without quotes */
/** @} */

/** @name Bits of opt_t::flags
 * Bits 61 to 63 belong to the parser: the configuration file was read by way of this option, its
 * string is the parser's, a value was stored. They are 0 at first.
 * @{ */
#define OPT_MANDATORY UINT64_C(1)    /**< some source must give it a value */
#define OPT_STOP UINT64_C(2)         /**< parsing ends behind this option */
#define OPT_HIDE_DEFAULT UINT64_C(4) /**< the help shows "(hidden)" instead of the default */
/** @} */

/** One option. Texts must outlive the table; only `flags` and `*value` are written. */
typedef struct opt_t {
  const char* group;         /**< title that the help lists the option under; may be null */
  char short_name;           /**< given as -c; 0: none */
  const char* long_name;     /**< given as --name; null: none */
  int type;                  /**< OPT_CLEAR to OPT_TEXT */
  const char* metavar;       /**< word for the value; null: the type's (#opt_type_metavars) */
  const char* default_value; /**< text of the default; null: none; not for flags */
  const char* ini_section;   /**< where the configuration file may hold a value; not for flags */
  const char* ini_key;       /**< its key; null exactly when `ini_section` is */
  uint64_t flags;            /**< OPT_ bits */
  void* value;      /**< where the value goes, of the type's C type; strings do not share one */
  const char* help; /**< may be null */
} opt_t;

KEL_BEGIN_DECLS

/** The words for values by type: "STRING", "PATHNAME", "NUMBER", "SIZE", "BOOLEAN"; null for types
 * without a value and for numbers that are no type. */
extern KEL_API const char* const opt_type_metavars[17];

/** @name A whole command line
 * @{ */
/**
 * Fills the options' variables from defaults, configuration file and command line.
 *
 * The configuration file is that of the last #OPT_INIFILE option that the command line has before
 * parsing ends, else of the first one in the table, if it has a default. It is loaded when an
 * option looks for its value there, and stays loaded until opt_free(). An empty value in it counts
 * as none; one of 4 KiB or more is refused (ENOBUFS).
 *
 * #OPT_MANDATORY is checked only when the options go on to the end of the command line: a tool that
 * wants operands, or has an #OPT_STOP option, looks at its variables itself.
 *
 * @param options  a table that was never parsed, or released by opt_free() since
 * @param argv     argv[0] is not looked at
 * @return the index of the first argument that is no option: an operand, what follows "--" or an
 *         #OPT_STOP option, or `argc`; -1 on failure
 */
KEL_API int opt_parse(opt_t** options, int argc, char** argv);
/**
 * Prints how the tool is used: a usage line, then each option with its default and its help, in the
 * order of the table. Defaults are those that the configuration file gives, which is found as
 * opt_parse() finds it.
 *
 * Option lines are indented by 8 and have at most 72 characters of UTF-8 besides, help lines 16 and
 * 64. Blanks become single spaces, a newline in the text breaks the line.
 *
 * @param argc,argv     the command line, for the configuration file; 0 and null: none
 * @param operandsText  ends the usage line; may be null
 * @return 0; -1 also when writing fails, with the errno of that. `stream` is flushed.
 */
KEL_API int opt_fprintf_help(FILE* stream, const char* programName, int argc, char** argv,
                             opt_t** options, const char* operandsText);
/** Releases the strings and the configuration file of the table, which can be parsed again then.
 * Pointers to freed strings become null; null is ignored. */
KEL_API void opt_free(opt_t** options);
/** @} */

/** @name Parts of it
 * @{ */
/**
 * Checks a table and reports the first thing that is wrong with it: an option without a name, with
 * an impossible one or one that a later option has too, without a place for its value, of no type,
 * with a default that does not fit the type, or with one of `ini_section` and `ini_key` alone.
 *
 * @return 0 or -1
 */
KEL_API int opt_validate(opt_t** options);
/**
 * Recognises one argument; stores nothing.
 *
 * @param argc    number of arguments left, this one included
 * @param argv    argv[0] is the argument
 * @param option  receives the option
 * @param text    receives its value text, part of an argument; null for a flag
 * @return how many arguments it takes, 1 or 2; -2 for an operand; -3 for "--"; 0, reported, for an
 *         option that is not in the table; -1 for a value that is missing or not wanted, or a null
 *         parameter. `*option` and `*text` are set in the first case only.
 */
KEL_API int opt_identify(opt_t** options, int argc, char** argv, opt_t** option, const char** text);
/**
 * Converts and stores one value.
 *
 * @param text   null for a flag, which gets the value that marks it as given; else not null
 * @param value  where to store it, as a rule `option->value`: an earlier string of the parser there
 *               is freed. A string that is stored elsewhere belongs to the caller (free(3)), except
 *               the table's default of type #OPT_STRING_UTF8. Null: only check.
 * @return 0; -1 when the text does not fit the type (EINVAL, or ERANGE), or with ENOMEM; nothing is
 *         changed then
 */
KEL_API int opt_parse_value(opt_t* option, const char* text, void* value);
/**
 * The text that an option gets when the command line does not have it.
 *
 * @param iniOption  the configuration file option; one without a path, or null: there is no file
 * @param buf        receives a value from the file, cut (and reported) when it has `len` bytes or
 *                   more; else emptied
 * @return `buf`, or the option's own default, which may be null; null also for a null `option` or
 *         `buf`, or a `len` of 0
 */
KEL_API const char* opt_get_default_value(const opt_t* option, const opt_t* iniOption, char* buf,
                                          size_t len);
/**
 * Writes an option's names and its value's word as messages and help show them: "-n,
 * --count=NUMBER",
 * "--count=NUMBER", "-n NUMBER", "-v, --verbose".
 *
 * @param len  capacity of `buf`; 1024 are enough for every option that opt_validate() accepts
 * @return the length; -1 with ENOBUFS when it does not fit, or with EINVAL and an empty `buf` when
 *         the option has no name
 */
KEL_API int opt_snprintf(char* buf, size_t len, const opt_t* option);
/** @} */

KEL_END_DECLS

#endif
