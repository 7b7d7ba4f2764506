// Object sets against std::set, and the life of the caller's objects around them.
#include <kel/set.h>

#include <set>

#include "containers/hashtree_records.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

struct DeleteSet {
  void operator()(KelSet* set) const { KelSetDelete(&set); }
};
using Set = std::unique_ptr<KelSet, DeleteSet>;

TEST(Set, SizesItsTableByTheLimitWhenThereIsAHash) {
  constexpr uint64_t k28 = uint64_t{1} << 28;
  const std::pair<uint64_t, uint32_t> expected[] = {
      {0, 0},  {31, 0}, {32, 1},        {47, 1},   {48, 2},          {79, 2},
      {80, 3}, {96, 3}, {k28 / 16, 20}, {k28, 24}, {UINT64_MAX, 24},
  };
  for (const auto& [max_objects, bits] : expected) {
    const Set hashed(KelSetNew(compare_records, hash_record, nullptr, max_objects));
    EXPECT_EQ(KelHashTreeGetBits(hashed->tree), bits) << max_objects;
  }
  const Set ordered(KelSetNew(compare_records, nullptr, nullptr, k28));
  EXPECT_EQ(KelHashTreeGetBits(ordered->tree), 0u);
}

TEST(Set, KeepsTheFirstOfEqualObjectsAndItsLimit) {
  ReportCapture reports;
  KelSet embedded;
  ASSERT_GE(sizeof embedded, KelSetSize());
  ASSERT_EQ(KelSetInit(&embedded, compare_records, nullptr, nullptr, 2), &embedded);
  Record first = {1, 1}, twin = {1, 2}, second = {2, 3}, third = {3, 4};
  uint32_t inserted = 7;
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &first, &inserted), &first);
  EXPECT_EQ(inserted, 1u);
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &twin, &inserted), &first);
  EXPECT_EQ(inserted, 0u);
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &second, nullptr), &second);
  EXPECT_THAT(reports.take(), IsEmpty());

  // Full is full, even for what is there.
  for (Record* object : {&third, &twin})
    EXPECT_EQ(KelSetFindOrInsert(&embedded, object, &inserted), nullptr);
  const auto full = error(ENOBUFS,
                          "KelSetFindOrInsert: number of used nodes (2) greater than max objects "
                          "(2): No buffer space available");
  EXPECT_THAT(reports.take(), ElementsAre(full, full));
  EXPECT_EQ(KelSetRemove(&embedded, &twin), &first);
  EXPECT_EQ(KelSetRemove(&embedded, &twin), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &twin, nullptr), &twin);
  EXPECT_THAT(reports.take(), IsEmpty());

  EXPECT_EQ(KelSetReset(&embedded), 0);
  EXPECT_EQ(KelHashTreeGetNumSlabs(embedded.tree), 0u);
  EXPECT_EQ(KelHashTreeGetNumDeletes(embedded.tree), 3u);
  EXPECT_EQ(KelSetGetNextObject(&embedded), nullptr);
  KelSetDeinit(&embedded);
  EXPECT_EQ(KelSetValidate(&embedded), 0);
}

/// Random changes, look-ups and steps of the walk. Objects live exactly as long as they are in the
/// set, so that a sanitizer sees any use of one that was removed.
TEST(Set, FollowsAModelWhileItsWalkGoesOn) {
  constexpr uint64_t kLimit = 400;
  for (const bool hashed : {false, true}) {
    const Set owner(KelSetNew(compare_records, hashed ? hash_record : nullptr, nullptr, kLimit));
    KelSet* set = owner.get();
    const uint32_t bits = KelHashTreeGetBits(set->tree);
    const auto place = [&](uint64_t key) {
      return Place(bits == 0 ? 0 : hash_value(key) >> (32 - bits), key);
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
        ASSERT_EQ(static_cast<Record*>(object)->key, last.second);
      }
    };
    for (int round = 0; round < 60000; ++round) {
      Record probe = {random() % 600, 0};
      const Place where = place(probe.key);
      const auto dice = random() % 100;
      if (dice < 25) {
        if (model.size() == kLimit) continue;
        // What comes in between the walk's last and next object may be left out by it.
        const auto next = at_walk();
        if (begun && !ended && where > last && (next == model.end() || where < *next)) continue;
        auto object = std::make_unique<Record>(probe);
        uint32_t inserted = 2;
        void* stored = KelSetFindOrInsert(set, object.get(), &inserted);
        ASSERT_EQ(inserted, model.insert(where).second);
        ASSERT_EQ(stored == object.get(), inserted == 1);
        if (inserted == 1) (void)object.release();
      } else if (dice < 45) {
        // Often the object that the walk has just returned, or its next one.
        if (begun && dice < 35) probe.key = last.second;
        if (begun && dice < 30 && at_walk() != model.end()) probe.key = at_walk()->second;
        const std::unique_ptr<Record> removed(static_cast<Record*>(KelSetRemove(set, &probe)));
        ASSERT_EQ(removed != nullptr, model.erase(place(probe.key)) == 1);
      } else if (dice < 60) {
        ASSERT_EQ(KelSetFind(set, &probe) != nullptr, model.contains(where));
      } else if (dice < 62) {
        begun = ended = false;
        ASSERT_NO_FATAL_FAILURE(check_step(KelSetGetFirstObject(set)));
      } else if (ended) {
        ASSERT_EQ(KelSetGetNextObject(set), nullptr);
      } else {
        ASSERT_NO_FATAL_FAILURE(check_step(KelSetGetNextObject(set)));
      }
      ASSERT_EQ(KelSetGetNumObjects(set), model.size());
    }
    for (void* object = KelSetGetFirstObject(set); object != nullptr;
         object = KelSetGetNextObject(set))
      delete static_cast<Record*>(KelSetRemove(set, object));
    EXPECT_EQ(KelSetGetNumObjects(set), 0u);
  }
}

