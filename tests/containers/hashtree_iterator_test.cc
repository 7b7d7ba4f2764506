// Paths on their own, and iterators over trees that change under them.
#include <kel/hashtree.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>

#include "containers/hashtree_records.h"
#include "support/import_hook.h"
#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::fail_each;
using kel::testing::Faults;
using kel::testing::hash_value;
using kel::testing::make_tree;
using kel::testing::Record;
using kel::testing::ReportCapture;
using kel::testing::Tree;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct DeleteIterator {
  void operator()(KelHashTreeIterator* it) const { KelHashTreeIteratorDelete(&it); }
};
using Iterator = std::unique_ptr<KelHashTreeIterator, DeleteIterator>;

TEST(HashTreePath, IsAStackOfSixtyOneNodes) {
  ReportCapture reports;
  KelHashTreeNode nodes[62] = {};
  KelHashTreePath* path = KelHashTreePathNew();
  EXPECT_EQ(KelHashTreePathPop(path), nullptr);
  EXPECT_EQ(KelHashTreePathPeek(path), nullptr);
  EXPECT_EQ(KelHashTreePathGet(path, 0), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(2, "KelHashTreePathPop: path depth is 0"),
                          error(2, "KelHashTreePathPeek: path depth is 0"),
                          error(2,
                                "KelHashTreePathGet: depth (0) greater than or equal to path "
                                "depth (0)")));
  for (int i = 0; i < 61; ++i) EXPECT_EQ(KelHashTreePathPush(path, &nodes[i]), &nodes[i]);
  EXPECT_EQ(KelHashTreePathPush(path, &nodes[61]), nullptr);
  EXPECT_EQ(errno, ENOBUFS);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(105,
                                "KelHashTreePathPush: current depth (61) equal to max depth "
                                "allowed (61)")));
  EXPECT_EQ(KelHashTreePathGetDepth(path), 61u);
  EXPECT_EQ(KelHashTreePathPeek(path), &nodes[60]);
  EXPECT_EQ(KelHashTreePathPop(path), &nodes[60]);

  EXPECT_EQ(KelHashTreePathSetDepth(path, 3), path);
  EXPECT_EQ(KelHashTreePathRemove(path, 0), &nodes[0]);
  EXPECT_EQ(KelHashTreePathGet(path, 0), &nodes[1]);
  EXPECT_EQ(KelHashTreePathGet(path, 1), &nodes[2]);
  EXPECT_EQ(KelHashTreePathReplace(path, 1, &nodes[9]), &nodes[2]);
  EXPECT_EQ(KelHashTreePathGet(path, 1), &nodes[9]);
  EXPECT_THAT(reports.take(), IsEmpty());

  EXPECT_EQ(KelHashTreePathSetDepth(path, 3), nullptr);
  EXPECT_EQ(KelHashTreePathRemove(path, 2), nullptr);
  EXPECT_EQ(KelHashTreePathReplace(path, 2, &nodes[1]), nullptr);
  EXPECT_EQ(KelHashTreePathReplace(path, 0, nullptr), nullptr);
  EXPECT_EQ(KelHashTreePathPush(path, nullptr), nullptr);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(
          error(22, "KelHashTreePathSetDepth: depth (3) greater than path depth (2)"),
          error(2, "KelHashTreePathRemove: depth (2) greater than or equal to path depth (2)"),
          error(2, "KelHashTreePathReplace: depth (2) greater than or equal to path depth (2)"),
          error(22, "KelHashTreePathReplace: invalid NULL parameter"),
          error(22, "KelHashTreePathPush: invalid NULL parameter")));
  EXPECT_EQ(KelHashTreePathEmpty(path), 0);
  EXPECT_EQ(KelHashTreePathGetDepth(path), 0u);
  KelHashTreePathDelete(&path);
  EXPECT_EQ(path, nullptr);
}

TEST(HashTreePath, ValidationNamesWhatIsWrong) {
  ReportCapture reports;
  KelHashTreeNode nodes[4] = {};
  nodes[0].link[1] = &nodes[1];
  nodes[1].link[0] = &nodes[2];
  KelHashTreePath path;
  ASSERT_EQ(KelHashTreePathInit(&path), &path);
  EXPECT_EQ(KelHashTreePathValidateCompletely(&path, &nodes[0], &nodes[0]), 0);
  for (int i = 0; i < 3; ++i) KelHashTreePathPush(&path, &nodes[i]);
  EXPECT_EQ(KelHashTreePathValidateCompletely(&path, &nodes[0], &nodes[2]), 1);
  EXPECT_EQ(KelHashTreePathValidateCompletely(&path, &nodes[1], &nodes[2]), 0);
  EXPECT_EQ(KelHashTreePathValidateCompletely(&path, &nodes[0], &nodes[1]), 0);
  path.entries[1] = &nodes[3];
  errno = 0;
  EXPECT_EQ(KelHashTreePathValidateCompletely(&path, &nodes[0], &nodes[2]), 0);
  EXPECT_EQ(errno, EINVAL);
  const std::string name = "KelHashTreePathValidateCompletely: ";
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(name + "invalid NULL parameter",
                          name + "initial path does not point to tree root",
                          name + "final path does not point to specified node",
                          name + "parent does not have specified node as a child"));
}

