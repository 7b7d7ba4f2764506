// Values and comments of the loaded files, by path, section and key.
#include <kel/inifile.h>
#include <kel/logging.h>
#include <kel/strings.h>

#include <algorithm>
#include <climits>

#include "config/ini_cache.h"
#include "internal/report.h"

using namespace kel::internal;
using namespace kel::config;

namespace {

constexpr char kSaveValue[] = "inifileSaveValue";

int as_int(size_t size) noexcept { return static_cast<int>(std::min<size_t>(size, INT_MAX)); }

/// Copies a text to the caller and ends the hold. What does not fit is cut, and reported, by
/// kelstrcpy().
void hand_out(Hold& file, char* buf, size_t room, std::string_view text) {
  if (text.size() < room) {
    std::memcpy(buf, text.data(), text.size());
    buf[text.size()] = '\0';
    file.end();
    return;
  }
  Text whole;
  const bool copied = whole.copy(text, std::string_view("\0", 1));
  std::memcpy(buf, text.data(), room - 1);
  buf[room - 1] = '\0';
  file.end();
  if (copied)
    kelstrcpy(buf, whole.bytes().data(), room);
  else
    fail_allocation(0, text.size() + 1, "inifileGetNthValue");
}

/// Packs the names of a list into `buf`, each with its terminator; returns the size of all of them.
template <class Node>
int pack_names(const Node* first, Text Node::*name, char* buf, size_t room) noexcept {
  size_t total = 0;
  for (const Node* node = first; node != nullptr; node = node->next) {
    const std::string_view text = (node->*name).visible();
    if (total + text.size() < room) {
      std::memcpy(buf + total, text.data(), text.size());
      buf[total + text.size()] = '\0';
    }
    total += text.size() + 1;
  }
  if (total > room) buf[0] = '\0';
  return as_int(total);
}

enum class Storing { kChange, kDefault };

/// A default that is stored does not mark the file as modified unless its section is new.
bool store(IniFile& file, const char* section_name, const char* key, const char* value,
           Storing storing) noexcept {
  Section* section = file.find_section(section_name);
  if (section == nullptr) {
    section = file.add_section(section_name);
    if (section == nullptr) return false;
    file.modified = true;
  }
  if (names_nothing(key)) return true;
  if (!file.set_value(*section, key, value == nullptr ? "" : value)) return false;
  if (storing == Storing::kChange) file.modified = true;
  return true;
}

template <class Result>
Result fail_to_store(Result failure, const char* value) {
  return fail_allocation(failure, value == nullptr ? sizeof(Entry) : std::strlen(value),
                         kSaveValue);
}

/// There was no value: hands out the default and keeps it in memory. Ends the hold.
int use_default(Hold& file, const char* section, const char* key, char* buf, size_t room,
                const char* text, const char* path) {
  const bool refused = names_nothing(section) || path == nullptr;
  const bool stored = refused || !file || store(*file, section, key, text, Storing::kDefault);
  file.end();
  if (refused) fail(0, EINVAL, "%s: invalid NULL parameter", kSaveValue);
  if (!stored) fail_to_store(0, text);
  if (text == nullptr) return 0;
  kelstrcpy(buf, text, room);
  return -as_int(std::min(std::strlen(text) + 1, room - 1));
}

Section* find_section(const Hold& file, const char* name) noexcept {
  return file && name != nullptr ? file->find_section(name) : nullptr;
}

Entry* find_entry(const Hold& file, const Section* section, const char* key) noexcept {
  return section != nullptr && key != nullptr ? file->find_entry(*section, key) : nullptr;
}

bool set_comment(Text& comment, const char* text) noexcept {
  const std::string_view bytes = text == nullptr ? "" : text;
  return comment.copy(bytes, bytes.empty() || bytes.ends_with('\n') ? "" : "\n");
}

/// The comment that `section` and `key` name, made when it is not there; null with errno ENOMEM.
Text* comment_to_set(IniFile& file, const char* section_name, const char* key) noexcept {
  if (names_nothing(section_name)) return &file.header;
  Section* section = file.find_section(section_name);
  if (section == nullptr) section = file.add_section(section_name);
  if (section == nullptr) return nullptr;
  if (names_nothing(key)) return &section->comment;
  Entry* entry = file.find_entry(*section, key);
  if (entry == nullptr) entry = file.add_entry(*section, key);
  return entry == nullptr ? nullptr : &entry->comment;
}

}  // namespace

int InifileGetValueA(const char* section, const char* key, char* buf, int buflen,
                     const char* defaultValue, const char* path) {
  return InifileGetNthValueA(0, section, key, buf, buflen, defaultValue, path);
}

