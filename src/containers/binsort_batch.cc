// From the input to one sorted run: a batch that fills memory, sorted and written, and then what
// follows it in order anyway.
#include <algorithm>
#include <cstring>
#include <span>

#include "containers/binsort.h"
#include "containers/merge_sort.h"

namespace kel::internal::binsort {

/// The next record of all inputs: kRecord, kEnd, or kFailed after a report.
Reading RunMaker::next_record(Record& record, std::uint64_t* size) {
  for (;;) {
    void* handle;
    switch (read_record(ctx_, input_, &handle, size)) {
      case Reading::kRecord:
        record.reset({++counter_, handle});
        return Reading::kRecord;
      case Reading::kSkipped:
        ++counter_;
        continue;
      case Reading::kFailed:
        fail_record(ctx_, kSort, kRead, "Could not read object", errno);
        return Reading::kFailed;
      case Reading::kEnd:
        break;
    }
    errno = 0;
    FILE* const next = ctx_.next_fn == nullptr ? nullptr : ctx_.next_fn(ctx_.cbctx);
    if (next == nullptr) {
      if (errno != 0)
        return fail(Reading::kFailed, errno, "%s: Unknown error occurred: %s", kSort,
                    std::strerror(errno));
      ended_ = true;
      return Reading::kEnd;
    }
    input_ = next;
  }
}

void RunMaker::hold(Record& record, std::uint64_t size) {
  ctx_.objects.get()[held_++] = record.release();
  held_bytes_ += size;
}

/// Releases the records in the order of the input, which is most likely that of their addresses: an
/// allocator that gets millions of neighbours back at random takes half as long as their sorting.
void RunMaker::free_held() {
  const std::span held(ctx_.objects.get(), held_);
  held_ = 0;
  held_bytes_ = 0;
  if (held.empty()) return;
  const auto [lowest, highest] = std::ranges::minmax(held, {}, &Entry::number);
  // Numbers that were passed over leave gaps, for which the scratch array may be too small.
  const std::span places(reinterpret_cast<void**>(ctx_.scratch.get()),
                         std::min(highest.number - lowest.number + 1, 2 * ctx_.max_objects));
  std::ranges::fill(places, nullptr);
  for (const Entry& entry : held) {
    if (entry.number - lowest.number < places.size())
      places[entry.number - lowest.number] = entry.record;
    else
      ctx_.free(entry.record);
  }
  for (void* const record : places)
    if (record != nullptr) ctx_.free(record);
}

/// Reads until a limit is reached or the input ends; a record that the run before left is held
/// already.
bool RunMaker::fill_batch() {
  while (held_ == 0 || (held_ < ctx_.max_objects && held_bytes_ < ctx_.max_object_bytes)) {
    Record record(ctx_);
    std::uint64_t size;
    const Reading reading = next_record(record, &size);
    if (reading == Reading::kFailed) return false;
    if (reading == Reading::kEnd) break;
    hold(record, size);
  }
  return true;
}

void RunMaker::sort_batch() {
  const auto entry_at = [](const char* at) {
    return reinterpret_cast<Entry*>(const_cast<char*>(at));
  };
  MergeSort sorter(
      FixedSize<sizeof(Entry)>(),
      [this, entry_at](const char* a, const char* b) {
        return ctx_.compare(*entry_at(a), *entry_at(b));
      },
      // A handle is most likely the record's address; where it is not, this does nothing.
      [entry_at](const char* entry) { __builtin_prefetch(entry_at(entry)->record); });
  sorter.sort(reinterpret_cast<char*>(ctx_.objects.get()), held_,
              reinterpret_cast<char*>(ctx_.scratch.get()));
}

/// Leaves one of each sequence of equal records.
void RunMaker::collapse_equals() {
  Entry* const objects = ctx_.objects.get();
  std::size_t last = 0;
  const std::size_t count = held_;
  for (std::size_t i = 1; i < count; ++i) {
    Entry& kept = objects[last];
    Entry& next = objects[i];
    if (ctx_.compare(kept, next) != 0) {
      objects[++last] = next;
    } else if (ctx_.keeps_second(kept, next)) {
      ctx_.free(kept.record);
      kept = next;
    } else {
      ctx_.free(next.record);
    }
  }
  if (count != 0) held_ = last + 1;
}

/// Writes the batch and releases it, but for its last record.
bool RunMaker::write_batch(Output& out, Record& last) {
  const std::span held(ctx_.objects.get(), held_);
  for (std::size_t i = 0; i < held.size(); ++i) {
    // The records lie in memory as they came, so that each one is far from the one before.
    constexpr std::size_t kAhead = 8;
    if (i + kAhead < held.size()) __builtin_prefetch(held[i + kAhead].record);
    if (!out.write(held[i])) return false;
  }
  if (!held.empty()) last.reset(held[--held_]);
  free_held();
  return true;
}

/// Goes on with the same run as long as the input is in order; the first record that is not begins
/// the next batch.
bool RunMaker::extend(Output& out, Record& last) {
  Record record(ctx_);
  for (;;) {
    std::uint64_t size;
    const Reading reading = next_record(record, &size);
    if (reading != Reading::kRecord) return reading == Reading::kEnd;
    const int order = ctx_.compare(last.entry(), record.entry());
    const bool settles = order == 0 && ctx_.resolve_fn != nullptr;
    if (order > 0 || (settles && ctx_.keeps_second(last.entry(), record.entry()))) {
      hold(record, size);
      return true;
    }
    if (settles) continue;
    if (!out.write(record.entry())) return false;
    last.reset(record.release());
  }
}

bool RunMaker::make(Output& out) {
  if (!fill_batch()) return false;
  sort_batch();
  if (ctx_.resolve_fn != nullptr) collapse_equals();
  Record last(ctx_);
  if (!write_batch(out, last)) return false;
  return (ended_ || extend(out, last)) && out.finish();
}

}  // namespace kel::internal::binsort

void BinarySortMergeSort(void* base, size_t count, size_t size,
                         int (*compare)(void* ctx, const void* a, const void* b), void* ctx,
                         void* scratch) {
  using kel::internal::FixedSize;
  if (count < 2) return;
  const auto sort = [=](auto element) {
    kel::internal::MergeSort sorter(
        element, [=](const char* a, const char* b) { return compare(ctx, a, b); },
        [](const char*) {});
    sorter.sort(static_cast<char*>(base), count, static_cast<char*>(scratch));
  };
  if (size == 8)
    sort(FixedSize<8>());
  else if (size == 16)
    sort(FixedSize<16>());
  else
    sort(size);
}
