#include <kel/library.h>
#include <kel/logging.h>
#include <kel/runtime.h>

#include <netdb.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <thread>

#include "support/test.h"

namespace {

using namespace kel::testing;

constexpr size_t kMega = 1 << 20;

class Accounting : public ::testing::Test {
 protected:
  static void count_when(const char* memstat) {
    setenv("MEMSTAT", memstat, 1);
    XAllocInit();
  }
  void TearDown() override {
    unsetenv("MEMSTAT");
    XAllocInit();
  }
  std::vector<std::string> usage() {
    XAllocReport();
    return reports_.take_texts();
  }
  static std::vector<std::string> libcr(const std::string& megabytes) {
    return {"Memory usage of libcr: " + megabytes + " MB"};
  }

  ReportCapture reports_;
};

TEST_F(Accounting, CountsWhatIsAliveAndNotWhatFailed) {
  count_when("1");
  EXPECT_EQ(usage(), libcr("0.00"));
  auto* a = static_cast<char*>(XMalloc(0, 10 * kMega));
  auto* b = static_cast<char*>(XCalloc(65536, 5, kMega));  // slot numbers are taken modulo 65536
  void* elsewhere = XRealloc(3, nullptr, kMega);
  EXPECT_EQ(usage(), libcr("15.00"));
  EXPECT_TRUE(std::all_of(b, b + 5 * kMega, [](char c) { return c == 0; }));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % alignof(std::max_align_t), 0u);
  std::memset(a, 'a', 10 * kMega);
  EXPECT_EQ(XMalloc(0, SIZE_MAX), nullptr);
  EXPECT_EQ(XCalloc(0, SIZE_MAX / 2, 3), nullptr);
  EXPECT_EQ(XRealloc(0, a, SIZE_MAX - 8), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  {
    Fault<"malloc", void*(size_t)> no_malloc(1, nullptr, ENOMEM);
    Fault<"calloc", void*(size_t, size_t)> no_calloc(1, nullptr, ENOMEM);
    Fault<"realloc", void*(void*, size_t)> no_realloc(1, nullptr, ENOMEM);
    EXPECT_EQ(XMalloc(0, kMega), nullptr);
    EXPECT_EQ(XCalloc(0, 1, kMega), nullptr);
    EXPECT_EQ(XRealloc(0, a, kMega), nullptr);
  }
  EXPECT_EQ(usage(), libcr("15.00")) << "the old block stays counted";
  a = static_cast<char*>(XRealloc(0, a, 20 * kMega));
  EXPECT_TRUE(std::all_of(a, a + 10 * kMega, [](char c) { return c == 'a'; }));
  EXPECT_EQ(usage(), libcr("25.00"));
  a = static_cast<char*>(XRealloc(0, a, kMega));
  EXPECT_EQ(usage(), libcr("6.00"));
  for (void* block : {static_cast<void*>(a), static_cast<void*>(b), static_cast<void*>(nullptr)})
    XFree(0, block);
  XFree(3, elsewhere);
  EXPECT_EQ(usage(), libcr("0.00"));

  for (const char* off : {"0", "", "yes"}) {  // then blocks are those of the C library
    count_when(off);
    std::free(XRealloc(0, XMalloc(0, 10), 20));
    XFree(0, std::malloc(5));
    EXPECT_EQ(XCalloc(0, SIZE_MAX / 2, 3), nullptr);
    EXPECT_THAT(usage(), IsEmpty());
  }
  void* block = std::malloc(5);
  _KelFree(&block);
  EXPECT_EQ(block, nullptr);
}

TEST_F(Accounting, AllocatorsCountFromManyThreads) {
  KelAllocator store("datastore", true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&store, t] {
      for (int i = 0; i < 2000; ++i) store.Free(store.Alloc(100), 100);
      datastore_malloc_size_incre(kMega);
      if (t == 0) datastore_malloc_size_decre(2 * kMega);
    });
  for (auto& thread : threads) thread.join();
  void* block = store.Alloc(kMega);
  {
    Fault<"_ZnwmRKSt9nothrow_t", void*(size_t, const std::nothrow_t&)> full(1, nullptr, ENOMEM);
    EXPECT_EQ(store.Alloc(kMega), nullptr);
  }
  EXPECT_EQ(datastore_thread_size_incre(3 * kMega), 0);
  store.Report();
  EXPECT_THAT(reports_.take_texts(), ElementsAre("Memory usage of datastore: 6.00 MB"));
  store.Free(block, kMega);
  store.Free(nullptr, kMega);
  KelAllocator::GetDefaultAllocator()->Report();

