// The external sort against std::stable_sort, and on every way out that is not success.
#include <kel/binsort.h>

#include <unistd.h>

#include <deque>
#include <span>

#include "support/test.h"

namespace {

using namespace kel::testing;

struct Random : std::mt19937 {
  using mersenne_twister_engine::mersenne_twister_engine;
  uint32_t operator()() { return static_cast<uint32_t>(mersenne_twister_engine::operator()()); }
};

/// Stored as it is, followed by as many bytes as its last field says.
struct Item {
  uint32_t key;
  uint32_t sequence;
  uint32_t extra;
  friend bool operator==(const Item&, const Item&) = default;
};
constexpr uint32_t kSkippedKey = UINT32_MAX;

std::vector<Item> descending(uint32_t count) {
  std::vector<Item> items;
  for (uint32_t i = 0; i < count; ++i) items.push_back({count - i, i + 1, 3});
  return items;
}

/// A temporary stream that holds `items`.
File stored(std::span<const Item> items) {
  File file(tmpfile());
  constexpr char kExtra[20] = {};
  for (const Item& item : items) {
    fwrite(&item, sizeof item, 1, file.get());
    fwrite(kExtra, 1, item.extra, file.get());
  }
  rewind(file.get());
  return file;
}

enum class Keep { kAll, kFirst, kLast };

/// A sort with its callbacks, which count what is alive and fail when told to.
class Sorter {
 public:
  uint64_t max_objects = 4;
  uint64_t max_bytes = UINT64_MAX;
  uint64_t fan_in = 3;
  ssize_t buffer = 256;
  uint32_t flags = 0;
  Keep keep = Keep::kAll;
  std::deque<FILE*> more;  ///< further inputs
  long failing_read = 0, failing_write = 0, failing_next = 0;
  bool ends_runs_early = false;

  long reads = 0, writes = 0, nexts = 0;
  uint64_t live = 0, most_live = 0, live_bytes = 0, most_bytes = 0;
  std::function<void()> at_write = [] {};

  binary_sort_ctx* make(const std::string& folder) {
    return BinarySortCtxConstruct(read, compare, keep == Keep::kAll ? nullptr : resolve, write,
                                  release, next, this, max_objects, max_bytes, folder.c_str(),
                                  fan_in, buffer, flags);
  }
  int run(const std::string& folder, FILE* in, FILE* out) {
    source = in;
    binary_sort_ctx* ctx = make(folder);
    if (ctx == nullptr) return -1;
    const int result = BinarySortFp(ctx, in, out);
    const int code = errno;
    BinarySortCtxDestruct(&ctx);
    EXPECT_EQ(ctx, nullptr);
    EXPECT_EQ(live, 0u);
    errno = code;
    return result;
  }

 private:
  static Sorter& of(void* context) { return *static_cast<Sorter*>(context); }
  static Item* item(void* record) { return static_cast<Item*>(record); }
  static void* fail(int code) {
    errno = code;
    return nullptr;
  }

  static void* read(void* context, FILE* in, uint64_t* size) {
    Sorter& self = of(context);
    if (++self.reads == self.failing_read) return fail(EPROTO);
    if (self.ends_runs_early && in != self.source && ftell(in) != 0) return fail(ENOENT);
    Item header;
    char extra[20];
    if (fread(&header, sizeof header, 1, in) != 1) return fail(ferror(in) != 0 ? EIO : ENOENT);
    if (fread(extra, 1, header.extra, in) != header.extra) return fail(EIO);
    if (header.key == kSkippedKey) return fail(0);
    *size = sizeof header + header.extra;
    self.most_live = std::max(self.most_live, ++self.live);
    self.most_bytes = std::max(self.most_bytes, self.live_bytes += *size);
    return new Item(header);
  }
  static int compare(void*, uint64_t number_a, void** a, uint64_t number_b, void** b) {
    EXPECT_NE(number_a, number_b);
    EXPECT_EQ(number_a < number_b, item(*a)->sequence < item(*b)->sequence);
    const uint32_t x = item(*a)->key, y = item(*b)->key;
    return x < y ? -7 : x > y;
  }
  static int resolve(void* context, uint64_t number_a, void** a, uint64_t number_b, void** b) {
    EXPECT_LT(number_a, number_b);
    EXPECT_EQ(item(*a)->key, item(*b)->key);
    return of(context).keep == Keep::kLast ? -1 : 0;
  }
  static ssize_t write(void* context, void* record, FILE* out, uint64_t offset) {
    Sorter& self = of(context);
    self.at_write();
    EXPECT_EQ(offset, static_cast<uint64_t>(ftell(out)));
    constexpr char kExtra[20] = {};
    const size_t extra = item(record)->extra;
    if (++self.writes == self.failing_write) errno = EPROTO;
    if (self.writes == self.failing_write || fwrite(record, sizeof(Item), 1, out) != 1 ||
        fwrite(kExtra, 1, extra, out) != extra)
      return -1;
    return static_cast<ssize_t>(sizeof(Item) + extra);
  }
  static void release(void* context, void* record) {
    of(context).live_bytes -= sizeof(Item) + item(record)->extra;
    --of(context).live;
    delete item(record);
    errno = EDOM;  // a release must not hide why a sort failed
  }
  static FILE* next(void* context) {
    Sorter& self = of(context);
    if (++self.nexts == self.failing_next) return static_cast<FILE*>(fail(EPROTO));
    if (self.more.empty()) return nullptr;
    FILE* const file = self.more.front();
    self.more.pop_front();
    return self.source = file;
  }

