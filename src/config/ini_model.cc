#include "config/ini_model.h"

#include <sys/auxv.h>

#include "config/folded_names.h"

namespace kel::config {

using internal::MallocPtr;

std::uint64_t hash_seed() noexcept {
  // The kernel's random bytes for this process; hashed, so that they stay a secret.
  static const std::uint64_t seed = [] {
    const auto* random = reinterpret_cast<const char*>(getauxval(AT_RANDOM));
    return random == nullptr ? 0 : folded_hash({random, 16}, 0);
  }();
  return seed;
}

bool Text::copy(std::string_view head, std::string_view tail, bool may_hold_nul) noexcept {
  const std::size_t size = head.size() + tail.size();
  Text fresh;
  if (size != 0) {
    auto* to = static_cast<char*>(std::malloc(size));
    if (to == nullptr) return false;
    if (!head.empty()) std::memcpy(to, head.data(), head.size());
    if (!tail.empty()) std::memcpy(to + head.size(), tail.data(), tail.size());
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): `fresh` owns it, by the bit set below
    fresh = Text({to, size}, may_hold_nul);
    fresh.bits_ |= kOwned;
  }
  *this = std::move(fresh);
  return true;
}

std::unique_ptr<IniFile> IniFile::create(std::string_view path) noexcept {
  std::unique_ptr<IniFile> file(new (std::nothrow) IniFile);
  if (!file) return nullptr;
  file->path_.reset(static_cast<char*>(std::malloc(path.size() + 1)));
  if (!file->path_) return nullptr;
  std::memcpy(file->path_.get(), path.data(), path.size());
  file->path_.get()[path.size()] = '\0';
  if (file->open_section(Text(kTopSection), Text()) == nullptr) return nullptr;
  return file;
}

IniFile::~IniFile() {
  // The nodes go with their pools; only their texts have to be released.
  for (Section* section = first_; section != nullptr;) {
    for (Entry* entry = section->first; entry != nullptr;) {
      Entry* const following = entry->next;
      while (entry != nullptr) std::exchange(entry, entry->older)->~Entry();
      entry = following;
    }
    for (Remark* remark = section->first_remark; remark != nullptr;)
      std::exchange(remark, remark->next)->~Remark();
    std::exchange(section, section->next)->~Section();
  }
  section_index_.release();
  entry_index_.release();
}

std::uint64_t IniFile::hash_of(const Section& section, std::string_view key) const noexcept {
  return folded_hash(key, hash_seed() + reinterpret_cast<std::uintptr_t>(&section));
}

Section* IniFile::find_section(std::string_view name) const noexcept {
  return section_index_.find(folded_hash(name, hash_seed()), [&](const Section& s) {
    return folded_equal(s.name.visible(), name);
  });
}

Entry* IniFile::find_entry(const Section& section, std::string_view key) const noexcept {
  return entry_index_.find(hash_of(section, key), [&](const Entry& e) {
    return e.section == &section && folded_equal(e.key.visible(), key);
  });
}

void IniFile::append(Section& section) noexcept {
  section.previous = last_;
  (last_ != nullptr ? last_->next : first_) = &section;
  last_ = &section;
}

void IniFile::append(Section& section, Entry& entry) noexcept {
  entry.section = &section;
  entry.previous = section.last;
  (section.last != nullptr ? section.last->next : section.first) = &entry;
  section.last = &entry;
}

Section* IniFile::open_section(Text name, Text comment) noexcept {
  if (!section_index_.reserve()) return nullptr;
  const std::string_view wanted = name.visible();
  const std::uint64_t hash = folded_hash(wanted, hash_seed());
  auto& slot = section_index_.probe(
      hash, [&](const Section& s) { return folded_equal(s.name.visible(), wanted); });
  if (Section* section = slot.node; section != nullptr) {
    if (comment.empty()) return section;
    if (!section->comment.empty()) {
      Remark* remark = remark_pool_.take();
      if (remark == nullptr) return nullptr;
      remark->text = std::move(section->comment);
      (section->last_remark != nullptr ? section->last_remark->next : section->first_remark) =
          remark;
      section->last_remark = remark;
    }
    section->comment = std::move(comment);
    return section;
  }
  Section* section = section_pool_.take();
  if (section == nullptr) return nullptr;
  section->name = std::move(name);
  section->comment = std::move(comment);
  append(*section);
  section_index_.put(slot, hash, section);
  return section;
}

