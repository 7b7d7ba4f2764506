#include "catalogue.h"

#include "base64.h"

namespace dedup {
namespace {

/// A segment of entries is written when its records have this size.
constexpr size_t kSegmentSize = size_t{1} << 20;

}  // namespace

bool CatalogueWriter::add(Item item, const Entry& entry) {
  records_.number(static_cast<uint8_t>(item));
  records_.text(entry.path);
  records_.number(entry.mode);
  records_.number(entry.owner);
  records_.number(entry.group);
  records_.number(entry.seconds);
  records_.number(entry.nanoseconds);
  if (item == Item::kLink) records_.text(entry.target);
  return flush_when_full();
}

bool CatalogueWriter::add_chunk(const Fingerprint& chunk, uint32_t length) {
  records_.number(static_cast<uint8_t>(Item::kChunk));
  records_.fingerprint(chunk);
  records_.number(length);
  return flush_when_full();
}

bool CatalogueWriter::end_file(uint64_t size, bool complete) {
  records_.number(static_cast<uint8_t>(Item::kFileEnd));
  records_.number(size);
  records_.number(static_cast<uint8_t>(complete));
  return flush_when_full();
}

bool CatalogueWriter::flush_when_full() { return records_.size() < kSegmentSize || flush(); }

bool CatalogueWriter::flush() {
  const bool written = file_.append(Tag::kEntries, records_.bytes());
  records_.clear();
  return written;
}

bool CatalogueWriter::commit(const Summary& summary, const std::string& directory) {
  if (!flush()) return false;
  const std::string text = summary_json(summary).DumpToString(0);
  return !text.empty() && file_.append(Tag::kSummary, bytes_of(text)) && file_.commit(directory);
}

std::nullopt_t CatalogueReader::damaged() {
  problem_ = "is damaged: an entry makes no sense";
  return std::nullopt;
}

std::optional<Item> CatalogueReader::next() {
  // What follows damage would come without what it belongs to.
  if (!problem().empty()) return std::nullopt;
  while (records_.left() == 0) {
    const auto tag = file_.read();
    if (!tag) return std::nullopt;
    if (*tag == Tag::kSummary) {
      if (in_file_ || !parse_summary(file_.content(), summary)) return damaged();
      if (!file_.at_end()) return std::nullopt;
      return Item::kEnd;
    }
    if (*tag != Tag::kEntries) return damaged();
    records_ = RecordReader(file_.content());
  }
  const auto item = static_cast<Item>(records_.number<uint8_t>());
  const bool of_file = item == Item::kChunk || item == Item::kFileEnd;
  if (of_file != in_file_ || !parse_item(item)) return damaged();
  in_file_ = item == Item::kFile || item == Item::kChunk;
  return item;
}

bool CatalogueReader::parse_item(Item item) {
  switch (item) {
    case Item::kFolder:
    case Item::kFile:
    case Item::kLink:
      entry.path = records_.text();
      entry.mode = records_.number<uint32_t>();
      entry.owner = records_.number<uint32_t>();
      entry.group = records_.number<uint32_t>();
      entry.seconds = records_.number<int64_t>();
      entry.nanoseconds = records_.number<uint32_t>();
      entry.target = item == Item::kLink ? records_.text() : std::string();
      break;
    case Item::kChunk:
      chunk = records_.fingerprint();
      length = records_.number<uint32_t>();
      break;
    case Item::kFileEnd:
      file_size = records_.number<uint64_t>();
      complete = records_.number<uint8_t>() != 0;
      break;
    default:
      return false;
  }
  return records_.good();
}

bool CatalogueReader::read_summary() {
  const auto tag = file_.read_last();
  if (!tag) return false;
  if (*tag == Tag::kSummary && parse_summary(file_.content(), summary)) return true;
  damaged();
  return false;
}

}  // namespace dedup