TEST(HashTreePath, MissingArgumentsAreReported) {
  ReportCapture reports;
  KelHashTreeNode node = {};
  EXPECT_EQ(KelHashTreePathInit(nullptr), nullptr);
  EXPECT_EQ(KelHashTreePathEmpty(nullptr), -1);
  EXPECT_EQ(KelHashTreePathPush(nullptr, &node), nullptr);
  EXPECT_EQ(KelHashTreePathPop(nullptr), nullptr);
  EXPECT_EQ(KelHashTreePathPeek(nullptr), nullptr);
  EXPECT_EQ(KelHashTreePathGet(nullptr, 0), nullptr);
  EXPECT_EQ(KelHashTreePathGetDepth(nullptr), UINT64_MAX);
  EXPECT_EQ(KelHashTreePathSetDepth(nullptr, 0), nullptr);
  EXPECT_EQ(KelHashTreePathRemove(nullptr, 0), nullptr);
  EXPECT_EQ(KelHashTreePathReplace(nullptr, 0, &node), nullptr);
  std::vector<kel::testing::Report> expected;
  for (const char* function :
       {"Init", "Empty", "Push", "Pop", "Peek", "Get", "GetDepth", "SetDepth", "Remove", "Replace"})
    expected.push_back(
        error(22, std::string("KelHashTreePath") + function + ": invalid NULL parameter"));
  EXPECT_EQ(reports.take(), expected);
  KelHashTreePathDeinit(nullptr);
  KelHashTreePathDelete(nullptr);
  EXPECT_EQ(KelHashTreePathSize(), sizeof(KelHashTreePath));
}

void insert(KelHashTree* tree, uint64_t key) {
  const Record record = {key, static_cast<uint32_t>(key)};
  KelHashTreeFindOrInsert(tree, &record, nullptr);
}

TEST(HashTreeIterator, StatesLeadFromOneEndToTheOther) {
  const Tree tree = make_tree(0);
  for (const uint64_t key : {1, 2, 3}) insert(tree.get(), key);
  const Iterator owner(KelHashTreeIteratorNewBegin(tree.get()));
  KelHashTreeIterator* it = owner.get();
  Record r = {};
  EXPECT_EQ(KelHashTreeIteratorPrev(it, &r), 0);
  EXPECT_EQ(KelHashTreeIteratorCurrent(it, &r), 0);
  for (const uint64_t key : {1, 2, 3}) {
    EXPECT_EQ(KelHashTreeIteratorNext(it, &r), 1);
    EXPECT_EQ(r.key, key);
    EXPECT_EQ(KelHashTreeIteratorCurrent(it, &r), 1);
    EXPECT_EQ(r.key, key);
    EXPECT_EQ(it->state, 0u);
  }
  EXPECT_EQ(KelHashTreeIteratorNext(it, &r), 0);
  EXPECT_EQ(it->state, 2u);
  EXPECT_EQ(KelHashTreeIteratorNext(it, &r), 0);
  EXPECT_EQ(KelHashTreeIteratorCurrent(it, &r), 0);
  for (const uint64_t key : {3, 2, 1}) {
    EXPECT_EQ(KelHashTreeIteratorPrev(it, nullptr), 1);
    EXPECT_EQ(KelHashTreeIteratorCurrent(it, &r), 1);
    EXPECT_EQ(r.key, key);
  }
  EXPECT_EQ(KelHashTreeIteratorPrev(it, &r), 0);
  EXPECT_EQ(it->state, 1u);
  EXPECT_EQ(KelHashTreeIteratorEnd(it), 0);
  EXPECT_EQ(KelHashTreeIteratorPrev(it, &r), 1);
  EXPECT_EQ(r.key, 3u);
  EXPECT_EQ(KelHashTreeIteratorBegin(it), 0);
  EXPECT_EQ(KelHashTreeIteratorNext(it, &r), 1);
  EXPECT_EQ(r.key, 1u);
  EXPECT_EQ(KelHashTreeIteratorLast(it, &r), 1);
  EXPECT_EQ(r.key, 3u);
  KelHashTreeEmpty(tree.get());
  EXPECT_EQ(KelHashTreeIteratorFirst(it, &r), 0);
  EXPECT_EQ(it->state, 0u);
  EXPECT_EQ(KelHashTreeIteratorPrev(it, &r), 0);
  EXPECT_EQ(it->state, 1u);
}

