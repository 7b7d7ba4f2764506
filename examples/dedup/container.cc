// The content of a container's two segments:
//
//   table  u32 count, then for each chunk: fingerprint, u32 offset, u32 length
//   data   the chunks
#include "container.h"

#include <kel/file.h>

#include <system_error>

#include "chunker.h"
#include "records.h"

namespace dedup {
namespace {

/// A container is written when it holds this much, so none holds more than one chunk beyond it.
constexpr size_t kContainerSize = size_t{4} << 20;
static_assert(kContainerSize + kLargestChunk + kTagSize <= kLargestPayload);

/// Or when it holds so many: the table of small chunks must not outgrow what a reader takes.
constexpr size_t kMostChunks = 65536;
constexpr size_t kTableRecordSize = sizeof(Fingerprint) + 8;
static_assert(kMostChunks * kTableRecordSize + 4 + kTagSize <= kLargestPayload);

bool parse_table(Bytes content, std::vector<StoredChunk>& table) {
  RecordReader reader(content);
  const auto count = reader.number<uint32_t>();
  if (!reader.good() || reader.left() != count * kTableRecordSize) return false;
  table.clear();
  table.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    StoredChunk entry{reader.fingerprint(), reader.number<uint32_t>(), reader.number<uint32_t>()};
    table.push_back(entry);
  }
  return true;
}

bool read_table_segment(SegmentReader& file, std::vector<StoredChunk>& table,
                        std::string& problem) {
  if (!file.open() || !file.read(Tag::kTable)) {
    problem = file.problem();
    return false;
  }
  if (parse_table(file.content(), table)) return true;
  problem = "is damaged: its table makes no sense";
  return false;
}

}  // namespace

ContainerWriter::ContainerWriter(const Repository& repository, ContainerNumbers& numbers)
    : repository_(repository),
      numbers_(numbers),
      file_(repository.key(), repository.settings().compression) {
  filling_.number = numbers_.last() + 1;
}

ContainerWriter::~ContainerWriter() { wait(); }

bool ContainerWriter::add(const Fingerprint& chunk, Bytes data, Location& location) {
  const auto offset = static_cast<uint32_t>(filling_.data.size());
  const auto length = static_cast<uint32_t>(data.size());
  filling_.data.insert(filling_.data.end(), data.begin(), data.end());
  filling_.table.push_back({chunk, offset, length});
  location = {filling_.number, offset, length};
  const bool full = filling_.data.size() >= kContainerSize || filling_.table.size() == kMostChunks;
  return !full || send();
}

bool ContainerWriter::finish() { return (filling_.table.empty() || send()) && wait(); }

bool ContainerWriter::send() {
  if (!wait()) return false;
  std::swap(filling_, writing_);
  filling_.number = writing_.number + 1;
  filling_.table.clear();
  filling_.data.clear();
  filling_.data.reserve(kContainerSize + kLargestChunk);
  written_ = std::async(std::launch::async, [this] { return write(writing_); });
  return true;
}

bool ContainerWriter::wait() { return !written_.valid() || written_.get(); }

bool ContainerWriter::write(const Content& content) {
  RecordWriter table;
  table.number(static_cast<uint32_t>(content.table.size()));
  for (const StoredChunk& entry : content.table) {
    table.fingerprint(entry.chunk);
    table.number(entry.offset);
    table.number(entry.length);
  }
  const std::string name = Repository::container_name(content.number);
  const bool written =
      numbers_.use(content.number) && file_.create(repository_.temporaries() + "/" + name) &&
      file_.append(Tag::kTable, table.bytes()) && file_.append(Tag::kData, content.data) &&
      file_.commit(repository_.containers());
  stored_bytes_ += file_.size();
  return written;
}

bool read_table(const Repository& repository, const std::string& path,
                std::vector<StoredChunk>& table, std::string& problem) {
  SegmentReader file(repository.key(), path);
  if (!read_table_segment(file, table, problem)) return false;
  if (file.skip() && file.at_end()) return true;
  problem = file.problem().empty() ? "is damaged: a segment is missing" : file.problem();
  return false;
}

bool read_container(const Repository& repository, const std::string& path,
                    std::vector<StoredChunk>& table, std::vector<unsigned char>& data,
                    std::string& problem) {
  SegmentReader file(repository.key(), path);
  if (!read_table_segment(file, table, problem)) return false;
  if (!file.read(Tag::kData)) {
    problem = file.problem();
    return false;
  }
  data.assign(file.content().begin(), file.content().end());
  if (file.at_end()) return true;
  problem = file.problem();
  return false;
}

uint64_t file_size(const std::string& path) {
  uint64_t size;
  return FileSizeGet(path.c_str(), &size) == 0 ? size : UINT64_MAX;
}

}  // namespace dedup