  struct rlimit stack = {};
  getrlimit(RLIMIT_STACK, &stack);
  EXPECT_EQ(datastore_thread_size_decre(0), 0);  // 0 stands for the default size of a stack
  EXPECT_EQ(datastore_thread_total_size,
            static_cast<long>(3 * kMega) - static_cast<long>(stack.rlim_cur));
  Fault<"getrlimit", int(int, struct rlimit*)> no_limit(1, -1, EPERM);
  EXPECT_EQ(datastore_thread_size_incre(0), -1);
}

/// What the library's list has to do, in a vector. Callbacks are two functions with three contexts;
/// -1 matches any of them.
struct PlainList {
  struct Node {
    int fn, context, count;
  };
  void add(int fn, int context) {
    for (Node& node : nodes)
      if (node.fn == fn && node.context == context) return void(++node.count);
    nodes.push_back({fn, context, 1});
  }
  void remove(int fn, int context) {
    for (Node& node : nodes)
      if ((fn < 0 || node.fn == fn) && (context < 0 || node.context == context)) --node.count;
    collect();
  }
  void call(std::function<void(int, int)>& called) {
    ++depth;
    for (size_t i = 0; i < nodes.size(); ++i)
      for (int n = nodes[i].count; n > 0; --n) called(nodes[i].fn, nodes[i].context);
    --depth;
    collect();
  }
  void collect() {
    if (depth == 0) std::erase_if(nodes, [](const Node& node) { return node.count <= 0; });
  }

  std::vector<Node> nodes;
  int depth = 0;
};

struct LibraryList {
  template <int Fn>
  static void callback(void* called, void* second, void* context) {
    EXPECT_EQ(second, nullptr);
    (*static_cast<std::function<void(int, int)>*>(called))(Fn, *static_cast<int*>(context));
  }
  ~LibraryList() { kelCallbackListDelete(list); }
  void add(int fn, int context) { list = kelCallbackAdd(list, functions[fn], &contexts[context]); }
  void remove(int fn, int context) {
    list = kelCallbackRemove(list, fn < 0 ? nullptr : functions[fn],
                             context < 0 ? nullptr : &contexts[context]);
  }
  void call(std::function<void(int, int)>& called) {
    list = kelCallCallbackList(list, &called, nullptr);
  }

  const kelCallbackFn functions[2] = {callback<0>, callback<1>};
  int contexts[3] = {0, 1, 2};
  kelCallback* list = nullptr;
};

/// Plays with callbacks that now and then add, remove and call while they run; the calls made.
template <class List>
std::vector<int> play(unsigned seed) {
  List list;
  std::mt19937 random(seed);
  const auto draw = [&](int count) { return std::uniform_int_distribution(0, count - 1)(random); };
  const auto change = [&] {
    const int fn = draw(2), context = draw(3);
    if (draw(3) == 0) return list.add(fn, context);
    list.remove(draw(3) == 0 ? -1 : fn, draw(2) == 0 ? -1 : context);
  };
  std::vector<int> calls;
  int depth = 0;
  std::function<void(int, int)> called = [&](int fn, int context) {
    calls.push_back(fn * 3 + context);
    if (draw(4) == 0) change();
    if (depth == 3 || draw(6) != 0) return;
    ++depth;
    list.call(called);
    --depth;
  };
  for (int step = 0; step < 200; ++step) {
    for (int i = draw(6); i > 0; --i) list.add(draw(2), draw(3));
    if (draw(3) == 0) change();
    list.call(called);
    calls.push_back(-1);
    list.remove(-1, -1);
  }
  return calls;
}

TEST(Callbacks, AgreeWithAModelWhileTheyChangeTheirOwnList) {
  for (unsigned seed = 1; seed <= 20; ++seed)
    ASSERT_EQ(play<LibraryList>(seed), play<PlainList>(seed)) << "seed " << seed;
}

