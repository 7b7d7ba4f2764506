// Merging runs into one output.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <optional>

#include "containers/binsort.h"

namespace kel::internal::binsort {
namespace {

constexpr std::size_t kCopyBlock = 32 * 1024;

/// The single run is the output already.
bool copy_run(RunFile& run, FILE* out) {
  const auto fail_write = [] {
    return fail(false, EIO, "%s: fwrite failed: %s", kMerge, std::strerror(errno));
  };
  char block[kCopyBlock];
  std::size_t count;
  while ((count = std::fread(block, 1, sizeof block, run.stream())) != 0)
    if (std::fwrite(block, 1, count, out) != count) return fail_write();
  if (std::ferror(run.stream()) != 0)
    return fail(false, EIO, "%s: ferror failed (%s)", kMerge, std::strerror(errno));
  return std::fflush(out) == 0 || fail_write();
}

class Merge {
 public:
  Merge(const binary_sort_ctx& ctx, std::span<RunFile> runs) : ctx_(ctx), runs_(runs) {}

  bool into(Output& out);

 private:
  /// The next record of one run, with the run's place in the order of the input.
  struct Head {
    Head(const binary_sort_ctx& ctx, std::size_t run_index) : record(ctx), run(run_index) {}
    Record record;
    std::size_t run;
  };

  /// Where a head goes: in front of `at`, or in a contest with the equal head there.
  struct Place {
    std::size_t at;
    bool contested;
  };

  Reading advance(Head& head) { return runs_[head.run].read(ctx_, head.run + 1, head.record); }
  Place find_place(Head& head);
  Head* contest(Head*& holder, Head* head);
  bool enter(Head* head);

  const binary_sort_ctx& ctx_;
  std::span<RunFile> runs_;
  std::array<std::optional<Head>, kMaxRuns> heads_;
  // Heads in descending order, so that the least is removed, and the next of a run that goes on
  // with records near it is put in, without moving the others.
  std::array<Head*, kMaxRuns> order_{};
  std::size_t live_ = 0;
};

Merge::Place Merge::find_place(Head& head) {
  std::size_t low = 0;
  std::size_t high = live_;
  while (low != high) {
    const std::size_t middle = (low + high) / 2;
    Head& other = *order_[middle];
    const int order = ctx_.compare(head.record.entry(), other.record.entry());
    if (order == 0 && ctx_.resolve_fn != nullptr) return {middle, true};
    const bool comes_later = order != 0 ? order > 0 : head.run > other.run;
    if (comes_later)
      high = middle;
    else
      low = middle + 1;
  }
  return {low, false};
}

/// Leaves the one to keep of two equal heads in the holder's place; the loser, without a record.
Merge::Head* Merge::contest(Head*& holder, Head* head) {
  Head* first = holder;
  Head* second = head;
  if (first->run > second->run) std::swap(first, second);
  const bool keeps_second = ctx_.keeps_second(first->record.entry(), second->record.entry());
  holder = keeps_second ? second : first;
  Head* const loser = keeps_second ? first : second;
  loser->record.reset({});
  return loser;
}

/// Reads the next record of `head`'s run and puts it in its place; so again with the run of each
/// head that loses against an equal one. A run at its end stays out.
bool Merge::enter(Head* head) {
  for (;;) {
    const Reading reading = advance(*head);
    if (reading != Reading::kRecord) return reading == Reading::kEnd;
    const Place place = find_place(*head);
    Head** const at = order_.data() + place.at;
    if (!place.contested) {
      std::copy_backward(at, order_.data() + live_, order_.data() + live_ + 1);
      *at = head;
      ++live_;
      return true;
    }
    head = contest(*at, head);
  }
}

bool Merge::into(Output& out) {
  for (std::size_t run = 0; run < runs_.size(); ++run)
    if (!enter(&heads_[run].emplace(ctx_, run))) return false;
  while (live_ != 0) {
    Head* const least = order_[--live_];
    if (!out.write(least->record.entry())) return false;
    least->record.reset({});
    if (!enter(least)) return false;
  }
  return out.finish();
}

}  // namespace

bool merge_runs(const binary_sort_ctx& ctx, std::span<RunFile> runs, Output& out) {
  for (RunFile& run : runs)
    if (!run.rewind(ctx)) return false;
  if (runs.size() == 1 && !ctx.numbered()) return copy_run(runs.front(), out.stream());
  return Merge(ctx, runs).into(out);
}

}  // namespace kel::internal::binsort
