// Object sets against std::set, and the life of the caller's objects around them.
#include <kel/set.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "support/import_hook.h"
#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::fail_each;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

struct Object {
  uint64_t key;
  uint64_t id = 0;
};

/// Context of the caller's functions: lets a comparison fail.
struct Faults {
  long comparisons = 0;
  long failing = 0;  // the number of the comparison that fails; 0 for none
};

int32_t compare(void* context, const void* a, const void* b) {
  auto* faults = static_cast<Faults*>(context);
  if (faults != nullptr && ++faults->comparisons == faults->failing) {
    errno = EIO;
    return -2;
  }
  const uint64_t left = static_cast<const Object*>(a)->key;
  const uint64_t right = static_cast<const Object*>(b)->key;
  return left == right ? 0 : left < right ? -3 : 5;
}

uint32_t hash_key(uint64_t key) { return static_cast<uint32_t>(key) * 2654435761u; }
uint32_t hash(void*, const void* object) {
  return hash_key(static_cast<const Object*>(object)->key);
}

struct DeleteSet {
  void operator()(KelSet* set) const { KelSetDelete(&set); }
};
using Set = std::unique_ptr<KelSet, DeleteSet>;

Object* insert(const Set& set, Object* object, uint32_t* inserted = nullptr) {
  return static_cast<Object*>(KelSetFindOrInsert(set.get(), object, inserted));
}

TEST(Set, SizesItsTableByTheLimitWhenThereIsAHash) {
  constexpr uint64_t k28 = uint64_t{1} << 28;
  const std::pair<uint64_t, uint32_t> expected[] = {
      {0, 0},  {31, 0}, {32, 1},        {47, 1},   {48, 2},          {79, 2},
      {80, 3}, {96, 3}, {k28 / 16, 20}, {k28, 24}, {UINT64_MAX, 24},
  };
  for (const auto& [max_objects, bits] : expected) {
    const Set hashed(KelSetNew(compare, hash, nullptr, max_objects));
    EXPECT_EQ(KelHashTreeGetBits(hashed->tree), bits) << max_objects;
  }
  const Set ordered(KelSetNew(compare, nullptr, nullptr, k28));
  EXPECT_EQ(KelHashTreeGetBits(ordered->tree), 0u);
}

TEST(Set, KeepsTheFirstOfEqualObjectsAndItsLimit) {
  ReportCapture reports;
  KelSet embedded;
  ASSERT_GE(sizeof embedded, KelSetSize());
  ASSERT_EQ(KelSetInit(&embedded, compare, nullptr, nullptr, 2), &embedded);
  Object first = {1, 1}, twin = {1, 2}, second = {2, 3}, third = {3, 4};
  uint32_t inserted = 7;
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &first, &inserted), &first);
  EXPECT_EQ(inserted, 1u);
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &twin, &inserted), &first);
  EXPECT_EQ(inserted, 0u);
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &second, nullptr), &second);
  EXPECT_THAT(reports.take(), IsEmpty());

  // Full is full, even for what is there.
  for (Object* object : {&third, &twin}) {
    errno = 0;
    EXPECT_EQ(KelSetFindOrInsert(&embedded, object, &inserted), nullptr);
    EXPECT_EQ(errno, ENOBUFS);
  }
  const auto full = error(ENOBUFS,
                          "KelSetFindOrInsert: number of used nodes (2) greater than max objects "
                          "(2): No buffer space available");
  EXPECT_THAT(reports.take(), ElementsAre(full, full));
  EXPECT_EQ(KelSetFind(&embedded, &twin), &first);
  EXPECT_EQ(KelSetRemove(&embedded, &twin), &first);
  EXPECT_EQ(KelSetRemove(&embedded, &twin), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &twin, nullptr), &twin);
  EXPECT_THAT(reports.take(), IsEmpty());

  EXPECT_EQ(KelSetReset(&embedded), 0);
  EXPECT_EQ(KelHashTreeGetNumSlabs(embedded.tree), 0u);
  EXPECT_EQ(KelHashTreeGetNumDeletes(embedded.tree), 3u);
  EXPECT_EQ(KelSetFind(&embedded, &first), nullptr);
  EXPECT_EQ(KelSetGetNextObject(&embedded), nullptr);
  KelSetDeinit(&embedded);
  EXPECT_EQ(KelSetValidate(&embedded), 0);
}