TEST(Set, FailingComparisonsChangeNothingAndEndTheWalkOnly) {
  ReportCapture reports;
  Faults faults;
  const Set owner(KelSetNew(compare_records, nullptr, &faults, 100));
  KelSet* set = owner.get();
  std::vector<Record> objects;
  for (uint64_t key = 0; key < 20; ++key) objects.push_back({key, 0});
  for (Record& object : objects) ASSERT_EQ(KelSetFindOrInsert(set, &object, nullptr), &object);
  Record absent = {99, 0};
  uint32_t inserted = 7;
  const std::function<void*()> operations[] = {
      [&] { return KelSetFindOrInsert(set, &absent, &inserted); },
      [&] { return KelSetFind(set, &objects[3]); }, [&] { return KelSetRemove(set, &objects[3]); }};
  for (const auto& operation : operations) {
    faults.fail(1);
    EXPECT_EQ(operation(), nullptr);
    EXPECT_EQ(errno, EIO);
  }
  EXPECT_EQ(inserted, 7u);
  EXPECT_EQ(KelSetGetNumObjects(set), 20u);

  // One comparison fails in each run, until it is in the step of the walk behind the removal.
  for (long nth = 1; KelSetGetNumObjects(set) == 20; ++nth) {
    ASSERT_EQ(KelSetGetFirstObject(set), &objects[0]);
    faults.fail(nth);
    KelSetRemove(set, &objects[0]);
    ASSERT_GE(faults.comparisons, nth);
  }
  for (int again = 0; again < 2; ++again) {
    EXPECT_EQ(KelSetGetNextObject(set), nullptr);
    EXPECT_EQ(errno, EIO);
  }
  EXPECT_EQ(KelSetGetFirstObject(set), &objects[1]);
  EXPECT_EQ(KelSetGetNextObject(set), &objects[2]);
}

TEST(Set, FailuresReleaseWhatWasBuilt) {
  ReportCapture reports;
  const auto build = [] {
    errno = 0;
    if (Set(KelSetNew(compare_records, hash_record, nullptr, 1000)) == nullptr) {
      EXPECT_EQ(errno, ENOMEM);
    }
  };
  // The set, the tree and its store; the iterator, its record and its path.
  EXPECT_EQ(fail_each_malloc(build), 6);
  EXPECT_EQ(fail_each_calloc(build), 1);
  const auto texts = reports.take_texts();
  for (const char* part : {"hashtree", "iterator"})
    EXPECT_THAT(texts, Contains("KelSetInit: unable to create " + std::string(part) +
                                ": Cannot allocate memory")
                           .Times(3));
  EXPECT_THAT(texts.front(), HasSubstr("(KelSetNew at line"));
}

TEST(Set, MissingArgumentsAreReported) {
  ReportCapture reports;
  const Set set(KelSetNew(compare_records, nullptr, nullptr, 1));
  Record object = {1, 0};
  EXPECT_EQ(KelSetInit(nullptr, compare_records, nullptr, nullptr, 1), nullptr);
  EXPECT_EQ(KelSetFindOrInsert(nullptr, &object, nullptr), nullptr);
  EXPECT_EQ(KelSetFindOrInsert(set.get(), nullptr, nullptr), nullptr);
  EXPECT_EQ(KelSetFind(set.get(), nullptr), nullptr);
  EXPECT_EQ(KelSetRemove(set.get(), nullptr), nullptr);
  EXPECT_EQ(KelSetGetNumObjects(nullptr), UINT64_MAX);
  EXPECT_EQ(KelSetGetFirstObject(nullptr), nullptr);
  EXPECT_EQ(KelSetGetNextObject(nullptr), nullptr);
  EXPECT_EQ(KelSetReset(nullptr), -1);
  EXPECT_EQ(reports.take(),
            null_reports("KelSet", {"Init", "FindOrInsert", "FindOrInsert", "Find", "Remove",
                                    "GetNumObjects", "GetFirstObject", "GetNextObject", "Reset"}));

  EXPECT_EQ(KelSetValidate(set.get()), 1);
  EXPECT_EQ(KelSetValidate(nullptr), 0);
  KelHashTreeIteratorDelete(&set->iterator);
  EXPECT_EQ(KelSetValidate(set.get()), 0);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_THAT(reports.take(), IsEmpty());
  EXPECT_EQ(KelSetReset(set.get()), -1);
  EXPECT_EQ(reports.take().back(), error(EINVAL, "KelSetReset: unable to get beginning pointer"));
  KelSetDeinit(nullptr);
  KelSetDelete(nullptr);
}

}  // namespace
