// Arrays against std::vector, lists against std::list.
#include <kel/array.h>

#include <gmock/gmock.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/import_hook.h"
#include "support/reports.h"

namespace {

using kel::testing::error;
using kel::testing::fail_each;
using kel::testing::Hooked;
using kel::testing::ReportCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

struct DestroyArray {
  void operator()(kelArray* array) const { kelArrayDestroy(array, nullptr); }
};
using Array = std::unique_ptr<kelArray, DestroyArray>;

struct DestroyList {
  void operator()(kelList* list) const { kelListDestroy(list, nullptr); }
};
using List = std::unique_ptr<kelList, DestroyList>;

/// Elements are addresses that nobody reads.
char space[1 << 16];
std::vector<void*> destroyed;
void note_destroyed(void* element) { destroyed.push_back(element); }

TEST(Array, AgreesWithAVectorWhileBothWalksGoOn) {
  const Array owner(kelArrayCreate(1));
  kelArray* array = owner.get();
  std::vector<void*> model;
  std::mt19937 random(1);
  size_t forward = 0, backward = 0;
  EXPECT_EQ(kelArrayFirst(array), nullptr);
  EXPECT_EQ(kelArrayLast(array), nullptr);
  EXPECT_EQ(kelArrayPrev(array), nullptr);
  for (int round = 0; round < 20000; ++round) {
    const auto dice = random() % 100;
    if (dice < 20) {
      void* element = dice == 0 ? nullptr : &space[random() % sizeof space];
      ASSERT_EQ(kelArrayAdd(array, element), 0);
      model.push_back(element);
    } else if (dice < 60) {
      ++forward;
      ASSERT_EQ(kelArrayNext(array), forward < model.size() ? model[forward] : nullptr);
    } else if (dice < 98) {
      ASSERT_EQ(kelArrayPrev(array), backward == 0 ? nullptr : model[backward - 1]);
      backward -= backward != 0;
    } else if (dice == 98) {
      forward = 0;
      ASSERT_EQ(kelArrayFirst(array), model.empty() ? nullptr : model.front());
    } else {
      backward = model.empty() ? 0 : model.size() - 1;
      ASSERT_EQ(kelArrayLast(array), model.empty() ? nullptr : model.back());
    }
    ASSERT_EQ(kelArraySize(array), model.size());
  }
  destroyed.clear();
  Array again(kelArrayCreate(0));
  for (void* element : model) kelArrayAdd(again.get(), element);
  EXPECT_EQ(kelArrayDestroy(again.release(), note_destroyed), 0);
  EXPECT_EQ(destroyed, model);
  EXPECT_EQ(kelArrayDestroy(nullptr, note_destroyed), 0);
}

TEST(Array, GrowsByWholePagesWhenItIsFull) {
  static std::vector<size_t> sizes;
  using Realloc = Hooked<"realloc", void*(void*, size_t)>;
  const Realloc hook([](void* block, size_t size) {
    sizes.push_back(size);
    return Realloc::real(block, size);
  });
  const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const size_t per_page = page / sizeof(void*);
  const std::pair<uint64_t, size_t> steps[] = {
      {1, page}, {per_page, page}, {per_page + 1, 2 * page}, {0, 1024 * sizeof(void*)}};
  for (const auto& [count, step] : steps) {
    sizes.clear();
    const Array array(kelArrayCreate(count));
    EXPECT_THAT(sizes, IsEmpty());
    for (size_t i = 0; i < step / sizeof(void*); ++i) kelArrayAdd(array.get(), space);
    EXPECT_THAT(sizes, ElementsAre(step));
    kelArrayAdd(array.get(), space);
    EXPECT_THAT(sizes, ElementsAre(step, 2 * step));
  }
}

TEST(Array, SurvivesALackOfMemory) {
  ReportCapture reports;
  EXPECT_EQ((fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM,
                                                [] { const Array none(kelArrayCreate(0)); })),
            1);
  for (const uint64_t count : {UINT64_MAX, UINT64_MAX / 8}) {
    errno = 0;
    EXPECT_EQ(kelArrayCreate(count), nullptr);
    EXPECT_EQ(errno, ENOMEM);
  }
  const auto refused = [](const std::string& size) {
    return error(ENOMEM, "kelArrayCreate: unable to allocate memory for size " + size +
                             ". (Cannot allocate memory)");
  };
  EXPECT_THAT(reports.take(), ElementsAre(refused("0"), refused("18446744073709551615"),
                                          refused("2305843009213693951")));