/// Random changes, look-ups and steps of the walk. Objects live exactly as long as they are in the
/// set, so that a sanitizer sees any use of one that was removed.
TEST(Set, FollowsAModelWhileItsWalkGoesOn) {
  constexpr uint64_t kLimit = 400;
  for (const bool hashed : {false, true}) {
    const Set set(KelSetNew(compare, hashed ? hash : nullptr, nullptr, kLimit));
    const uint32_t bits = KelHashTreeGetBits(set->tree);
    using Place = std::pair<uint32_t, uint64_t>;
    const auto place = [&](uint64_t key) {
      return Place(bits == 0 ? 0 : hash_key(key) >> (32 - bits), key);
    };
    std::set<Place> model;
    std::mt19937_64 random(hashed);
    Place last;  // where the walk was
    bool ended = false, begun = false;
    const auto at_walk = [&] { return begun ? model.upper_bound(last) : model.begin(); };
    const auto check_step = [&](void* object) {
      const auto next = at_walk();
      if (next == model.end()) {
        ASSERT_EQ(object, nullptr);
        ASSERT_EQ(errno, ENOENT);
        ended = begun || ended;
      } else {
        ASSERT_NE(object, nullptr);
        last = *next;
        begun = true;
        ASSERT_EQ(static_cast<Object*>(object)->key, last.second);
      }
    };
    for (int round = 0; round < 60000; ++round) {
      Object probe = {random() % 600};
      const Place where = place(probe.key);
      const auto dice = random() % 100;
      if (dice < 25) {
        if (model.size() == kLimit) continue;
        // What comes in between the walk's last and next object may be left out by it.
        const auto next = at_walk();
        if (begun && !ended && where > last && (next == model.end() || where < *next)) continue;
        auto object = std::make_unique<Object>(probe);
        uint32_t inserted = 2;
        auto* stored = insert(set, object.get(), &inserted);
        ASSERT_EQ(inserted, model.insert(where).second);
        ASSERT_EQ(stored == object.get(), inserted == 1);
        if (inserted == 1) (void)object.release();
      } else if (dice < 45) {
        // Often the object that the walk has just returned, or its next one.
        if (begun && dice < 35) probe.key = last.second;
        if (begun && dice < 30 && at_walk() != model.end()) probe.key = at_walk()->second;
        const std::unique_ptr<Object> removed(
            static_cast<Object*>(KelSetRemove(set.get(), &probe)));
        ASSERT_EQ(removed != nullptr, model.erase(place(probe.key)) == 1);
      } else if (dice < 60) {
        ASSERT_EQ(KelSetFind(set.get(), &probe) != nullptr, model.contains(where));
      } else if (dice < 62) {
        begun = ended = false;
        ASSERT_NO_FATAL_FAILURE(check_step(KelSetGetFirstObject(set.get())));
      } else if (ended) {
        ASSERT_EQ(KelSetGetNextObject(set.get()), nullptr);
      } else {
        ASSERT_NO_FATAL_FAILURE(check_step(KelSetGetNextObject(set.get())));
      }
      ASSERT_EQ(KelSetGetNumObjects(set.get()), model.size());
    }
    for (void* object = KelSetGetFirstObject(set.get()); object != nullptr;
         object = KelSetGetNextObject(set.get()))
      delete static_cast<Object*>(KelSetRemove(set.get(), object));
    EXPECT_EQ(KelSetGetNumObjects(set.get()), 0u);
  }
}