int InifileGetNthValueA(int n, const char* section, const char* key, char* buf, int buflen,
                        const char* defaultValue, const char* path) {
  if (buf == nullptr || buflen < 1)
    return fail(0, EINVAL, "%s: invalid NULL parameter or buflen", "inifileGetNthValue");
  const auto room = static_cast<size_t>(buflen);
  std::memset(buf, 0, room);

  Hold file(path, Hold::Missing::kLoad);
  if (file && section == nullptr) return pack_names(file->sections(), &Section::name, buf, room);
  const Section* const found = find_section(file, section);
  if (found != nullptr && key == nullptr) return pack_names(found->first, &Entry::key, buf, room);

  if (const Entry* entry = find_entry(file, found, key)) {
    for (int i = 0; i < n && entry != nullptr; ++i) entry = entry->older;
    const std::string_view value = entry == nullptr ? "" : entry->value.visible();
    if (!value.empty()) {
      hand_out(file, buf, room, value);
      return as_int(value.size() + 1);
    }
    if (n > 0) return fail_quietly(-1, ENOENT);
  }
  return use_default(file, section, key, buf, room, defaultValue, path);
}

int InifileSaveValueA(const char* section, const char* key, const char* value, const char* path) {
  if (names_nothing(section) || path == nullptr)
    return fail(-1, EINVAL, "%s: invalid NULL parameter", kSaveValue);
  Hold file(path, Hold::Missing::kLoad);
  if (!file) return -1;
  const bool stored = store(*file, section, key, value, Storing::kChange);
  file.end();
  return stored ? 1 : fail_to_store(-1, value);
}

int InifileDeleteValueA(const char* section, const char* key, const char* path) {
  if (names_nothing(section) && names_nothing(key))
    return fail(-1, EINVAL, "%s: invalid NULL or empty parameter", __func__);
  Hold file(path, Hold::Missing::kLoad);
  Section* const found = find_section(file, section);
  if (found == nullptr) {
    file.end();
    return fail(-1, ENOENT, "%s: cannot find section", __func__);
  }
  if (names_nothing(key)) {
    file->remove(*found);
  } else {
    Entry* const entry = find_entry(file, found, key);
    if (entry == nullptr) return fail_quietly(-1, ENOENT);
    file->remove(*entry);
  }
  file->modified = true;
  return 0;
}

int InifileValueExistsA(const char* section, const char* key, const char* path) {
  Hold file(path, Hold::Missing::kLoad);
  const bool loaded{file};
  const Section* const found = find_section(file, section);
  const bool exists = names_nothing(key) || find_entry(file, found, key) != nullptr;
  file.end();
  if (!loaded) return fail(-3, ENOENT, "%s: cannot find inifile contents", __func__);
  if (names_nothing(section))
    return fail(-2, EINVAL, "%s: invalid NULL or empty section", __func__);
  if (found != nullptr && exists) return 0;
  errno = ENOENT;
  if (found == nullptr) {
    InfoA(ENOENT, "%s: section (%s) does not exist in inifile (%s)", __func__, section, path);
    return -2;
  }
  InfoA(ENOENT, "%s: entry does not exist", __func__);
  return -1;
}

int InifileSaveCommentA(const char* section, const char* key, const char* comment,
                        const char* path) {
  if (path == nullptr) return fail(-1, EINVAL, "%s: invalid NULL parameter", __func__);
  if (names_nothing(section) && !names_nothing(key))
    return fail(-1, EINVAL, "%s: invalid NULL or empty section", __func__);
  Hold file(path, Hold::Missing::kLoad);
  if (!file) return -1;
  Text fresh;
  Text* const target = set_comment(fresh, comment) ? comment_to_set(*file, section, key) : nullptr;
  if (target != nullptr) {
    *target = std::move(fresh);
    file->modified = true;
  }
  file.end();
  return target != nullptr
             ? 0
             : fail_allocation(-1, comment == nullptr ? 0 : std::strlen(comment), __func__);
}

int InifileGetCommentA(const char* section, const char* key, char* buf, int buflen,
                       const char* path) {
  if (buf == nullptr || buflen < 1) return fail(-1, ENOMEM, "%s: invalid NULL parameter", __func__);
  buf[0] = '\0';
  Hold file(path, Hold::Missing::kLoad);
  if (!file) return -1;
  const Text* comment = nullptr;
  if (names_nothing(section)) {
    comment = &file->header;
  } else if (const Section* found = file->find_section(section)) {
    const Entry* entry = names_nothing(key) ? nullptr : file->find_entry(*found, key);
    if (names_nothing(key))
      comment = &found->comment;
    else if (entry != nullptr)
      comment = &entry->comment;
  }
  if (comment == nullptr || comment->empty()) return fail_quietly(-1, ENOENT);
  const std::string_view text = comment->visible();
  const int length = as_int(text.size());
  hand_out(file, buf, static_cast<size_t>(buflen), text);
  return std::min(length, buflen);
}