  FILE* source = nullptr;  ///< the input that is being read
};

class BinarySort : public ::testing::Test {
 protected:
  ~BinarySort() override { EXPECT_EQ(open_descriptors(), open_before); }

  /// What the sort of `items` wrote, and whether its numbers are the items' positions.
  std::vector<Item> sorted(Sorter& sorter, FILE* in) {
    const File out(tmpfile());
    if (sorter.run(folder, in, out.get()) != 0) return {};
    rewind(out.get());
    std::vector<Item> items;
    Item item;
    uint64_t number;
    const bool numbered = (sorter.flags & BINARY_SORT_NUMBERED) != 0;
    while ((!numbered || fread(&number, sizeof number, 1, out.get()) == 1) &&
           fread(&item, sizeof item, 1, out.get()) == 1) {
      EXPECT_TRUE(!numbered || number == item.sequence);
      fseek(out.get(), item.extra, SEEK_CUR);
      items.push_back(item);
    }
    return items;
  }
  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      names.push_back(entry.path().filename());
    std::ranges::sort(names);
    return names;
  }
  /// Runs `sorter` on `items` and expects -1 with `code` and nothing left over; the errors
  /// reported.
  std::vector<std::string> failing(Sorter sorter, std::span<const Item> items, int code) {
    const File in = stored(items);
    const File out(tmpfile());
    reports.take();
    EXPECT_EQ(sorter.run(folder, in.get(), out.get()), -1);
    EXPECT_EQ(errno, code);
    EXPECT_THAT(files(), IsEmpty());
    std::vector<std::string> errors;
    for (const Report& report : reports.take())
      if (report.level == KEL_LOG_ERR) errors.push_back(report.text);
    return errors;
  }

  size_t open_before = open_descriptors();
  TempDir dir;
  std::string folder = dir.path().string();
  ReportCapture reports;
};

TEST_F(BinarySort, AgreesWithAStableSortWhateverTheLimits) {
  Random random(1);
  for (int round = 0; round < 120; ++round) {
    Sorter sorter;
    sorter.max_objects = random() % 2 == 0 ? random() % 5 : 1 + random() % 300;
    sorter.max_bytes = random() % 2 == 0 ? 500 : UINT64_MAX;
    sorter.fan_in = 2 + random() % 12;
    sorter.buffer = random() % 2 == 0 ? -1 : 1000;
    sorter.flags = random() % 2 == 0 ? BINARY_SORT_NUMBERED : 0;
    sorter.keep = std::array{Keep::kAll, Keep::kFirst, Keep::kLast}[random() % 3];
    const uint32_t count = random() % (round % 4 == 0 ? 4000 : 300);
    const uint32_t keys = random() % 2 == 0 ? 20 : 100000;
    std::vector<Item> items;
    for (uint32_t i = 1; i <= count; ++i)
      items.push_back({random() % 50 == 0 ? kSkippedKey : random() % keys, i, random() % 20});
    // Long ascending stretches make runs go on beyond their batch.
    if (random() % 2 == 0 && count != 0)
      for (Item& item : items)
        if (item.key != kSkippedKey) item.key = (item.sequence + item.key % 3) / 2 % 700;

    const size_t part = items.size() / 3;
    const File in = stored(std::span(items).first(part));
    const File empty = stored({});
    const File rest = stored(std::span(items).subspan(part));
    sorter.more = {empty.get(), rest.get()};
    const std::vector<Item> result = sorted(sorter, in.get());

    std::erase_if(items, [](const Item& item) { return item.key == kSkippedKey; });
    if (sorter.keep == Keep::kLast) std::ranges::reverse(items);
    std::ranges::stable_sort(items, {}, &Item::key);
    if (sorter.keep != Keep::kAll) {
      const auto dropped = std::ranges::unique(items, {}, &Item::key);
      items.erase(dropped.begin(), dropped.end());
    }
    ASSERT_EQ(result, items) << "round " << round;
    ASSERT_THAT(files(), IsEmpty());
    // A batch and the record that did not fit in; or the heads of a merge.
    EXPECT_LE(sorter.most_live, std::max<uint64_t>(sorter.max_objects + 1, 128));
    EXPECT_TRUE(sorter.max_bytes != 500 || sorter.most_bytes <= std::max(500u + 64, 128u * 32));
  }
}