TEST(HashTreeIterator, FindsKeysAndGapsBetweenThem) {
  ReportCapture reports;
  const Tree tree = make_tree(0);
  for (const uint64_t key : {10, 20, 30}) insert(tree.get(), key);
  Record key = {20, 0};
  Record r = {};
  errno = EIO;
  const Iterator found(KelHashTreeIteratorNewFind(tree.get(), &key, &r));
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(r, (Record{20, 20}));
  EXPECT_THAT(reports.take(), IsEmpty());

  key.key = 25;
  const Iterator gap(KelHashTreeIteratorNewFind(tree.get(), &key, &r));
  ASSERT_NE(gap, nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_THAT(reports.take(),
              ElementsAre(error(2,
                                "KelHashTreeIteratorInitFind: failed to find tree iterator: No "
                                "such file or directory")));
  EXPECT_EQ(KelHashTreeIteratorCurrent(gap.get(), &r), 0);
  EXPECT_EQ(KelHashTreeIteratorNext(gap.get(), &r), 1);
  EXPECT_EQ(r.key, 30u);
  EXPECT_EQ(KelHashTreeIteratorFind(gap.get(), &key, &r), 0);
  EXPECT_EQ(KelHashTreeIteratorPrev(gap.get(), &r), 1);
  EXPECT_EQ(r.key, 20u);
  key.key = 10;
  EXPECT_EQ(KelHashTreeIteratorFind(gap.get(), &key, &r), 1);
  EXPECT_EQ(KelHashTreeIteratorCurrent(gap.get(), &r), 1);
  EXPECT_EQ(r.key, 10u);
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(HashTreeIterator, GoesOnFromARemovedRecord) {
  const Tree tree = make_tree(3);
  for (uint64_t key = 0; key < 50; ++key) insert(tree.get(), key);
  const Iterator it(KelHashTreeIteratorNewBegin(tree.get()));
  std::set<uint64_t> seen;
  Record r;
  while (KelHashTreeIteratorNext(it.get(), &r) == 1) {
    EXPECT_TRUE(seen.insert(r.key).second);
    EXPECT_EQ(KelHashTreeRemove(tree.get(), &r, nullptr), 1);
    EXPECT_EQ(KelHashTreeIteratorCurrent(it.get(), &r), 0);
  }
  EXPECT_EQ(seen.size(), 50u);
}

TEST(HashTreeIterator, FollowsAModelWhileTheTreeChanges) {
  for (const uint32_t bits : {0u, 4u}) {
    const Tree tree = make_tree(bits);
    std::mt19937 random(bits);
    using Place = std::pair<uint32_t, uint64_t>;
    const auto place = [&](uint64_t key) {
      return Place(hash_value(key) & ((1u << bits) - 1), key);
    };
    std::set<Place> model;
    const Iterator owner(KelHashTreeIteratorNewEnd(tree.get()));
    KelHashTreeIterator* it = owner.get();
    Place current;  // while the iterator is on a record
    int where = 1;  // -1 before the first record, 0 on one, 1 after the last
    for (int round = 0; round < 60000; ++round) {
      const Record record = {random() % 500, 1};
      Record out = {};
      const auto dice = random() % 100;
      if (dice < 12) {
        KelHashTreeFindOrInsert(tree.get(), &record, nullptr);
        model.insert(place(record.key));
      } else if (dice < 20) {
        KelHashTreeRemove(tree.get(), &record, nullptr);
        model.erase(place(record.key));
      } else if (dice < 22) {
        KelHashTreeReplaceOrInsert(tree.get(), &record, nullptr);
        model.insert(place(record.key));
      } else if (dice < 24) {
        const bool known = model.contains(place(record.key));
        ASSERT_EQ(KelHashTreeIteratorFind(it, &record, &out), known);
        current = place(record.key);
        where = 0;
      } else if (dice < 26) {
        const bool first = dice == 24;
        ASSERT_EQ(first ? KelHashTreeIteratorFirst(it, &out) : KelHashTreeIteratorLast(it, &out),
                  !model.empty());
        if (model.empty()) continue;
        current = first ? *model.begin() : *model.rbegin();
        where = 0;
      } else if (dice < 40) {
        const bool there = where == 0 && model.contains(current);
        ASSERT_EQ(KelHashTreeIteratorCurrent(it, &out), there);
        if (there) {
          ASSERT_EQ(out.key, current.second);
        }
      } else {
        const bool forward = dice < 70;
        auto at = where == 0 ? (forward ? model.upper_bound(current) : model.lower_bound(current))
                             : (where < 0 ? model.begin() : model.end());
        const bool there = forward ? at != model.end() : at != model.begin();
        ASSERT_EQ(forward ? KelHashTreeIteratorNext(it, &out) : KelHashTreeIteratorPrev(it, &out),
                  there);
        // In an empty tree a step from an end leads nowhere.
        if (!there) {
          if (where == 0) where = forward ? 1 : -1;
          continue;
        }
        current = forward ? *at : *std::prev(at);
        where = 0;
        ASSERT_EQ(out.key, current.second);
      }
    }
  }
}

TEST(HashTreeIterator, WalksOnInTheNewOrderWhenTheNumberOfBucketsChanges) {
  const Tree tree = make_tree(1);
  for (uint64_t key = 0; key < 100; ++key) insert(tree.get(), key);
  const Iterator it(KelHashTreeIteratorNewBegin(tree.get()));
  Record r;
  for (int i = 0; i < 10; ++i) KelHashTreeIteratorNext(it.get(), &r);
  ASSERT_EQ(KelHashTreeSetBits(tree.get(), 5), 0);
  EXPECT_EQ(KelHashTreeIteratorCurrent(it.get(), &r), 1);
  Record expected;
  while (KelHashTreeNextNode(tree.get(), &r, &expected, nullptr) == 1) {
    ASSERT_EQ(KelHashTreeIteratorNext(it.get(), &r), 1);
    ASSERT_EQ(r, expected);
  }
  EXPECT_EQ(KelHashTreeIteratorNext(it.get(), &r), 0);
}

TEST(HashTreeIterator, FailuresReleaseWhatWasBuilt) {
  ReportCapture reports;
  Faults faults;
  const Tree tree = make_tree(0, &faults);
  const std::string no_such = ": No such file or directory";
  EXPECT_EQ(KelHashTreeIteratorNewFirst(tree.get(), nullptr), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(KelHashTreeIteratorNewLast(tree.get(), nullptr), nullptr);
  EXPECT_THAT(
      reports.take(),
      ElementsAre(
          error(2, "KelHashTreeIteratorInitFirst: failed to find first tree iterator" + no_such),
          error(2, "KelHashTreeIteratorInitLast: failed to find last tree iterator position" +
                       no_such)));

  for (uint64_t key = 0; key < 5; ++key) insert(tree.get(), key);
  const Record key = {3, 0};
  Record r = {};
  const Iterator it(KelHashTreeIteratorNewFirst(tree.get(), &r));
  faults = {.comparisons = 0, .failing = 1, .error = EIO};
  EXPECT_EQ(KelHashTreeIteratorNewFind(tree.get(), &key, nullptr), nullptr);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(reports.take().back(),
            error(5,
                  "KelHashTreeIteratorInitFind: error occurred while finding tree iterator: "
                  "Input/output error"));
  faults = {.comparisons = 0, .failing = 1, .error = EIO};
  EXPECT_EQ(KelHashTreeIteratorFind(it.get(), &key, nullptr), -1);
  EXPECT_EQ(KelHashTreeIteratorNext(it.get(), &r), 1);
  EXPECT_EQ(r.key, 1u);

  reports.take();
  const long failed = fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, [&] {
    errno = 0;
    if (Iterator(KelHashTreeIteratorNewBegin(tree.get())) == nullptr) {
      EXPECT_EQ(errno, ENOMEM);
    }
  });
  EXPECT_EQ(failed, 3);
  const auto texts = reports.take_texts();
  const std::string init = "KelHashTreeIteratorInitBegin: unable to ";
  EXPECT_EQ(texts.at(1), init + "allocate memory: Cannot allocate memory");
  EXPECT_EQ(texts.back(), init + "create new tree path: Cannot allocate memory");

  EXPECT_EQ(KelHashTreeIteratorNext(nullptr, &r), -1);
  EXPECT_EQ(KelHashTreeIteratorInitEnd(nullptr, tree.get()), nullptr);
  EXPECT_EQ(KelHashTreeIteratorNewBegin(nullptr), nullptr);
  EXPECT_EQ(errno, EINVAL);
  KelHashTreePathDelete(&it->path);
  EXPECT_EQ(KelHashTreeIteratorPrev(it.get(), &r), -1);
  EXPECT_EQ(reports.take().back(),
            error(22,
                  "KelHashTreeIteratorPrev: unable to tell if tree path is empty: Invalid "
                  "argument"));
  KelHashTreeIteratorDeinit(nullptr);
  KelHashTreeIteratorDelete(nullptr);
}

}  // namespace