TEST(Set, FailingComparisonsChangeNothingAndEndTheWalkOnly) {
  ReportCapture reports;
  Faults faults;
  const Set set(KelSetNew(compare, nullptr, &faults, 100));
  std::vector<Object> objects;
  for (uint64_t key = 0; key < 20; ++key) objects.push_back({key});
  for (Object& object : objects) ASSERT_EQ(insert(set, &object), &object);
  Object absent = {99};
  const auto fail_next = [&] { faults = {.comparisons = 0, .failing = 1}; };
  uint32_t inserted = 7;
  fail_next();
  EXPECT_EQ(insert(set, &absent, &inserted), nullptr);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(inserted, 7u);
  fail_next();
  EXPECT_EQ(KelSetFind(set.get(), &objects[3]), nullptr);
  EXPECT_EQ(errno, EIO);
  fail_next();
  EXPECT_EQ(KelSetRemove(set.get(), &objects[3]), nullptr);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(KelSetGetNumObjects(set.get()), 20u);

  // One comparison fails in each run: in the removal, or in the step of the walk behind it.
  long walks_ended = 0;
  for (long nth = 1; walks_ended == 0; ++nth) {
    ASSERT_EQ(KelSetGetFirstObject(set.get()), &objects[0]);
    faults = {.comparisons = 0, .failing = nth};
    if (KelSetRemove(set.get(), &objects[0]) == nullptr) continue;
    ASSERT_GE(faults.comparisons, nth);
    EXPECT_EQ(KelSetGetNextObject(set.get()), nullptr);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(KelSetGetNextObject(set.get()), nullptr);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(KelSetGetFirstObject(set.get()), &objects[1]);
    EXPECT_EQ(KelSetGetNextObject(set.get()), &objects[2]);
    ++walks_ended;
  }
  EXPECT_EQ(KelSetGetNumObjects(set.get()), 19u);
}

TEST(Set, FailuresReleaseWhatWasBuilt) {
  ReportCapture reports;
  const auto build = [] {
    errno = 0;
    if (Set(KelSetNew(compare, hash, nullptr, 1000)) == nullptr) {
      EXPECT_EQ(errno, ENOMEM);
    }
  };
  // The set, the tree and its store; the iterator, its record and its path.
  EXPECT_EQ((fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, build)), 6);
  EXPECT_EQ((fail_each<"calloc", void*(size_t, size_t)>(nullptr, ENOMEM, build)), 1);
  const auto texts = reports.take_texts();
  EXPECT_THAT(
      texts,
      testing::Contains("KelSetInit: unable to create hashtree: Cannot allocate memory").Times(3));
  EXPECT_THAT(
      texts,
      testing::Contains("KelSetInit: unable to create iterator: Cannot allocate memory").Times(3));
  EXPECT_THAT(texts.front(), HasSubstr("(KelSetNew at line"));
}

TEST(Set, MissingArgumentsAreReported) {
  ReportCapture reports;
  const Set set(KelSetNew(compare, nullptr, nullptr, 1));
  Object object = {1};
  KelSet memory;
  EXPECT_EQ(KelSetInit(nullptr, compare, nullptr, nullptr, 1), nullptr);
  EXPECT_EQ(KelSetInit(&memory, nullptr, hash, nullptr, 1), nullptr);
  EXPECT_EQ(KelSetFindOrInsert(nullptr, &object, nullptr), nullptr);
  EXPECT_EQ(KelSetFindOrInsert(set.get(), nullptr, nullptr), nullptr);
  EXPECT_EQ(KelSetFind(nullptr, &object), nullptr);
  EXPECT_EQ(KelSetFind(set.get(), nullptr), nullptr);
  EXPECT_EQ(KelSetRemove(nullptr, &object), nullptr);
  EXPECT_EQ(KelSetRemove(set.get(), nullptr), nullptr);
  EXPECT_EQ(KelSetGetNumObjects(nullptr), UINT64_MAX);
  EXPECT_EQ(KelSetGetFirstObject(nullptr), nullptr);
  EXPECT_EQ(KelSetGetNextObject(nullptr), nullptr);
  EXPECT_EQ(KelSetReset(nullptr), -1);
  EXPECT_EQ(errno, EINVAL);
  std::vector<kel::testing::Report> expected;
  for (const char* function :
       {"Init", "Init", "FindOrInsert", "FindOrInsert", "Find", "Find", "Remove", "Remove",
        "GetNumObjects", "GetFirstObject", "GetNextObject", "Reset"})
    expected.push_back(error(22, std::string("KelSet") + function + ": invalid NULL parameter"));
  EXPECT_EQ(reports.take(), expected);

  EXPECT_EQ(KelSetValidate(set.get()), 1);
  KelHashTreeIteratorDelete(&set->iterator);
  errno = 0;
  EXPECT_EQ(KelSetValidate(set.get()), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(KelSetValidate(nullptr), 0);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(KelSetReset(set.get()), -1);
  EXPECT_EQ(reports.take().back(), error(22, "KelSetReset: unable to get beginning pointer"));
  KelSetDeinit(nullptr);
  KelSetDelete(nullptr);
}

}  // namespace
