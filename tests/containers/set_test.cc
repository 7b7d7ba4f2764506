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
  const auto bits = [](uint64_t max_objects, KelSetHashFn hash) {
    const Set set(KelSetNew(compare_records, hash, nullptr, max_objects));
    return KelHashTreeGetBits(set->tree);
  };
  for (const auto& [max_objects, expected] : {std::pair{0ul, 0u},
                                              {31, 0},
                                              {32, 1},
                                              {47, 1},
                                              {48, 2},
                                              {79, 2},
                                              {80, 3},
                                              {96, 3},
                                              {k28 / 16, 20},
                                              {k28, 24},
                                              {UINT64_MAX, 24}})
    EXPECT_EQ(bits(max_objects, hash_record), expected) << max_objects;
  EXPECT_EQ(bits(k28, nullptr), 0u);
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
  expect_refused(reports, ENOBUFS,
                 {[&] { return !KelSetFindOrInsert(&embedded, &third, &inserted); },
                  [&] { return !KelSetFindOrInsert(&embedded, &twin, &inserted); }});
  EXPECT_EQ(KelSetRemove(&embedded, &twin), &first);
  EXPECT_EQ(KelSetRemove(&embedded, &twin), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KelSetFindOrInsert(&embedded, &twin, nullptr), &twin);
  EXPECT_THAT(reports.take(), IsEmpty());

  EXPECT_EQ(KelSetReset(&embedded), 0);
  EXPECT_EQ(KelHashTreeGetNumSlabs(embedded.tree), 0u);
  EXPECT_EQ(KelSetGetNextObject(&embedded), nullptr);
  KelSetDeinit(&embedded);
  EXPECT_EQ(KelSetValidate(&embedded), 0);
}

/// Objects live exactly as long as they are in the set, so that a sanitizer sees any use of one
/// that was removed.
TEST(Set, FollowsAModelWhileItsWalkGoesOn) {
  std::mt19937_64 random(1);
  for (int round = 0; round < 400; ++round) {
    const bool hashed = round % 2 != 0;
    const Set owner(KelSetNew(compare_records, hashed ? hash_record : nullptr, nullptr, 400));
    KelSet* set = owner.get();
    const uint32_t bits = KelHashTreeGetBits(set->tree);
    const auto place = [&](uint64_t key) {
      return Place(bits == 0 ? 0 : hash_value(key) >> (32 - bits), key);
    };
    std::set<Place> model;
    const auto add = [&](uint64_t key) {
      auto object = std::make_unique<Record>(key, 0);
      const bool is_new = model.insert(place(key)).second;
      ASSERT_EQ(KelSetFindOrInsert(set, object.get(), nullptr) == object.get(), is_new);
      if (is_new) (void)object.release();
    };
    const auto remove = [&](uint64_t key) {
      Record probe = {key, 0};
      ASSERT_EQ(KelSetFind(set, &probe) != nullptr, model.contains(place(key)));
      const std::unique_ptr<Record> removed(static_cast<Record*>(KelSetRemove(set, &probe)));
      ASSERT_EQ(removed != nullptr, model.erase(place(key)) == 1);
    };
    for (uint64_t i = random() % 100; i != 0; --i) add(random() % 100);

    // Often the walk's own object goes, or its next one.
    auto* object = static_cast<Record*>(KelSetGetFirstObject(set));
    for (auto next = model.begin(); next != model.end();
         object = static_cast<Record*>(KelSetGetNextObject(set))) {
      ASSERT_NE(object, nullptr);
      const Place at = place(object->key);
      ASSERT_EQ(at, *next);
      if (random() % 3 == 0) remove(at.second);
      if (next = model.upper_bound(at); next != model.end() && random() % 3 == 0)
        remove(next->second);
      if (!model.empty() && random() % 3 == 0) remove(model.begin()->second);
      if (const uint64_t key = random() % 100; place(key) < at) add(key);
      next = model.upper_bound(at);
    }
    ASSERT_EQ(object, nullptr);
    ASSERT_EQ(KelSetGetNextObject(set), nullptr);
    ASSERT_EQ(KelSetGetNumObjects(set), model.size());
    while (!model.empty()) remove(model.begin()->second);
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
  const auto fails = [&](auto operation) {
    faults.fail(1);
    EXPECT_EQ(operation(), nullptr);
    EXPECT_EQ(errno, EIO);
  };
  fails([&] { return KelSetFindOrInsert(set, &absent, &inserted); });
  fails([&] { return KelSetFind(set, &objects[3]); });
  fails([&] { return KelSetRemove(set, &objects[3]); });
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
}

TEST(Set, FailuresReleaseWhatWasBuilt) {
  ReportCapture reports;
  const auto build = [] {
    errno = 0;
    const Set made(KelSetNew(compare_records, hash_record, nullptr, 1000));
    EXPECT_EQ(errno, made == nullptr ? ENOMEM : 0);
  };
  // The set, the tree and its store; the iterator, its record and its path.
  EXPECT_EQ(fail_each_malloc(build), 6);
  EXPECT_EQ(fail_each_calloc(build), 1);
}

TEST(Set, MissingArgumentsAreReported) {
  ReportCapture reports;
  const Set set(KelSetNew(compare_records, nullptr, nullptr, 1));
  expect_refused(reports, EINVAL,
                 {[] { return !KelSetInit(nullptr, compare_records, nullptr, nullptr, 1); },
                  [&] { return !KelSetFindOrInsert(set.get(), nullptr, nullptr); },
                  [] { return KelSetGetNumObjects(nullptr) == UINT64_MAX; },
                  [] { return !KelSetGetNextObject(nullptr); }});
  EXPECT_EQ(KelSetValidate(set.get()), 1);
  EXPECT_EQ(KelSetValidate(nullptr), 0);
  KelHashTreeIteratorDelete(&set->iterator);
  EXPECT_EQ(KelSetValidate(set.get()), 0);
  EXPECT_EQ(KelSetReset(set.get()), -1);
  EXPECT_EQ(errno, EINVAL);
  KelSetDelete(nullptr);
}

}  // namespace
