/**
 * @file
 * Stored passwords, and the key file that protects them.
 *
 * A service that must keep a password in its configuration keeps it as text in one of two forms:
 *
 * | Form      | Functions                                      | Protects from |
 * |-----------|------------------------------------------------|---------------|
 * | protected | EncryptPasswdWithKey(), DecryptPasswdWithKey() | who has not the key file |
 * | encoded   | PasswdEncode(), PasswdDecode()                 | a glance; it is not encryption |
 *
 * The protected form is AES-256-CTR with a random initial value for each text; nothing in it tells
 * a changed text or a wrong key, which give another password. `docs/formats/protected-password.md`
 * describes both forms, `docs/formats/key-file.md` the key file.
 *
 * Texts are terminated strings, sizes capacities in bytes with the terminator. The functions return
 * 0, or -1 with `errno` set after a report; the destination is unspecified then. Null pointers are
 * refused with EINVAL. Other errors: EINVAL for sizes and texts that are wrong, ENOBUFS for a
 * result that was cut, ENOMEM, what _getAuthKey() says, and those of the cipher.
 *
 * What held passwords, keys or the key file's text inside the library is wiped before a function
 * returns, however it ends. The caller wipes its own buffers. **Reports are no place for secrets,
 * yet three show them**: DecryptPasswdWithKey() warns with the key text when it is given a plain
 * password, a cut copy warns with the text that was cut, and a plain password that begins with X
 * stands in the error that refuses it. Whoever can read the log must be one who may read the key
 * file, or the texts must be protected first (IsEncrypted() tells).
 *
 * Threads: no state; the key file is only read, anew with each call.
 *
 * @code
 * char stored[KEL_PASSWD_TEXT_SIZE];
 * if (EncryptPasswdWithKey("/etc/kel/auth.key", password, stored, sizeof stored) != 0) return -1;
 *
 * char again[KEL_PASSWD_TEXT_SIZE];
 * if (DecryptPasswdWithKey("/etc/kel/auth.key", stored, again, sizeof again) == 0) log_in(again);
 * OPENSSL_cleanse(again, sizeof again);
 * @endcode
 */
#ifndef KEL_PASSWD_H
#define KEL_PASSWD_H

#include <kel/export.h>

#include <stdbool.h>

#ifdef __cplusplus
#include <fstream>
#include <string>

class KelKey;
#endif

/** Room for every text that EncryptPasswdWithKey() makes, and for what it decrypts to. */
#define KEL_PASSWD_TEXT_SIZE 1024
/** Bytes that RetrieveAuthKey() writes at most, terminator included. */
#define KEL_AUTH_KEY_SIZE 4095

KEL_BEGIN_DECLS

/**
 * Protects a password under the first key of a key file.
 *
 * A password that IsEncrypted() is copied as it is, which is reported under code 0 and succeeds:
 * texts may be protected again without harm. This holds for key index 0 only; a text of another
 * index is a password like any other, and protecting it again takes decrypting it twice.
 *
 * @param keyFile  its path
 * @param passwd   at most 492 bytes; may be where `dst` is
 * @param dst      receives 38 characters and two for each byte of `passwd`
 * @param dstLen   #KEL_PASSWD_TEXT_SIZE is always enough
 *
 * Errors: EINVAL for a longer password; ERANGE for a key index above 15, which the header has no
 * room for.
 */
KEL_API int EncryptPasswdWithKey(const char* keyFile, const char* passwd, char* dst,
                                 unsigned dstLen);

/**
 * Gives back a password that EncryptPasswdWithKey() protected.
 *
 * A text that does not begin with X is a plain password: it is copied as it is, with a warning
 * **that shows the key text**. A plain password that begins with X cannot be told from a damaged
 * protected one and is refused.
 *
 * @param keyFile  its path; read, and required to be valid, also for a plain password
 * @param src      the text, at most 1,023 characters; may be where `dst` is
 * @param dst      receives the password
 * @param dstLen   at least the length of the text without its header of 6 characters, though the
 *                 password is shorter
 *
 * Errors: EINVAL for a text that is too long, has another header than the key file's index gives,
 * or has a wrong length. Characters behind the header are not checked: see HexDecode().
 */
