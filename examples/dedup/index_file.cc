#include "index_file.h"

#include <kel/safeio.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "index_layout.h"

namespace dedup {

using namespace layout;

Fingerprint index_name(const KelKey& key, const Fingerprint& chunk) {
  return fingerprint_of({{key.Bytes(), KelKey::kLength}, chunk.bytes});
}

bool IndexFile::fails(std::string problem) {
  problem_ = std::move(problem);
  return false;
}

bool IndexFile::open(const std::string& path) {
  file_ = Descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file_ && errno == ENOENT) return false;
  if (!file_) return fails(std::string("cannot be opened: ") + std::strerror(errno));
  unsigned char head[kHeadSize + sizeof(Fingerprint)];
  if (safe_pread(file_.get(), head, sizeof head, 0) != static_cast<ssize_t>(sizeof head) ||
      std::memcmp(head, kMark, sizeof kMark) != 0)
    return fails("is damaged: it does not begin as an index");
  return read_summary(head);
}

/// Reads what stands behind the blocks. Nothing is allocated that the file has no bytes for.
bool IndexFile::read_summary(Bytes head) {
  RecordReader reader(head.subspan(sizeof kMark));
  records_ = reader.number<uint64_t>();
  const auto containers = reader.number<uint32_t>();
  const auto bitmap = reader.number<uint32_t>();
  const Fingerprint seal = reader.fingerprint();
  struct stat status;
  if (::fstat(file_.get(), &status) != 0) return fails("cannot be read");
  const auto size = static_cast<uint64_t>(status.st_size);
  const uint64_t blocks = blocks_for(std::min(records_, size));
  const uint64_t lists_size = blocks * kNameStartSize + uint64_t{containers} * kCoveredSize;
  const uint64_t offset = offset_of_block(blocks);
  if (records_ == 0 || !std::has_single_bit(bitmap) || size != offset + lists_size + bitmap)
    return fails("is damaged: its size is wrong");
  std::vector<unsigned char> lists(lists_size);
  filter_.emplace(bitmap, kFalsePositives);
  // Without memory for the filter there is none, and every look-up reads a block.
  unsigned char* const bits = filter_->GetBloom();
  if (bits == nullptr) return fails("finds no memory");
  if (safe_pread(file_.get(), lists.data(), lists_size, static_cast<off_t>(offset)) !=
          static_cast<ssize_t>(lists_size) ||
      safe_pread(file_.get(), bits, bitmap, static_cast<off_t>(offset + lists_size)) !=
          static_cast<ssize_t>(bitmap))
    return fails("cannot be read");
  if (seal_of_summary(key_, head.first(kHeadSize), lists, {bits, bitmap}) != seal)
    return fails("is damaged: it does not match its seal");
  RecordReader summary(lists);
  first_names_.reserve(blocks);
  for (uint64_t i = 0; i < blocks; ++i) first_names_.push_back(summary.number<uint64_t>());
  containers_.reserve(containers);
  for (uint32_t i = 0; i < containers; ++i)
    containers_.push_back({summary.number<uint32_t>(), summary.number<uint64_t>()});
  block_.resize(kBlockSize);
  return true;
}

std::span<const IndexRecord> IndexFile::read_block(uint64_t number) {
  if (safe_pread(file_.get(), block_.data(), kBlockSize,
                 static_cast<off_t>(offset_of_block(number))) != static_cast<ssize_t>(kBlockSize) ||
      std::memcmp(seal_of_block(key_, number, Bytes(block_).first(kContentSize)).bytes.data(),
                  block_.data() + kContentSize, sizeof(Fingerprint)) != 0) {
    damaged_ = true;
    return {};
  }
  const uint64_t left = records_ - number * kRecordsInBlock;
  return {reinterpret_cast<const IndexRecord*>(block_.data()),
          std::min<uint64_t>(left, kRecordsInBlock)};
}

std::optional<uint32_t> IndexFile::find(const Fingerprint& chunk) {
  const Fingerprint name = index_name(key_, chunk);
  if (!filter_->Matches(FilterKey(name).get())) return std::nullopt;
  const uint64_t start = name_start(name);
  const auto behind = std::upper_bound(first_names_.begin(), first_names_.end(), start);
  // The last block that does not begin behind the name; the one before it too, in case its last
  // names start as this one's first.
  for (auto at = static_cast<uint64_t>(behind - first_names_.begin()); at-- > 0;) {
    const auto records = read_block(at);
    const auto found = std::lower_bound(records.begin(), records.end(), name,
                                        [](const IndexRecord& record, const Fingerprint& wanted) {
                                          return record.name.bytes < wanted.bytes;
                                        });
    if (found != records.end() && found->name == name)
      return RecordReader(found->container).number<uint32_t>();
    if (first_names_[at] != start) break;
  }
  return std::nullopt;
}

}  // namespace dedup
