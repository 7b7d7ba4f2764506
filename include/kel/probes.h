/**
 * @file
 * Questions about the product's plug-in: its modes and features, the strings it exchanges, and the
 * names that configuration files use.
 *
 * The plug-in keeps its settings in one fixed directory, "/etc/ZORNagent/":
 *
 *     tq.conf                          fips.conf
 *       DISABLE_BACKLEVEL_TLS=1          [Main]
 *       TQDO_SSL_VERIFY=1                FIPS=1
 *       1234=0
 *
 * The keys of tq.conf stand at its top, before any section header. Both are INI files of
 * kel/inifile.h and stay loaded like those: a feature that was switched on disk is seen once
 * InifileReleaseA() or InifileReleaseAll() has let go of the file, and a key that was asked for in
 * vain is kept in memory with its default. Nothing here saves them.
 *
 * Buffers are the caller's and are terminated whenever they have room for anything, also after a
 * failure. Copies are those of kelstrcpy(): a text that does not fit is cut, which is reported.
 *
 * Threads: everything may be called from any thread.
 *
 * @code
 * char host[256];
 * if (getHostFromUrl("https://cloud1:8443/api", host, sizeof host) == NULL) return -1;
 * if (IsPELKFeatureEnabled_c(1234)) connect_to(host, supportLatestTLS());
 * @endcode
 */
#ifndef KEL_PROBES_H
#define KEL_PROBES_H

#include <kel/export.h>

#include <stddef.h>

KEL_BEGIN_DECLS

/** @name Directories
 * @{ */
/** Copies the plug-in's configuration directory, with its final '/', to `buf` (`len` bytes);
 * returns `buf`, also when the text was cut, or null for null (EINVAL, not reported). */
KEL_API char* getPluginPath(char* buf, int len);
/** Has no effect, and is kept for programs that call it: the directory is fixed. */
KEL_API void setPluginPath(const char* path);
/** Copies the cache directory, with its final '/', to `buf` (`len` bytes); always 1. */
KEL_API int GetCacheDir(char* buf, size_t len);
/** @} */

/** @name Modes
 * Each is read from its file by the first call in the process and answered from memory from then
 * on, whatever happens to the file or to the loaded files; a call that comes while the first one
 * reads waits for it. Only a redirector that asks for the very mode whose reading is being reported
 * gets 0.
 *
 * The value is the number that the setting's text starts with, 0 when it starts with none or is
 * missing, and the limit of `int` beyond that. A missing fips.conf is normal; a missing tq.conf is
 * reported as a file that could not be opened, unless it is loaded already. @{ */
/** FIPS in the section Main of fips.conf: whether cryptography is limited to approved methods. */
KEL_API int getFIPSMode(void);
/** DISABLE_BACKLEVEL_TLS in tq.conf: whether old versions of TLS are refused. */
KEL_API int supportLatestTLS(void);
/** TQDO_SSL_VERIFY in tq.conf: whether the peer's certificate is verified. */
KEL_API int supportTQDOSSLVerify(void);
/** @} */

/**
 * Whether a feature is switched on: 0 never, 1 always, any other as
 * FeatureToggle::IsFeatureEnabledByID() says.
 *
 * @return 1 or 0
 */
KEL_API int IsPELKFeatureEnabled_c(int id);

/**
 * Finds the value of a key in a run of "key=value" pairs.
 *
 * The first place where the key is followed by '=' counts, also at the end of a longer key: "b" is
 * found in "a=1;bb=22" with the value "22". Of the key and its '=', the first 254 characters are
 * looked for. An empty value is a value.
 *
 * @param text    the pairs
 * @param key     without '='
 * @param out     receives the value; cut after a failure
 * @param outLen  capacity of `out` in bytes, terminator included
 * @param delim   the character that ends a value; the last one ends with the text
 * @return 0; 9 for null arguments, an `outLen` of 0 (an error is reported) or a missing key (a
 *         warning); 14 when the value does not fit (an error). `errno` stays.
 */
KEL_API int spaGetParamString(const char* text, const char* key, char* out, unsigned int outLen,
                              char delim);
/**
 * Finds the word that follows a key: "value" behind "name" and ":" in "name:  value rest".
 *
 * Spaces and tabs before the word are passed over; it ends at a space, a tab, a newline or the end
 * of the text. Reports nothing.
 *
 * @param text       where the first occurrence of `key` counts, also within a longer word
 * @param key        what stands before the value
 * @param separator  what has to follow anywhere behind the key before the value; null: nothing
 * @param out        receives the word, silently cut to its capacity; empty when text, key,
 *                   separator or word are missing
 * @param outLen     capacity of `out` in bytes, terminator included; 0: nothing is done
 */
KEL_API void parseValueByKey(const char* text, const char* key, const char* separator, char* out,
                             size_t outLen);
/**
 * Splits the path of a backup image, "/ROOT/CLIENT/POLICY/IMAGE", at its slashes. The name of the
 * image is all the rest, further slashes included, up to the first '*'.
 *
 * The three buffers hold 255 bytes each. A part that is missing leaves the empty text and is
 * reported (EINVAL) as a null source of kelstrcpy(), one of more than 254 characters is cut with a
 * warning (ENOBUFS), as is a path of more than 4,094.
 *
 * @param path        two slashes in a row have an empty part between them
 * @param fromClient  not 0: the path is "CLIENT/POLICY/IMAGE"
 * @param client      receives the client
 * @param policy      receives the policy
 * @param imagename   receives the name of the image
 * @return `imagename`, or null when the image is missing or its name was cut
 */
KEL_API char* extract_client_policy_imagename(const char* path, int fromClient, char* client,
                                              char* policy, char* imagename);
/**
 * Copies the host of an "https://" URL (in either case): what stands before the next '/', with the
 * port and the user when there are any.
 *
 * @param url     the URL
 * @param out     receives the host
 * @param outLen  capacity of `out` in bytes, terminator included
 * @return `out`; null with EINVAL, not reported, for null, another scheme, or no '/' behind the
 *         host; null with ENOBUFS, reported as by kelstrncpy(), when the host does not fit
 */
KEL_API char* getHostFromUrl(const char* url, char* out, int outLen);

/** @name Vocabulary
 * The names in the product's configuration files, each followed by its terminator; two more
 * terminators end a table. TCPKeepAlive and MaxFileSize are there twice. @{ */
/** The 42 section names, from CA to AgingCheck. */
extern KEL_API const char _kel_config_section_string_table_[408];
/** The 456 entry names, from Active to KEKRenewSchedule. */
extern KEL_API const char _kel_config_entry_string_table_[7940];
/** @} */

KEL_END_DECLS

#ifdef __cplusplus
/**
 * Features by their number in tq.conf: "1234=1" switches the features 1234 and -1234 on, "1234=0"
 * switches them off. Without a line, a feature of a positive number is on and one of a negative
 * number off. Looked up with each call.
 */
class KEL_API FeatureToggle {
 public:
  FeatureToggle() = delete;

  /**
   * Reads the number that a key of tq.conf holds, whole; beyond the limits of `int` it is the
   * limit.
   *
   * @param key    a feature's number in decimal
   * @param value  receives the number
   * @return 0; -1 with `value` unchanged when there is no readable file, no such key or no number
   *         (not reported), or for null (EINVAL, reported)
   */
  static int GetFeatureToggleValue(char* key, int* value);
  /// Whether the feature `*id` is on: its value is 1, or it has none and `*id` is 0 or more. False
  /// for null (EINVAL, reported).
  static bool IsFeatureEnabledByID(int* id);
};
#endif

#endif
