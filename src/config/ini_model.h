// One INI file in memory: sections and entries in file order, with an index beside the lists.
//
// The texts of what was loaded are views into the file's own buffer; what callers write is copied.
// Nothing here locks, and only the parser reports: operations that allocate say false or null, with
// errno ENOMEM and the model as it was.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "config/hash_index.h"
#include "config/node_pool.h"
#include "internal/handles.h"

namespace kel::config {

/// Bytes that are borrowed or owned.
class Text {
 public:
  constexpr Text() noexcept = default;
  /// Borrows what outlives this text.
  explicit constexpr Text(std::string_view lent, bool may_hold_nul = false) noexcept
      : data_(lent.data()), bits_(lent.size() << kSizeShift | (may_hold_nul ? kNul : 0)) {}
  Text(Text&& other) noexcept : data_(other.data_), bits_(std::exchange(other.bits_, 0)) {}
  Text& operator=(Text&& other) noexcept {
    std::swap(data_, other.data_);
    std::swap(bits_, other.bits_);
    return *this;
  }
  ~Text() {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): a text that was moved from owns nothing
    if ((bits_ & kOwned) != 0) std::free(const_cast<char*>(data_));
  }

  /// Becomes a copy of `head` followed by `tail`.
  bool copy(std::string_view head, std::string_view tail = {}, bool may_hold_nul = false) noexcept;
  /// Borrows from the same member of an older definition: visible to callers, but not written
  /// again.
  void inherit(const Text& older) noexcept {
    *this = Text(older.bytes());
    bits_ |= kInherited | (older.bits_ & kNul);
  }

  std::size_t size() const noexcept { return bits_ >> kSizeShift; }
  bool empty() const noexcept { return size() == 0; }
  bool inherited() const noexcept { return (bits_ & kInherited) != 0; }
  // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the analyzer loses which text owns the bytes
  std::string_view bytes() const noexcept { return {data_, size()}; }
  /// What callers see: a C string ends at its first NUL. Only saving writes the bytes behind it.
  std::string_view visible() const noexcept {
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the analyzer loses which text owns the bytes
    return {data_, (bits_ & kNul) == 0 ? size() : ::strnlen(data_, size())};
  }

 private:
  static constexpr std::size_t kOwned = 1, kInherited = 2, kNul = 4;
  static constexpr int kSizeShift = 3;

  const char* data_ = nullptr;
  std::size_t bits_ = 0;  ///< the size and three flags
};

struct Section;

/// One definition of a key. The latest one stands in its section's list and in the index; the
/// earlier ones hang off it, latest first. Files have many: every byte here counts.
struct Entry {
  Entry* next = nullptr;      ///< of an earlier definition: the one after it
  Entry* previous = nullptr;  ///< in the section's list
  Entry* older = nullptr;     ///< the definition before this one
  Section* section = nullptr;
  Text key;
  Text value;    ///< empty: none
  Text comment;  ///< empty or ending in a newline
};
static_assert(sizeof(Entry) == 80);

/// The comment of a section header before the section was opened again with another one.
struct Remark {
  Remark* next = nullptr;
  Text text;
};

struct Section {
  Section* next = nullptr;
  Section* previous = nullptr;
  Entry* first = nullptr;
  Entry* last = nullptr;
  Text name;
  Text comment;
  Remark* first_remark = nullptr;  ///< in file order
  Remark* last_remark = nullptr;
};

/// The section of what stands before the first header; the first of every file, and never removed.
inline constexpr std::string_view kTopSection = "__dummy__section__";

class IniFile {
 public:
  /// A file without entries; null with errno ENOMEM.
  static std::unique_ptr<IniFile> create(std::string_view path) noexcept;
  IniFile(const IniFile&) = delete;
  IniFile& operator=(const IniFile&) = delete;
  ~IniFile();

  const char* path() const noexcept { return path_.get(); }
  Section* sections() const noexcept { return first_; }
  Section* find_section(std::string_view name) const noexcept;
  Entry* find_entry(const Section& section, std::string_view key) const noexcept;

  /// Reads `text` into this fresh file and keeps it. Reports syntax errors, which skip a line.
  bool parse(internal::MallocPtr<char> text, std::size_t size);
  /// A section header: opens the section of that name again, or appends one.
  Section* open_section(Text name, Text comment) noexcept;
  /// An entry line: appends an entry, or a newer definition in the place of the latest.
  bool define(Section& section, Text key, Text value, Text comment) noexcept;

  Section* add_section(std::string_view name) noexcept;
  /// Appends an entry without a value.
  Entry* add_entry(Section& section, std::string_view key) noexcept;
  /// Sets the only value of `key`; earlier definitions are dropped.
  bool set_value(Section& section, std::string_view key, std::string_view value) noexcept;
  /// Removes the latest definition; the one before it, if any, takes its place.
  void remove(Entry& latest) noexcept;
  /// Removes a section; the top section is emptied.
  void remove(Section& section) noexcept;

  /// Writes the whole text; errors are left in the stream.
  void write(FILE* out) const;

  Text header;    ///< written before everything else
  Text trailing;  ///< written last
  bool modified = false;

  IniFile* next = nullptr;  ///< the cache's list
  IniFile* previous = nullptr;
  std::uint64_t serial = 0;  ///< ascending in that list

 private:
  IniFile() noexcept = default;

  std::uint64_t hash_of(const Section& section, std::string_view key) const noexcept;
  void append(Section& section) noexcept;
  void append(Section& section, Entry& entry) noexcept;
  void drop_older(Entry& latest) noexcept;
  void drop_entries(Section& section) noexcept;

  internal::MallocPtr<char> path_;
  internal::MallocPtr<char> text_;  ///< what was loaded
  Section* first_ = nullptr;
  Section* last_ = nullptr;
  HashIndex<Section> section_index_;
  HashIndex<Entry> entry_index_;  ///< of all sections
  NodePool<Section> section_pool_;
  NodePool<Entry> entry_pool_;
  NodePool<Remark> remark_pool_;
};

}  // namespace kel::config