TEST_F(BinarySort, ThousandsOfRunsNeverNeedMoreThan128OpenFiles) {
  Sorter sorter;
  sorter.max_objects = 1;
  sorter.fan_in = 40;
  size_t most_open = 0;
  sorter.at_write = [&] {
    if (sorter.writes % 13 == 0) most_open = std::max(most_open, open_descriptors() - open_before);
  };
  File in = stored(descending(5000));
  EXPECT_EQ(sorted(sorter, in.get()).size(), 5000u);
  EXPECT_GT(most_open, 40u);
  EXPECT_LE(most_open, 128u + 2);

  // Without merging on the way, 128 runs are the end.
  sorter.fan_in = 1000;
  in = stored(descending(128));
  EXPECT_EQ(sorted(sorter, in.get()).size(), 128u);
  EXPECT_LE(most_open, 128u + 2);
  sorter.at_write = [] {};
  EXPECT_EQ(failing(sorter, descending(129), ENOBUFS).size(), 1u);
  sorter.flags = BINARY_SORT_QUIET;
  EXPECT_THAT(failing(sorter, descending(129), ENOBUFS), IsEmpty());
  // The 128 slots are full of equals: no slot for merging them, none needed at the end.
  sorter.fan_in = 128;
  in = stored(descending(128));
  EXPECT_EQ(sorted(sorter, in.get()).size(), 128u);
}

TEST_F(BinarySort, KeptRunsTellHowTheCascadeWent) {
  Sorter sorter;
  sorter.flags = BINARY_SORT_KEEP_RUNS | BINARY_SORT_NUMBERED;
  const File nothing = stored(std::vector<Item>{{kSkippedKey, 1, 0}});
  EXPECT_THAT(sorted(sorter, nothing.get()), IsEmpty());
  EXPECT_THAT(files(), IsEmpty());

  sorter.fan_in = 2;
  sorter.max_objects = 8;
  const File in = stored(descending(32));
  EXPECT_EQ(sorted(sorter, in.get()).size(), 32u);
  // Four batches, two pairs of them and the pair of pairs, in the order of their making.
  constexpr size_t kItems[] = {8, 8, 16, 8, 8, 16, 32};
  const std::vector<std::string> names = files();
  ASSERT_EQ(names.size(), std::size(kItems));
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(names[i], "sort-" + std::to_string(getpid()) + "-" + std::to_string(i) + ".tmp");
    EXPECT_EQ(read_file(dir / names[i]).size(), kItems[i] * (8 + sizeof(Item) + 3));
  }

  // What is sorted is one run that is copied.
  std::vector<Item> ascending;
  for (uint32_t i = 1; i <= 1000; ++i) ascending.push_back({i, i, 3});
  Sorter copier;
  copier.flags = BINARY_SORT_KEEP_RUNS;
  const File presorted = stored(ascending);
  EXPECT_EQ(sorted(copier, presorted.get()), ascending);
  EXPECT_EQ(copier.reads, 1001);
  EXPECT_EQ(copier.writes, 1000);
  EXPECT_LE(copier.most_live, 4u);
}