KEL_API int DecryptPasswdWithKey(const char* keyFile, const char* src, char* dst, unsigned dstLen);

/**
 * Whether `text` is a protected password of key index 0: X, five zeros, and an even number of
 * hexadecimal digits of either case, at least two. False for null. Reports nothing.
 */
KEL_API bool IsEncrypted(const char* text);

/**
 * Writes the encoded form of a password of any length.
 *
 * @param dst     must not overlap `passwd`
 * @param dstLen  at least #KEL_BASE64_SIZE(strlen(passwd)), else EINVAL
 */
KEL_API int PasswdEncode(const char* passwd, char* dst, unsigned dstLen);

/**
 * Gives back a password that PasswdEncode() encoded.
 *
 * @param dstLen  one more than Base64Decode() needs for the text; its length + 1 is always enough
 *
 * Fails without a report (EINVAL) for a character that does not belong in Base64 text.
 */
KEL_API int PasswdDecode(const char* encoded, char* dst, unsigned dstLen);

/**
 * Reads the first key of the key file at `path`; see _getAuthKey().
 *
 * @param key  receives the key text, at most #KEL_AUTH_KEY_SIZE bytes; the caller wipes it, also
 *             after a failure
 */
KEL_API int RetrieveAuthKey(char* key, const char* path);

KEL_END_DECLS

#ifdef __cplusplus

/**
 * Encrypts a password: the protected form without its header, that is the random initial value and
 * the encrypted bytes in upper-case hexadecimal digits.
 *
 * @param dst     may be where `passwd` is
 * @param dstLen  at least 2 x (strlen(passwd) + 16) + 1, else EINVAL
 */
KEL_API int PasswdEncrypt(const KelKey& key, const char* passwd, char* dst, unsigned dstLen);

/**
 * Decrypts what PasswdEncrypt() wrote.
 *
 * @param hexText  an even number of digits, at least 32, else EINVAL
 * @param dst      may be where `hexText` is
 * @param dstLen   at least strlen(hexText), else EINVAL
 */
KEL_API int PasswdDecrypt(const KelKey& key, const char* hexText, char* dst, unsigned dstLen);

/**
 * Reads one key of the key file at `path` and checks the whole file.
 *
 * A key is the whole text of its line, of which a KelKey takes the first 32 bytes. A key that does
 * not fit is cut, with a warning that shows it, and that is no failure. A key ends at its first
 * zero byte. Files above 64 MiB are refused, so that a device cannot be read for ever.
 *
 * @param index     receives the file's version number, cut to an int
 * @param key       receives the key text; like `index` it may have been written when a later step
 *                  fails, and the caller wipes it
 * @param keyLen    capacity of `key`, at least 1
 * @param position  which key, from 0
 *
 * Failures are reported as "failed to load chksum file PATH: REASON", without the reason when
 * memory ran out. Errors: those of open(2) and read(2); ENODATA for a file that ends early; EINVAL
 * for a line without the name that belongs there; ERANGE for a `position` that is not in the file,
 * and for a checksum that does not match; EFBIG.
 */
KEL_API int _getAuthKey(const char* path, int& index, char* key, unsigned long keyLen,
                        unsigned int position);

/**
 * Reads one line of the form name=number.
 *
 * @param in     read through a buffer of the stream's own: give it one that is wiped
 *               (`pubsetbuf`, before it is opened) where lines may be secret
 * @param name   what the line must begin with, directly followed by '='
 * @param value  receives the digits behind it: 0 for none, the greatest number for too many;
 *               unchanged on failure
 * @return the whole line without its newline, which is the caller's to wipe
 *
 * **Throws** std::runtime_error, reporting nothing: "file read error" when there is no line
 * (`errno` ENODATA or the reading's) and "bad line format" for another line (EINVAL).
 */
KEL_API std::string _getLineParse(std::ifstream& in, const std::string& name, unsigned long& value);

#endif
#endif
