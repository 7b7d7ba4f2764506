// Arrays and lists against models.
#include <kel/array.h>

#include <cstdlib>

#include "support/test.h"

namespace {

using namespace kel::testing;

struct Destroy {
  void operator()(kelArray* array) const { kelArrayDestroy(array, nullptr); }
  void operator()(kelList* list) const { kelListDestroy(list, nullptr); }
};
using Array = std::unique_ptr<kelArray, Destroy>;
using List = std::unique_ptr<kelList, Destroy>;

/// Elements are addresses that nobody reads.
char space[1 << 16];
std::vector<void*> destroyed;
void note_destroyed(void* element) { destroyed.push_back(element); }

TEST(Array, AgreesWithAVectorWhileBothWalksGoOn) {
  Array array(kelArrayCreate(1));
  std::vector<void*> model;
  std::mt19937 random(1);
  size_t forward = 0, backward = 0;
  for (int round = 0; round < 20000; ++round) {
    const auto dice = random() % 100;
    if (dice < 20) {
      void* element = dice == 0 ? nullptr : &space[random() % sizeof space];
      ASSERT_EQ(kelArrayAdd(array.get(), element), 0);
      model.push_back(element);
    } else if (dice < 60) {
      ++forward;
      ASSERT_EQ(kelArrayNext(array.get()), forward < model.size() ? model[forward] : nullptr);
    } else if (dice < 98) {
      ASSERT_EQ(kelArrayPrev(array.get()), backward == 0 ? nullptr : model[backward - 1]);
      backward -= backward != 0;
    } else if (dice == 98) {
      forward = 0;
      ASSERT_EQ(kelArrayFirst(array.get()), model.empty() ? nullptr : model.front());
    } else {
      backward = model.empty() ? 0 : model.size() - 1;
      ASSERT_EQ(kelArrayLast(array.get()), model.empty() ? nullptr : model.back());
    }
    ASSERT_EQ(kelArraySize(array.get()), model.size());
    // Fill, empty and fill again, so that the walks meet arrays without an element.
    if (round % 5000 != 10) continue;
    destroyed.clear();
    EXPECT_EQ(kelArrayDestroy(array.release(), note_destroyed), 0);
    EXPECT_EQ(destroyed, model);
    array.reset(kelArrayCreate(0));
    model.clear();
    forward = backward = 0;
  }
  EXPECT_EQ(kelArrayDestroy(nullptr, note_destroyed), 0);
}

TEST(Array, SurvivesALackOfMemory) {
  ReportCapture reports;
  EXPECT_EQ(fail_each_malloc([] { const Array none(kelArrayCreate(0)); }), 1);
  EXPECT_EQ(kelArrayCreate(UINT64_MAX / 8), nullptr);
  const Array array(kelArrayCreate(512));
  size_t added = 0;
  const auto add_600 = [&] {
    for (int i = 0; i < 600; ++i) {
      added += kelArrayAdd(array.get(), &space[added]) == 0;
      ASSERT_EQ(kelArraySize(array.get()), added);
    }
  };
  EXPECT_GE(fail_each_realloc(add_600), 1);
  EXPECT_THAT(reports.take(), Each(Field(&Report::code, ENOMEM)));
  void* element = kelArrayFirst(array.get());
  for (size_t i = 0; i < added; ++i, element = kelArrayNext(array.get()))
    ASSERT_EQ(element, &space[i]);
}

TEST(List, AgreesWithAModelWhileItsWalkGoesOn) {
  ReportCapture reports;
  List list(kelListCreate());
  std::vector<void*> model;
  size_t next = 0;  // index of what the walk returns next
  bool walking = false;
  std::mt19937 random(2);
  for (int round = 0; round < 40000; ++round) {
    void* element = &space[random() % 40];
    const auto dice = random() % 100;
    if (dice < 30) {
      // A walk that has reached the end stays there.
      if (walking && next == model.size()) walking = false;
      ASSERT_EQ(kelListAdd(list.get(), element), 0);
      model.push_back(element);
    } else if (dice < 60) {
      const auto found = std::find(model.begin(), model.end(), element);
      ASSERT_EQ(kelListRemove(list.get(), element), found == model.end() ? -1 : 0);
      if (found == model.end()) {
        ASSERT_THAT(reports.take(),
                    ElementsAre(error(ENOENT, "kelListRemove: could not find node")));
        continue;
      }
      if (found - model.begin() < static_cast<ptrdiff_t>(next)) --next;
      model.erase(found);
    } else if (dice < 65) {
      ASSERT_EQ(kelListFirst(list.get()), model.empty() ? nullptr : model.front());
      walking = !model.empty();
      next = 1;
    } else {
      const bool there = walking && next < model.size();
      ASSERT_EQ(kelListNext(list.get()), there ? model[next] : nullptr);
      if (there) ++next;
    }
  }
  EXPECT_THAT(reports.take(), IsEmpty());
  destroyed.clear();
  kelListDestroy(list.release(), note_destroyed);
  EXPECT_EQ(destroyed, model);
}

TEST(List, SurvivesMissingArgumentsAndALackOfMemory) {
  ReportCapture reports;
  EXPECT_EQ(kelListFirst(nullptr), nullptr);
  EXPECT_EQ(kelListNext(nullptr), nullptr);
  kelListDestroy(nullptr, note_destroyed);
  const List list(kelListCreate());
  EXPECT_EQ(fail_each_malloc([&] {
              const bool added = kelListAdd(list.get(), space) == 0;
              EXPECT_EQ(kelListFirst(list.get()), added ? space : nullptr);
              EXPECT_EQ(kelListRemove(list.get(), space), added ? 0 : -1);
            }),
            1);
  EXPECT_EQ(reports.take().front().code, ENOMEM);
  EXPECT_EQ(fail_each_malloc([] { const List none(kelListCreate()); }), 1);
}

/// Zeroed memory is an empty list, as are nodes that were linked without setting the tail.
TEST(List, FindsATailThatWasNotSet) {
  EXPECT_EQ(kelGetListNodeSize(), 24u);
  const List list(static_cast<kelList*>(std::calloc(5, sizeof(void*))));
  kelListAdd(list.get(), space);
  kelListAdd(list.get(), space + 1);
  reinterpret_cast<void**>(list.get())[3] = nullptr;
  kelListAdd(list.get(), space + 2);
  EXPECT_EQ(kelListFirst(list.get()), space);
  EXPECT_EQ(kelListNext(list.get()), space + 1);
  EXPECT_EQ(kelListNext(list.get()), space + 2);
  EXPECT_EQ(kelListNext(list.get()), nullptr);
}

}  // namespace
