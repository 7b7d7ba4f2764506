#include "index_writer.h"

#include <kel/logging.h>
#include <kel/safeio.h>

#include <fcntl.h>

#include <cerrno>
#include <new>

#include "index_layout.h"

namespace dedup {

using namespace layout;

IndexWriter::~IndexWriter() {
  stream_.reset();
  if (file_) ::unlink(path_.c_str());
}

bool IndexWriter::fails() {
  ErrorA(errno, "could not write %s: %s", path_.c_str(), std::strerror(errno));
  return false;
}

bool IndexWriter::create(const std::string& path) {
  path_ = path;
  file_ = Descriptor(::open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!file_) return fails();
  // The first block comes last.
  size_ = kBlockSize;
  content_.reserve(kBlockSize);
  stream_.reset(::fopencookie(this, "w", {nullptr, take, nullptr, nullptr}));
  return stream_ != nullptr || fails();
}

/// What the stream calls; 0 with errno is its error.
ssize_t IndexWriter::take(void* self, const char* bytes, size_t size) {
  try {
    const Bytes taken(reinterpret_cast<const unsigned char*>(bytes), size);
    return static_cast<IndexWriter*>(self)->add(taken) ? static_cast<ssize_t>(size) : 0;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return 0;
  }
}

bool IndexWriter::add(Bytes bytes) {
  constexpr size_t kFull = kRecordsInBlock * sizeof(IndexRecord);
  while (!bytes.empty()) {
    const Bytes part = bytes.first(std::min(bytes.size(), kFull - content_.size()));
    content_.insert(content_.end(), part.begin(), part.end());
    bytes = bytes.subspan(part.size());
    if (content_.size() == kFull && !write_block()) return false;
  }
  return true;
}

bool IndexWriter::write_block() {
  const std::span records(reinterpret_cast<const IndexRecord*>(content_.data()),
                          content_.size() / sizeof(IndexRecord));
  if (!filter_) filter_.emplace(filter_size(limit_), kFalsePositives);
  first_names_.push_back(name_start(records.front().name));
  for (const IndexRecord& record : records) filter_->Insert(FilterKey(record.name).get());
  records_ += records.size();
  content_.resize(kContentSize);
  const Fingerprint seal = seal_of_block(key_, first_names_.size() - 1, content_);
  content_.insert(content_.end(), seal.bytes.begin(), seal.bytes.end());
  const bool written = write(content_);
  content_.clear();
  return written;
}

/// False with errno.
bool IndexWriter::write(Bytes bytes) {
  if (safe_pwrite(file_.get(), bytes.data(), bytes.size(), static_cast<off_t>(size_)) !=
      static_cast<ssize_t>(bytes.size()))
    return false;
  size_ += bytes.size();
  return true;
}

bool IndexWriter::finish(const std::vector<CoveredContainer>& containers) {
  if (std::fflush(stream_.get()) != 0 || (!content_.empty() && !write_block())) return fails();
  if (!filter_ || filter_->GetBloom() == nullptr) {
    errno = filter_ ? ENOMEM : ENODATA;
    return fails();
  }
  RecordWriter lists;
  for (const uint64_t start : first_names_) lists.number(start);
  for (const CoveredContainer& container : containers) {
    lists.number(container.number);
    lists.number(container.size);
  }
  const Bytes bitmap(filter_->GetBloom(), filter_->GetBufferSize());
  RecordWriter head;
  head.raw(kMark);
  head.number(records_);
  head.number(static_cast<uint32_t>(containers.size()));
  head.number(static_cast<uint32_t>(bitmap.size()));
  head.fingerprint(seal_of_summary(key_, head.bytes(), lists.bytes(), bitmap));
  if (!write(lists.bytes()) || !write(bitmap)) return fails();
  size_ = 0;
  return write(head.bytes()) || fails();
}

bool IndexWriter::commit(const std::vector<CoveredContainer>& containers,
                         const std::string& final_path, const std::string& folder) {
  if (!finish(containers)) return false;
  if (safe_fsync(file_.get()) != 0 ||
      rename_dirfsync(path_.c_str(), final_path.c_str(), folder.c_str(), true) != 0)
    return fails();
  file_.close();
  return true;
}

}  // namespace dedup
