#include "index_sort.h"

#include <kel/binsort.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>

namespace dedup {
namespace {

// About 20 MiB for a batch, and 2 MiB for the run files that are merged at a time.
constexpr uint64_t kBatch = uint64_t{1} << 18;
constexpr uint64_t kFanIn = 16;
constexpr ssize_t kRunBuffer = ssize_t{1} << 16;

struct DeleteSort {
  void operator()(binary_sort_ctx* sort) const { BinarySortCtxDestruct(&sort); }
};

/// Reads a record back; false with errno.
bool read_run(FILE* run, IndexRecord& record) {
  if (std::fread(&record, sizeof record, 1, run) == 1) return true;
  errno = std::ferror(run) != 0 ? EIO : ENOENT;
  return false;
}

}  // namespace

bool IndexSort::run(IndexFile* old, const std::vector<NumberedFile>& fresh,
                    const std::string& folder, IndexWriter& out) {
  containers_.clear();
  if (old != nullptr) containers_ = old->containers();
  old_ = old;
  next_block_ = 0;
  block_ = {};
  fresh_ = fresh;
  table_.clear();
  done_ = 0;
  given_ = 0;
  out_ = &out;
  const std::unique_ptr<binary_sort_ctx, DeleteSort> sort(BinarySortCtxConstruct(
      read, compare, choose, write, [](void*, void* record) { std::free(record); }, nullptr, this,
      kBatch, kBatch * sizeof(IndexRecord), folder.c_str(), kFanIn, kRunBuffer, 0));
  if (sort == nullptr || BinarySortFp(sort.get(), nullptr, out.stream()) != 0) return false;
  std::sort(containers_.begin(), containers_.end(),
            [](const auto& a, const auto& b) { return a.number < b.number; });
  return true;
}

void* IndexSort::read(void* self, FILE* run, uint64_t* size) {
  IndexRecord record;
  *size = sizeof record;
  // Without a run file it is the input that is read.
  if (run == nullptr ? !static_cast<IndexSort*>(self)->next(record) : !read_run(run, record))
    return nullptr;
  void* const handle = std::malloc(sizeof record);
  if (handle != nullptr) std::memcpy(handle, &record, sizeof record);
  return handle;
}

int IndexSort::compare(void*, uint64_t, void** a, uint64_t, void** b) {
  return std::memcmp(*a, *b, sizeof(Fingerprint));
}

int IndexSort::choose(void*, uint64_t, void** a, uint64_t, void** b) {
  const auto container = [](void* record) { return static_cast<IndexRecord*>(record)->container; };
  return container(*a) < container(*b) ? -1 : 1;
}

ssize_t IndexSort::write(void*, void* record, FILE* out, uint64_t) {
  return std::fwrite(record, sizeof(IndexRecord), 1, out) == 1 ? sizeof(IndexRecord) : -1;
}

/// The next record of the input; false with errno, ENOENT at the end.
bool IndexSort::next(IndexRecord& record) {
  try {
    errno = ENOENT;
    if (!next_old(record) && (errno != ENOENT || !next_fresh(record))) {
      out_->set_limit(given_);
      return false;
    }
    ++given_;
    return true;
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return false;
  }
}

bool IndexSort::next_old(IndexRecord& record) {
  if (block_.empty()) {
    if (old_ == nullptr || next_block_ == old_->blocks()) return false;
    block_ = old_->read_block(next_block_++);
    if (block_.empty()) {
      errno = EIO;
      return false;
    }
  }
  record = block_.front();
  block_ = block_.subspan(1);
  return true;
}

bool IndexSort::next_fresh(IndexRecord& record) {
  while (done_ == table_.size()) {
    if (fresh_.empty()) {
      errno = ENOENT;
      return false;
    }
    const NumberedFile& file = fresh_.front();
    fresh_ = fresh_.subspan(1);
    done_ = 0;
    number_ = file.number;
    std::string problem;
    if (read_table(repository_, file.path, table_, problem)) {
      containers_.push_back({file.number, file_size(file.path)});
    } else {
      table_.clear();
      report_(file.number, problem);
    }
  }
  record.name = index_name(repository_.key(), table_[done_++].chunk);
  for (size_t i = 0; i < record.container.size(); ++i)
    record.container[i] = static_cast<unsigned char>(number_ >> (24 - 8 * i));
  return true;
}

}  // namespace dedup
