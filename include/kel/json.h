/**
 * @file
 * A JSON value (RFC 8259) with shared ownership and access to members that never fails loudly.
 *
 * JsonObject holds a `json_t*` of the jansson library. It either owns a reference, which it
 * releases when it lets go of the value, or borrows the value from somebody who does. Copies share
 * the value: a change through one is seen through all. `json_t` is declared here only by its name,
 * so that the header needs none of jansson's; who makes or takes values apart includes that.
 *
 * Absent and mistyped members read as empty or zero, and a load that fails leaves an empty object.
 * Where there is not even memory for an empty object, the handle is null. Everything takes a null
 * handle for a value without members, elements and text.
 *
 * What is read: an object or array in UTF-8 with nothing but white space around it. Refused are
 * other values at the top, the escape \u0000, integers beyond 64 bits, numbers beyond a double, and
 * more than 2,048 levels of nesting. Of members with the same key the last one counts. (jansson
 * 2.14 drops a character of a long string, unnoticed, when memory gives out just while it reads.)
 *
 * Threads: an object, and the values that can be reached from it, are used by one thread at a time.
 * References are counted atomically: copies may be destroyed in different threads.
 *
 * @code
 * JsonObject config;
 * if (!config.LoadFromFile("/etc/svc/service.json")) return -1;
 * long port;
 * if (config.GetInt64("port", port) != 0) port = 8080;
 * JsonObject peers(config.GetObject("peers"), false);      // borrowed: config keeps it
 * for (size_t i = 0; i < peers.ArraySize(); ++i)
 *   connect(JsonObject(peers.ArrayGet(i), false).GetString("host"));
 * @endcode
 */
#ifndef KEL_JSON_H
#define KEL_JSON_H

#include <kel/export.h>

#ifdef __cplusplus

#include <stddef.h>

#include <string>

struct json_t;

/** A JSON value, owned or borrowed. */
class KEL_API JsonObject {
 public:
  /** @name Ownership
   * @{ */
  /// Init(value, owned); without arguments an empty object.
  explicit JsonObject(json_t* value = nullptr, bool owned = true);
  /// Shares the value: with a reference of its own when `other` owns one, else borrowed as well.
  JsonObject(const JsonObject& other);
  /// Releases the current value and shares that of `other`, unless that is this object.
  JsonObject& operator=(const JsonObject& other);
  /// Free().
  ~JsonObject();
  /**
   * Releases the current value and holds another one.
   *
   * @param value  null: a new empty object, owned. A part of the current value needs a reference
   *               of its own, as it would go with it. The current value itself stays, and only
   *               `owned` changes.
   * @param owned  true: takes over a reference of the caller's; false: borrows, and the caller sees
   *               to it that the value outlives this object and its copies
   */
  void Init(json_t* value, bool owned);
  /// Releases the value when it is owned; the handle becomes null.
  void Free();
  /// Gives the value to the caller, with the reference if one was owned; the handle becomes null.
  json_t* Release();
  /// The value, borrowed.
  json_t* GetHandle();
  /** @} */

  /** @name Text and files
   * Flags are jansson's: 0 for one line with spaces, JSON_INDENT(2), JSON_COMPACT,
   * JSON_SORT_KEYS ... Members keep the order in which they were set. @{ */
  /// Replaces the value by that of a text; false, with a report, leaves an empty object.
  bool LoadFromString(const char* text);
  /// As above for a file, without a report.
  bool LoadFromFile(const std::string& path);
  /// The value as text; empty when it is no object or array (unless the flags have
  /// JSON_ENCODE_ANY), or without memory, which is reported.
  std::string DumpToString(size_t flags);
  /// Writes the text to a file, over what was in it. False also when only the last flush failed;
  /// the file is then cut short. Where that matters, write another one and rename_dirfsync() it.
  bool DumpToFile(const std::string& path, size_t flags);
  /** @} */

  /** @name Members and elements
   * Keys are UTF-8. Of any value that is no object, no member exists. @{ */
  /// The text of a member that is a string, its NUL characters included; else empty. Empty too, and
  /// reported, without memory.
  std::string GetString(const std::string& key) const;
  /// 0 and the value in `out` when the member is an integer (a number without fraction and
  /// exponent); else -1, with `out` as it was.
  int GetInt64(const std::string& key, long& out) const;
  /// The value of a member that is an integer, else 0.
  long GetInt64(const std::string& key) const;
  /// The member, of any type, borrowed; null when there is none.
  json_t* GetObject(const std::string& key);
  /// Sets a member. The caller's reference to `value` is taken over in any case. False for a null
  /// `value`, a key with a NUL character or not in UTF-8, or without memory.
  bool SetNew(const std::string& key, json_t* value);
  /// The number of elements; 0 when this is no array.
  size_t ArraySize() const;
  /// An element, borrowed; null when there is none.
  json_t* ArrayGet(size_t index);
  /** @} */

 private:
  json_t* handle_ = nullptr;
  bool owned_ = false;
};

#endif
#endif