TEST_F(BinarySort, RefusesWhatCannotWork) {
  Sorter sorter;
  sorter.fan_in = 1;
  errno = 0;
  EXPECT_EQ(sorter.make(folder), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(BinarySortCtxConstruct(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 1,
                                   1, nullptr, 2, -1, 0),
            nullptr);
  EXPECT_THAT(reports.take(), IsEmpty());
  sorter.fan_in = 2;
  sorter.max_objects = UINT64_MAX / 16 + 2;
  expect_refused(reports, ENOMEM, {[&] { return sorter.make(folder) == nullptr; }});
  expect_refused(reports, EINVAL, {[] { return BinarySortFp(nullptr, stdin, nullptr) == -1; }});
  BinarySortCtxDestruct(nullptr);
}

TEST_F(BinarySort, EveryFailingCallbackEndsTheSortWithNothingLeft) {
  const std::vector<Item> items = descending(30);
  Sorter sorter;
  sorter.failing_next = 1;
  failing(sorter, items, EPROTO);
  sorter.failing_next = 0;
  for (const uint32_t flags : {0u, BINARY_SORT_NUMBERED, BINARY_SORT_QUIET}) {
    sorter.flags = flags;
    Sorter whole = sorter;
    const File in = stored(items);
    ASSERT_EQ(sorted(whole, in.get()).size(), 30u);
    ASSERT_GT(whole.reads, 60);
    for (sorter.failing_read = 1; sorter.failing_read <= whole.reads; ++sorter.failing_read)
      EXPECT_THAT(failing(sorter, items, EPROTO), Contains(HasSubstr(std::strerror(EPROTO))));
    sorter.failing_read = 0;
    for (sorter.failing_write = 1; sorter.failing_write <= whole.writes; ++sorter.failing_write)
      EXPECT_THAT(failing(sorter, items, EFAULT), Contains(HasSubstr(std::strerror(EPROTO))));
    sorter.failing_write = 0;
    sorter.ends_runs_early = true;
    failing(sorter, items, EIO);
    sorter.ends_runs_early = false;
  }
}

TEST_F(BinarySort, EveryFailingLibraryCallIsAWayOutWithNothingLeft) {
  const std::vector<Item> items = descending(30);
  for (const bool numbered : {false, true}) {
    // Three batches that stay apart, or one that is copied.
    for (const bool copied : {false, true}) {
      const auto scenario = [&](std::vector<int> codes) {
        return [&, codes] {
          Sorter sorter;
          sorter.flags = numbered ? BINARY_SORT_NUMBERED : 0;
          sorter.max_objects = copied ? 100 : 10;
          sorter.fan_in = 2;
          const File in = stored(items);
          const File out(tmpfile());
          if (sorter.run(folder, in.get(), out.get()) == 0)
            EXPECT_EQ(sorter.writes, !copied ? 80 : numbered ? 60 : 30);
          else
            EXPECT_THAT(codes, Contains(errno));
          EXPECT_THAT(files(), IsEmpty());
        };
      };
      using Open = FILE*(const char*, const char*);
      using SetBuffer = int(FILE*, char*, int, size_t);
      using Read = size_t(void*, size_t, size_t, FILE*);
      using Write = size_t(const void*, size_t, size_t, FILE*);
      const auto eio = scenario({EIO});
      const auto write_fails = scenario({EFAULT, EIO});
      EXPECT_GE(fail_each_malloc(scenario({ENOMEM})), 5);
      EXPECT_GE((fail_each<"fopen", Open>(nullptr, EMFILE, scenario({EMFILE}))), 1);
      EXPECT_GE((fail_each<"setvbuf", SetBuffer>(-1, EPERM, eio)), 1);
      EXPECT_GE((fail_each<"fflush", int(FILE*)>(EOF, ENOSPC, write_fails)), 2);
      EXPECT_GE((fail_each<"ftello", off_t(FILE*)>(-1, EIO, eio)), 1);
      EXPECT_GE((fail_each<"fseeko", int(FILE*, off_t, int)>(-1, EIO, eio)), 1);
      EXPECT_GE((fail_each<"fwrite", Write>(0, ENOSPC, write_fails)), numbered || copied);
      EXPECT_GE((fail_each<"fread", Read>(0, EIO, eio)), numbered);
    }
  }
}

int compare_first_byte(void* calls, const void* a, const void* b) {
  ++*static_cast<long*>(calls);
  return *static_cast<const unsigned char*>(a) - *static_cast<const unsigned char*>(b);
}

TEST(BinarySortInMemory, AgreesWithAStableSortForElementsOfAnySize) {
  Random random(2);
  for (const size_t size : {2u, 3u, 8u, 16u, 24u})
    for (const size_t count : {0u, 1u, 2u, 3u, 10u, 11u, 21u, 100u, 257u, 250u}) {
      std::vector<std::string> model;
      std::string elements, expected;
      for (size_t i = 0; i < count; ++i) {
        model.emplace_back(size, static_cast<char>(i))[0] = static_cast<char>(random() % 30);
        elements += model.back();
      }
      std::ranges::stable_sort(model, {}, [](const std::string& element) { return element[0]; });
      for (const std::string& element : model) expected += element;
      std::string scratch(elements.size(), 0);
      long calls = 0;
      // What is sorted takes one comparison less than there are elements.
      for (int again = 0; again < 2; ++again) {
        calls = 0;
        BinarySortMergeSort(elements.data(), count, size, compare_first_byte, &calls,
                            scratch.data());
        EXPECT_EQ(elements, expected);
      }
      EXPECT_EQ(calls, count == 0 ? 0 : static_cast<long>(count) - 1);

      // Comparisons that contradict each other lose no element.
      const auto contradict = [](void* dice, const void*, const void*) {
        return static_cast<int>((*static_cast<Random*>(dice))() % 3) - 1;
      };
      BinarySortMergeSort(elements.data(), count, size, contradict, &random, scratch.data());
      EXPECT_TRUE(std::ranges::is_permutation(elements, expected));
    }
}

}  // namespace
