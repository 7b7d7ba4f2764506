// Paths on their own, and iterators over trees that change under them.
#include <kel/hashtree.h>

#include <set>

#include "containers/hashtree_records.h"
#include "support/test.h"

namespace {

using namespace kel::testing;

struct DeleteIterator {
  void operator()(KelHashTreeIterator* it) const { KelHashTreeIteratorDelete(&it); }
};
using Iterator = std::unique_ptr<KelHashTreeIterator, DeleteIterator>;

TEST(HashTreePath, IsAStackOfSixtyOneNodes) {
  ReportCapture reports;
  ASSERT_EQ(KelHashTreePathSize(), sizeof(KelHashTreePath));
  KelHashTreeNode nodes[62] = {};
  KelHashTreePath* path = KelHashTreePathNew();
  EXPECT_EQ(KelHashTreePathPop(path), nullptr);
  EXPECT_EQ(KelHashTreePathPeek(path), nullptr);
  EXPECT_EQ(errno, ENOENT);
  for (int i = 0; i < 61; ++i) EXPECT_EQ(KelHashTreePathPush(path, &nodes[i]), &nodes[i]);
  reports.take();
  expect_refused(reports, ENOBUFS, {[&] { return !KelHashTreePathPush(path, &nodes[61]); }});
  EXPECT_EQ(KelHashTreePathPop(path), &nodes[60]);
  EXPECT_EQ(KelHashTreePathPeek(path), &nodes[59]);

  EXPECT_EQ(KelHashTreePathSetDepth(path, 3), path);
  EXPECT_EQ(KelHashTreePathRemove(path, 0), &nodes[0]);
  EXPECT_EQ(KelHashTreePathReplace(path, 1, &nodes[9]), &nodes[2]);
  EXPECT_EQ(KelHashTreePathGet(path, 0), &nodes[1]);
  EXPECT_EQ(KelHashTreePathGet(path, 1), &nodes[9]);
  expect_refused(reports, EINVAL, {[&] { return !KelHashTreePathSetDepth(path, 3); }});
  expect_refused(reports, ENOENT,
                 {[&] { return !KelHashTreePathGet(path, 2); },
                  [&] { return !KelHashTreePathRemove(path, 2); },
                  [&] { return !KelHashTreePathReplace(path, 2, &nodes[1]); }});
  EXPECT_EQ(KelHashTreePathEmpty(path), 0);
  EXPECT_EQ(KelHashTreePathGetDepth(path), 0u);
  KelHashTreePathDelete(&path);
}

TEST(HashTreePath, ValidationFindsAWrongRootEndOrStep) {
  ReportCapture reports;
  KelHashTreeNode nodes[4] = {};
  nodes[0].link[1] = &nodes[1];
  nodes[1].link[0] = &nodes[2];
  KelHashTreePath path;
  ASSERT_EQ(KelHashTreePathInit(&path), &path);
  const auto validate = [&](size_t root, size_t node) {
    return KelHashTreePathValidateCompletely(&path, &nodes[root], &nodes[node]);
  };
  EXPECT_EQ(validate(0, 0), 0);
  for (int i = 0; i < 3; ++i) KelHashTreePathPush(&path, &nodes[i]);
  EXPECT_EQ(validate(0, 2), 1);
  EXPECT_EQ(validate(1, 2), 0);
  EXPECT_EQ(validate(0, 1), 0);
  path.entries[1] = &nodes[3];
  EXPECT_EQ(validate(0, 2), 0);
}

void insert(KelHashTree* tree, uint64_t key) {
  const Record record = {key, static_cast<uint32_t>(key)};
  KelHashTreeFindOrInsert(tree, &record, nullptr);
}

// Searches, steps, jumps to the ends and looks at the current record, while records come and go,
// often the current one, and the table is rebuilt in another size. Insertions into a small tree
// often change its root.
void follow_model(uint32_t num_keys) {
  enum { kBeforeFirst = 1, kOnRecord = 0, kAfterLast = 2 };  // KelHashTreeIterator::state
  uint32_t bits = 0;
  const Tree tree = make_tree(bits);
  std::mt19937 random(1);
  std::set<Place> model;
  const Iterator owner(KelHashTreeIteratorNewEnd(tree.get()));
  KelHashTreeIterator* it = owner.get();
  Place current;  // while the iterator is on a record
  int where = kAfterLast;
  for (int round = 0; round < 60000; ++round) {
    if (round % 10000 == 9999) {
      bits = bits == 0 ? 4 : 0;
      ASSERT_EQ(KelHashTreeSetBits(tree.get(), bits), 0);
      std::set<Place> moved;
      for (const Place& place : model) moved.insert(place_of(place.second, bits));
      model = std::move(moved);
      current = place_of(current.second, bits);
    }
    Record record = {random() % num_keys, 1};
    Record out = {};
    const auto dice = random() % 100;
    if (dice < 12) {
      KelHashTreeFindOrInsert(tree.get(), &record, nullptr);
      model.insert(place_of(record.key, bits));
    } else if (dice < 20) {
      if (dice < 14) record.key = current.second;
      ASSERT_EQ(KelHashTreeRemove(tree.get(), &record, nullptr),
                model.erase(place_of(record.key, bits)));
    } else if (dice < 22) {
      KelHashTreeReplaceOrInsert(tree.get(), &record, nullptr);
      model.insert(place_of(record.key, bits));
    } else if (dice < 24) {
      current = place_of(record.key, bits);
      ASSERT_EQ(KelHashTreeIteratorFind(it, &record, &out), model.contains(current));
      where = kOnRecord;
    } else if (dice == 24) {
      where = random() % 2 == 0 ? kBeforeFirst : kAfterLast;
      ASSERT_EQ(where == kAfterLast ? KelHashTreeIteratorEnd(it) : KelHashTreeIteratorBegin(it), 0);
    } else if (dice < 27) {
      const bool first = dice == 25;
      ASSERT_EQ(first ? KelHashTreeIteratorFirst(it, &out) : KelHashTreeIteratorLast(it, &out),
                !model.empty());
      if (model.empty()) continue;
      current = first ? *model.begin() : *model.rbegin();
      where = kOnRecord;
    } else if (dice < 40) {
      const bool there = where == kOnRecord && model.contains(current);
      ASSERT_EQ(KelHashTreeIteratorCurrent(it, &out), there);
      ASSERT_EQ(out.key, there ? current.second : 0);
    } else {
      const bool forward = dice < 70;
      const auto at = where == kBeforeFirst ? model.begin()
                      : where == kAfterLast ? model.end()
                      : forward             ? model.upper_bound(current)
                                            : model.lower_bound(current);
      const bool there = at != (forward ? model.end() : model.begin());
      ASSERT_EQ(forward ? KelHashTreeIteratorNext(it, &out) : KelHashTreeIteratorPrev(it, &out),
                there);
      if (there) {
        current = forward ? *at : *std::prev(at);
        where = kOnRecord;
        ASSERT_EQ(out.key, current.second);
      } else if (where == kOnRecord) {
        where = forward ? kAfterLast : kBeforeFirst;
      }
    }
    ASSERT_EQ(it->state, static_cast<uint32_t>(where));
  }
}

TEST(HashTreeIterator, FollowsAModelWhileTheTreeChanges) {
  follow_model(500);
  follow_model(12);
}

TEST(HashTreeIterator, StartsOnAKeyOrInTheGapWhereItWouldBe) {
  ReportCapture reports;
  const Tree tree = make_tree(0);
  for (const uint64_t key : {10, 20, 30}) insert(tree.get(), key);
  Record key = {20, 0};
  Record r = {};
  errno = EIO;
  const Iterator found(KelHashTreeIteratorNewFind(tree.get(), &key, &r));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(r, (Record{20, 20}));

  key.key = 25;
  const Iterator gap(KelHashTreeIteratorNewFind(tree.get(), &key, &r));
  ASSERT_NE(gap, nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KelHashTreeIteratorCurrent(gap.get(), &r), 0);
  EXPECT_EQ(KelHashTreeIteratorNext(gap.get(), &r), 1);
  EXPECT_EQ(r.key, 30u);
}

TEST(HashTreeIterator, FailuresReleaseWhatWasBuilt) {
  ReportCapture reports;
  Faults faults;
  const Tree tree = make_tree(0, &faults);
  expect_refused(reports, ENOENT,
                 {[&] { return !KelHashTreeIteratorNewFirst(tree.get(), nullptr); },
                  [&] { return !KelHashTreeIteratorNewLast(tree.get(), nullptr); }});
  for (uint64_t key = 0; key < 5; ++key) insert(tree.get(), key);
  const Record key = {3, 0};
  Record r = {};
  const Iterator it(KelHashTreeIteratorNewFirst(tree.get(), &r));
  faults.fail(1);
  EXPECT_EQ(KelHashTreeIteratorNewFind(tree.get(), &key, nullptr), nullptr);
  EXPECT_EQ(errno, EIO);
  faults.fail(1);
  EXPECT_EQ(KelHashTreeIteratorFind(it.get(), &key, nullptr), -1);
  EXPECT_EQ(KelHashTreeIteratorNext(it.get(), &r), 1);
  EXPECT_EQ(r.key, 1u);

  EXPECT_EQ(fail_each_malloc([&] {
              errno = 0;
              const Iterator made(KelHashTreeIteratorNewBegin(tree.get()));
              EXPECT_EQ(errno, made == nullptr ? ENOMEM : 0);
            }),
            3);
  KelHashTreePathDelete(&it->path);
  EXPECT_EQ(KelHashTreeIteratorPrev(it.get(), &r), -1);
  EXPECT_EQ(errno, EINVAL);
}

}  // namespace