  const Array array(kelArrayCreate(512));
  size_t added = 0;
  const auto add_600 = [&] {
    for (int i = 0; i < 600; ++i) {
      added += kelArrayAdd(array.get(), &space[added]) == 0;
      ASSERT_EQ(kelArraySize(array.get()), added);
    }
  };
  const long failed = fail_each<"realloc", void*(void*, size_t)>(nullptr, ENOMEM, add_600);
  EXPECT_GE(failed, 1);
  EXPECT_EQ(reports.take().front(),
            error(ENOMEM,
                  "kelArrayAdd: unable to reallocate memory for size 4096. (Cannot allocate "
                  "memory)"));
  EXPECT_EQ(kelArraySize(array.get()), added);
  size_t seen = 0;
  for (void* element = kelArrayFirst(array.get()); element != nullptr;
       element = kelArrayNext(array.get()))
    EXPECT_EQ(element, &space[seen++]);
  EXPECT_EQ(seen, added);
}

TEST(List, AgreesWithAModelWhileItsWalkGoesOn) {
  ReportCapture reports;
  const List owner(kelListCreate());
  kelList* list = owner.get();
  std::vector<void*> model;
  size_t next = 0;  // index of what the walk returns next
  bool walking = false;
  std::mt19937 random(2);
  EXPECT_EQ(kelListFirst(list), nullptr);
  for (int round = 0; round < 40000; ++round) {
    void* element = &space[random() % 40];
    const auto dice = random() % 100;
    if (dice < 30) {
      // A walk that has reached the end stays there.
      if (walking && next == model.size()) walking = false;
      ASSERT_EQ(kelListAdd(list, element), 0);
      model.push_back(element);
    } else if (dice < 60) {
      const auto found = std::find(model.begin(), model.end(), element);
      ASSERT_EQ(kelListRemove(list, element), found == model.end() ? -1 : 0);
      if (found == model.end()) {
        ASSERT_EQ(errno, ENOENT);
        ASSERT_THAT(reports.take(), ElementsAre(error(2, "kelListRemove: could not find node")));
        continue;
      }
      const auto index = static_cast<size_t>(found - model.begin());
      if (index < next) --next;
      model.erase(found);
    } else if (dice < 65) {
      ASSERT_EQ(kelListFirst(list), model.empty() ? nullptr : model.front());
      walking = !model.empty();
      next = 1;
    } else {
      const bool there = walking && next < model.size();
      ASSERT_EQ(kelListNext(list), there ? model[next] : nullptr);
      if (there) ++next;
    }
  }
  EXPECT_THAT(reports.take(), IsEmpty());
}

TEST(List, IsUsableAgainAfterItsOnlyElementLeft) {
  ReportCapture reports;
  EXPECT_EQ(kelListFirst(nullptr), nullptr);
  EXPECT_EQ(kelListNext(nullptr), nullptr);
  kelListDestroy(nullptr, note_destroyed);
  EXPECT_EQ(kelGetListNodeSize(), 24u);
  List list(kelListCreate());
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(kelListAdd(list.get(), space), 0);
    EXPECT_EQ(kelListRemove(list.get(), space), 0);
    EXPECT_EQ(kelListFirst(list.get()), nullptr);
  }
  const auto add = [&] {
    const int result = kelListAdd(list.get(), space);
    EXPECT_EQ(kelListFirst(list.get()), result == 0 ? space : nullptr);
  };
  EXPECT_EQ((fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM, add)), 1);
  EXPECT_THAT(reports.take(), ElementsAre(error(ENOMEM, "kelListAdd: could not allocate memory")));
  EXPECT_EQ((fail_each<"malloc", void*(size_t)>(nullptr, ENOMEM,
                                                [] { const List none(kelListCreate()); })),
            1);
  EXPECT_THAT(reports.take(), IsEmpty());

  kelListAdd(list.get(), space + 1);
  destroyed.clear();
  kelListDestroy(list.release(), note_destroyed);
  EXPECT_THAT(destroyed, ElementsAre(space, space + 1));
}

/// Zeroed memory is an empty list, as are nodes that were linked without setting the tail.
TEST(List, FindsATailThatWasNotSet) {
  auto* list = static_cast<kelList*>(std::calloc(5, sizeof(void*)));
  kelListAdd(list, space);
  kelListAdd(list, space + 1);
  reinterpret_cast<void**>(list)[3] = nullptr;
  kelListAdd(list, space + 2);
  EXPECT_EQ(kelListFirst(list), space);
  EXPECT_EQ(kelListNext(list), space + 1);
  EXPECT_EQ(kelListNext(list), space + 2);
  EXPECT_EQ(kelListNext(list), nullptr);
  kelListDestroy(list, nullptr);
}

}  // namespace
