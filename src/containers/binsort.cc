// External sort: settings, and the cascade of runs from the input to the destination.
#include "containers/binsort.h"

#include <kel/logging.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>

using namespace kel::internal;
using namespace kel::internal::binsort;

namespace {

MallocPtr<Entry> allocate_entries(std::uint64_t count) {
  if (count > SIZE_MAX / sizeof(Entry)) return nullptr;
  return MallocPtr<Entry>(static_cast<Entry*>(std::malloc(count * sizeof(Entry))));
}

bool fail_part(const char* what) {
  return fail(false, ENOMEM, "%s: could not allocate memory for %s: %s", "BinarySortCtxConstruct",
              what, std::strerror(ENOMEM));
}

bool allocate(binary_sort_ctx& ctx, const char* tmpdir) {
  const std::size_t size = std::strlen(tmpdir) + 1;
  ctx.tmpdir.reset(static_cast<char*>(std::malloc(size)));
  if (ctx.tmpdir == nullptr) return fail_part("tmpdir");
  std::memcpy(ctx.tmpdir.get(), tmpdir, size);
  ctx.objects = allocate_entries(ctx.max_objects);
  if (ctx.objects == nullptr) return fail_part("objects");
  ctx.scratch = allocate_entries(ctx.max_objects);
  return ctx.scratch != nullptr || fail_part("qsort objects");
}

/// At most one line in five minutes: enough to see that a long sort goes on.
class Progress {
 public:
  bool is_due() {
    const auto now = std::chrono::steady_clock::now();
    if (last_ && now - *last_ < kInterval) return false;
    last_ = now;
    return true;
  }

 private:
  static constexpr std::chrono::seconds kInterval{300};
  std::optional<std::chrono::steady_clock::time_point> last_;
};

/// The runs of one sort, in the order of the input and so of falling levels.
class Cascade {
 public:
  Cascade(const binary_sort_ctx& ctx, FILE* src) : ctx_(ctx), maker_(ctx, src) {}

  bool sort_into(FILE* dst);

 private:
  bool add_run();
  bool is_level_full() const;
  bool merge_level(unsigned pass);

  const binary_sort_ctx& ctx_;
  RunMaker maker_;
  std::array<RunFile, kMaxRuns> runs_;
  std::size_t count_ = 0;
  std::uint64_t created_ = 0;
  Progress progress_;
};

bool Cascade::add_run() {
  if (count_ == kMaxRuns)
    return fail_setup(ctx_, ENOBUFS,
                      "%s: max_files=%lu exceeded. Please try a lower number of "
                      "num_files_to_merge.",
                      kSort, kMaxRuns);
  RunFile& run = runs_[count_];
  if (!run.create(ctx_, created_++, 0)) return false;
  Output out(ctx_, run.stream(), kSort);
  if (!maker_.make(out)) return false;
  if (out.is_empty())
    run.discard();
  else
    ++count_;
  return true;
}

/// With every slot taken the merged run would have none, so it is left to the final merge.
bool Cascade::is_level_full() const {
  const std::uint64_t fan_in = ctx_.num_files_to_merge;
  return count_ < kMaxRuns && count_ >= fan_in &&
         runs_[count_ - fan_in].level() == runs_[count_ - 1].level();
}

bool Cascade::merge_level(unsigned pass) {
  const std::span<RunFile> group =
      std::span(runs_).subspan(count_ - ctx_.num_files_to_merge, ctx_.num_files_to_merge);
  const unsigned level = group.front().level() + 1;
  if (progress_.is_due()) InfoA(-1, "Sorting tlog files: starting pass %u.%u.", pass, level);
  RunFile merged;
  if (!merged.create(ctx_, created_++, level)) return false;
  Output out(ctx_, merged.stream(), kMerge);
  if (!merge_runs(ctx_, group, out)) return false;
  for (RunFile& run : group) run.close();
  count_ -= group.size();
  runs_[count_++] = std::move(merged);
  return true;
}

bool Cascade::sort_into(FILE* dst) {
  for (unsigned pass = 1; !maker_.input_ended(); ++pass) {
    if (progress_.is_due()) InfoA(-1, "Sorting tlog files: starting pass %u.", pass);
    if (!add_run()) return false;
    while (is_level_full())
      if (!merge_level(pass)) return false;
  }
  InfoA(-1, "Sorting tlog files: starting final merge step.");
  Output out(ctx_, dst, kMerge);
  return merge_runs(ctx_, std::span(runs_).first(count_), out);
}

}  // namespace

binary_sort_ctx* BinarySortCtxConstruct(binary_sort_read_fn read, binary_sort_compare_fn compare,
                                        binary_sort_resolve_fn resolve, binary_sort_write_fn write,
                                        binary_sort_free_fn free, binary_sort_next_fn next,
                                        void* cbctx, uint64_t max_objects,
                                        uint64_t max_object_bytes, const char* tmpdir,
                                        uint64_t num_files_to_merge, ssize_t temp_buffer_size,
                                        uint32_t flags) {
  if (read == nullptr || compare == nullptr || write == nullptr || free == nullptr ||
      tmpdir == nullptr || num_files_to_merge < 2)
    return fail_quietly<binary_sort_ctx*>(nullptr, EINVAL);
  std::unique_ptr<binary_sort_ctx> ctx(
      new (std::nothrow) binary_sort_ctx{.read_fn = read,
                                         .compare_fn = compare,
                                         .resolve_fn = resolve,
                                         .write_fn = write,
                                         .free_fn = free,
                                         .next_fn = next,
                                         .cbctx = cbctx,
                                         .max_objects = max_objects == 0 ? 1 : max_objects,
                                         .max_object_bytes = max_object_bytes,
                                         .num_files_to_merge = num_files_to_merge,
                                         .temp_buffer_size = temp_buffer_size,
                                         .flags = flags,
                                         .tmpdir = nullptr,
                                         .objects = nullptr,
                                         .scratch = nullptr});
  if (ctx == nullptr) return fail_allocation(ctx.get(), sizeof(binary_sort_ctx), __func__);
  return allocate(*ctx, tmpdir) ? ctx.release() : nullptr;
}

void BinarySortCtxDestruct(binary_sort_ctx** ctx) {
  if (ctx == nullptr) return;
  delete *ctx;
  *ctx = nullptr;
}

int BinarySortFp(binary_sort_ctx* ctx, FILE* src, FILE* dst_fp) {
  if (ctx == nullptr || dst_fp == nullptr)
    return fail(-1, EINVAL, "%s: Required input was null: binary_sort_ctx (%p), dst_fp (%p)",
                __func__, static_cast<void*>(ctx), static_cast<void*>(dst_fp));
  return Cascade(*ctx, src).sort_into(dst_fp) ? 0 : -1;
}