TEST(Callbacks, SurviveALackOfMemory) {
  ReportCapture reports;
  const Fault<"malloc", void*(size_t)> full(1, nullptr, ENOMEM);
  EXPECT_EQ(kelCallbackAdd(
                nullptr, [](void*, void*, void*) {}, nullptr),
            nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_EQ(reports.take().size(), 1u);
}

TEST(Clocks, AgreeWithTheSystemAndEachOther) {
  _KelLibInit("test", "6");
  const unsigned ticks = GetTickCount();
  const unsigned long micros = gethrtime(), millis = get_millis();
  EXPECT_NEAR(hrtime2seconds(static_cast<long>(micros)), static_cast<double>(time(nullptr)), 2);
  EXPECT_NEAR(static_cast<double>(millis), static_cast<double>(micros) / 1000, 1000);
  EXPECT_LT(get_only_ms(), 1000);
  EXPECT_EQ(seconds2hrtime(-1.9999999), -1999999);
  EXPECT_EQ(KelSleep(1), 0);
  EXPECT_NEAR(static_cast<double>(GetTickCount() - ticks),
              static_cast<double>(get_millis() - millis), 50);

  ReportCapture reports;
  Fault<"times", clock_t(struct tms*)> broken(1, -1, EFAULT);
  const unsigned instead = GetTickCount();
  EXPECT_LT(static_cast<unsigned>(get_millis()) - instead, 1000u);
  EXPECT_EQ(reports.take().size(), 1u);
  KelLibDestroy();
}

TEST(Sleep, EndsEarlyForASignalAndTellsWhatIsLeft) {
  EXPECT_EQ(KelSleep(0), 0);
  struct sigaction action = {}, before = {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, &before);
  const struct itimerval soon = {{0, 0}, {0, 50'000}};
  setitimer(ITIMER_REAL, &soon, nullptr);
  EXPECT_THAT(KelSleep(30), ::testing::AllOf(::testing::Ge(25), ::testing::Le(30)));
  setitimer(ITIMER_REAL, &soon, nullptr);
  EXPECT_EQ(KelSleep(1), 1) << "at least one";
  sigaction(SIGALRM, &before, nullptr);

  ReportCapture reports(KEL_LOG_TRACE);
  Fault<"select", int(int, fd_set*, fd_set*, fd_set*, timeval*)> broken(1, -1, EINVAL);
  EXPECT_EQ(KelSleep(1), -1);
  EXPECT_EQ(reports.take().size(), 1u);
}

TEST(Random, RangesAndSeedsFollowTheGenerator) {
  static unsigned char next;  // what the generator gives, again and again
  Hooked<"RAND_bytes", int(unsigned char*, int)> fixed([](unsigned char* bytes, int count) {
    std::memset(bytes, next, static_cast<size_t>(count));
    return 1;
  });
  next = 0xfe;
  EXPECT_EQ(RandomRange(5, 5), 5u);
  EXPECT_EQ(RandomRange(0, UINT_MAX), 0xfefefefe);
  EXPECT_EQ(RandomRange(100, 1099), 100 + 0xfefefefe % 1000);
  next = 0;
  unsigned char bytes[4] = {7};
  EXPECT_EQ(_dc_open0(bytes, 0), 0u);
  EXPECT_EQ(bytes[0], 7);
  EXPECT_EQ(_dc_open0(bytes, 4), 0u) << "zeros become 0 mod 255 plus 1";
  EXPECT_THAT(bytes, ElementsAre(1, 0x81, 1, 1));
  next = 0x0b;
  EXPECT_EQ(_dc_open0(bytes, 4), 2u);
  EXPECT_THAT(bytes, ElementsAre(11, 11, 11, 0x8b));
}

TEST(Random, CancelledThreadLeavesTheGeneratorUsable) {
  static sem_t inside;
  static thread_local bool victim = false;
  sem_init(&inside, 0, 0);
  Hooked<"RAND_bytes", int(unsigned char*, int)> slow([](unsigned char*, int) {
    if (!victim) return 1;
    sem_post(&inside);
    usleep(50'000);  // where a cancellation would strike
    return 1;
  });
  pthread_t thread;
  const auto body = [](void*) -> void* {
    victim = true;
    for (char byte;;) {
      RandomGetBytes(&byte, 1);
      pthread_testcancel();
    }
  };
  ASSERT_EQ(pthread_create(&thread, nullptr, body, nullptr), 0);
  sem_wait(&inside);
  pthread_cancel(thread);
  void* result = nullptr;
  pthread_join(thread, &result);
  EXPECT_EQ(result, PTHREAD_CANCELED);
  char byte = 0;
  EXPECT_EQ(RandomGetBytes(&byte, 1), 0);

  Fault<"RAND_bytes", int(unsigned char*, int)> broken(1, 0, EIO);
  EXPECT_DEATH(RandomGetBytes(&byte, 1), "Assertion failed") << "no caller could go on";
}

TEST(OneLiners, AnswerForTheCLibrary) {
  EXPECT_EQ(KelThreadActive(GetTid()), 1);
  EXPECT_EQ(KelThreadActive(0), 0);
  for (const char* number : {"", "0", "0123456789"}) EXPECT_EQ(KelIsDecimalNumber(number), 1);
  for (const char* other : {"12a", "-1", " 1", "\xd9\xa1"}) EXPECT_EQ(KelIsDecimalNumber(other), 0);
  EXPECT_EQ(kelgetenv("PATH"), std::getenv("PATH"));
  errno = ENOENT;
  EXPECT_STREQ(OSErrorW(), L"No such file or directory");
  EXPECT_STREQ(hstrerrorW(HOST_NOT_FOUND), L"Unknown host");
}

}  // namespace