bool IniFile::define(Section& section, Text key, Text value, Text comment) noexcept {
  if (!entry_index_.reserve()) return false;
  Entry* entry = entry_pool_.take();
  if (entry == nullptr) return false;
  entry->key = std::move(key);
  entry->value = std::move(value);
  entry->comment = std::move(comment);

  const std::string_view wanted = entry->key.visible();
  const std::uint64_t hash = hash_of(section, wanted);
  auto& slot = entry_index_.probe(hash, [&](const Entry& e) {
    return e.section == &section && folded_equal(e.key.visible(), wanted);
  });
  Entry* const old = slot.node;
  entry_index_.put(slot, hash, entry);
  if (old == nullptr) {
    append(section, *entry);
    return true;
  }
  entry->section = &section;
  entry->next = old->next;
  entry->previous = std::exchange(old->previous, nullptr);
  (entry->previous != nullptr ? entry->previous->next : section.first) = entry;
  (entry->next != nullptr ? entry->next->previous : section.last) = entry;
  entry->older = old;
  old->next = entry;
  if (entry->value.empty()) entry->value.inherit(old->value);
  if (entry->comment.empty()) entry->comment.inherit(old->comment);
  return true;
}

Section* IniFile::add_section(std::string_view name) noexcept {
  Text copy;
  return copy.copy(name) ? open_section(std::move(copy), Text()) : nullptr;
}

Entry* IniFile::add_entry(Section& section, std::string_view key) noexcept {
  Text copy;
  if (!copy.copy(key) || !define(section, std::move(copy), Text(), Text())) return nullptr;
  return section.last;
}

bool IniFile::set_value(Section& section, std::string_view key, std::string_view value) noexcept {
  Text fresh;
  if (!fresh.copy(value)) return false;
  Entry* entry = find_entry(section, key);
  if (entry == nullptr) entry = add_entry(section, key);
  if (entry == nullptr) return false;
  drop_older(*entry);
  entry->value = std::move(fresh);
  return true;
}

void IniFile::drop_older(Entry& latest) noexcept {
  for (Entry* old = std::exchange(latest.older, nullptr); old != nullptr;) {
    if (latest.comment.inherited()) latest.comment = std::move(old->comment);
    if (latest.value.inherited()) latest.value = std::move(old->value);
    entry_pool_.give_back(std::exchange(old, old->older));
  }
}

void IniFile::remove(Entry& latest) noexcept {
  Section& section = *latest.section;
  auto& slot = entry_index_.probe(hash_of(section, latest.key.visible()),
                                  [&](const Entry& e) { return &e == &latest; });
  Entry* const heir = latest.older;
  if (heir != nullptr) {
    heir->previous = latest.previous;
    heir->next = latest.next;
    slot.node = heir;
  } else {
    entry_index_.erase(slot);
  }
  Entry* const before = heir != nullptr ? heir : latest.previous;
  Entry* const after = heir != nullptr ? heir : latest.next;
  (latest.previous != nullptr ? latest.previous->next : section.first) = after;
  (latest.next != nullptr ? latest.next->previous : section.last) = before;
  entry_pool_.give_back(&latest);
}

void IniFile::drop_entries(Section& section) noexcept {
  while (section.first != nullptr) {
    drop_older(*section.first);
    remove(*section.first);
  }
}

void IniFile::remove(Section& section) noexcept {
  drop_entries(section);
  if (&section == first_) return;
  section_index_.erase(section_index_.probe(folded_hash(section.name.visible(), hash_seed()),
                                            [&](const Section& s) { return &s == &section; }));
  section.previous->next = section.next;
  (section.next != nullptr ? section.next->previous : last_) = section.previous;
  for (Remark* remark = section.first_remark; remark != nullptr;)
    remark_pool_.give_back(std::exchange(remark, remark->next));
  section_pool_.give_back(&section);
}

}  // namespace kel::config
