// A wait for a dead server ends with a fatal signal only, whatever handlers there are. So the
// question is put by a thread that can be left behind, and the alarm wakes the caller.
#include "os/bounded_statistics.h"

#include <kel/logging.h>

#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "internal/handles.h"
#include "internal/report.h"

namespace kel::internal {
namespace {

constexpr char kName[] = "__os_statvfs";  // the name in traces

/// Threads that may be left behind with the same question.
constexpr std::ptrdiff_t kMostOpen = 4;

enum class Kind { existence, statistics };

/// What is asked about a path and, once `answered` is set, the answer.
struct Question {
  Question(Kind what, const char* about) : kind(what), path(about) {}

  const Kind kind;
  const std::string path;
  const pid_t process = ::getpid();
  struct statvfs statistics = {};
  bool opened = false;
  int error = 0;
  std::atomic<bool> answered = false;
};

/// A semaphore that is there as long as the library.
class Semaphore {
 public:
  Semaphore() noexcept { ::sem_init(&value_, 0, 0); }
  void post() noexcept { ::sem_post(&value_); }
  void wait() noexcept { ::sem_wait(&value_); }
  void drain() noexcept {
    while (::sem_trywait(&value_) == 0) {
    }
  }

 private:
  sem_t value_;
};

std::mutex turn;  // held while a question is open, since there is one alarm
Semaphore news;   // raised by each answer and by the alarm
std::atomic<bool> alarm_fired = false;
std::vector<std::weak_ptr<Question>> unanswered;  // questions whose threads were left behind

void on_alarm(int) {
  const ErrnoGuard keep;
  alarm_fired = true;
  news.post();
}

/// Arms the alarm; at the end gives SIGALRM, and what was left of the caller's timer, back.
class Alarm {
 public:
  Alarm() noexcept {
    alarm_fired = false;
    news.drain();
    struct sigaction ours = {};
    ours.sa_handler = on_alarm;  // no SA_RESTART: the alarm must break a call that can be broken
    ::sigaction(SIGALRM, &ours, &callers_action_);
    ::getitimer(ITIMER_REAL, &callers_timer_);
    ::alarm(kAnswerTime);
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, SIGALRM);
    ::pthread_sigmask(SIG_UNBLOCK, &only, &callers_mask_);
  }

  ~Alarm() {
    const ErrnoGuard keep;
    ::alarm(0);
    // Ignoring drops an alarm that is on its way, which must not reach the caller's handler.
    ::signal(SIGALRM, SIG_IGN);
    ::pthread_sigmask(SIG_SETMASK, &callers_mask_, nullptr);
    ::sigaction(SIGALRM, &callers_action_, nullptr);
    if (timerisset(&callers_timer_.it_value)) resume_timer();
  }

  Alarm(const Alarm&) = delete;
  Alarm& operator=(const Alarm&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  void resume_timer() noexcept {
    using std::chrono::microseconds;
    auto left = std::chrono::seconds(callers_timer_.it_value.tv_sec) +
                microseconds(callers_timer_.it_value.tv_usec) -
                std::chrono::duration_cast<microseconds>(Clock::now() - start_);
    left = std::max(left, microseconds(1));  // one that is overdue goes off now
    callers_timer_.it_value.tv_sec = left.count() / 1000000;
    callers_timer_.it_value.tv_usec = left.count() % 1000000;
    ::setitimer(ITIMER_REAL, &callers_timer_, nullptr);
  }

  const Clock::time_point start_ = Clock::now();
  struct sigaction callers_action_ = {};
  struct itimerval callers_timer_ = {};
  sigset_t callers_mask_;
};

/// Blocks every signal, so that a thread started meanwhile never runs a handler.
class SignalsBlocked {
 public:
  SignalsBlocked() noexcept {
    sigset_t all;
    sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &saved_);
  }
  ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t saved_;
};

void answer(Question& question) noexcept {
  int result = 0;
  if (question.kind == Kind::existence) {
    struct stat status;
    result = ::stat(question.path.c_str(), &status);
  } else {
    // Neither waits for a writer of a pipe nor takes a terminal over.
    const UniqueFd fd(::open(question.path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    question.opened = bool(fd);
    result = fd ? ::fstatvfs(fd.get(), &question.statistics) : -1;
  }
  if (result != 0) question.error = errno;
  question.answered = true;
  news.post();
}

/// Has a thread answer; without one, answers here, where the alarm breaks most waits at least.
void put(const std::shared_ptr<Question>& question) {
  try {
    const SignalsBlocked quiet;
    std::thread([question] { answer(*question); }).detach();
    return;
  } catch (const std::system_error&) {  // NOLINT(bugprone-empty-catch): no thread to be had
  }
  answer(*question);
}

/// Whether so many threads wait for this answer already that one more would not help. What a parent
/// process asked has no thread here.
bool is_hopeless(const Question& question) {
  return kMostOpen <= std::count_if(unanswered.begin(), unanswered.end(), [&](const auto& earlier) {
           const auto open = earlier.lock();
           return open != nullptr && open->process == question.process &&
                  open->kind == question.kind && open->path == question.path;
         });
}

/// Puts the question and waits for the answer; null when memory is short.
std::shared_ptr<const Question> ask(Kind kind, const char* path) try {
  const auto question = std::make_shared<Question>(kind, path);
  const std::lock_guard lock(turn);
  std::erase_if(unanswered, [](const auto& earlier) { return earlier.expired(); });
  if (is_hopeless(*question)) return question;
  unanswered.reserve(unanswered.size() + 1);
  const Alarm limit;
  put(question);
  while (!question->answered && !alarm_fired) news.wait();
  if (!question->answered)
    unanswered.push_back(question);
  else if (question->error != 0 && alarm_fired)
    question->error = ETIME;
  return question;
} catch (const std::bad_alloc&) {
  return nullptr;
}

/// 0, or the errno value that says why there is no answer or a bad one.
int error_of(const std::shared_ptr<const Question>& question) {
  if (question == nullptr) return ENOMEM;
  return question->answered ? question->error : ETIME;
}

}  // namespace

int bounded_statvfs(const char* path, struct statvfs* out) {
  if (path == nullptr) return fail_quietly(-1, EINVAL);
  const auto question = ask(Kind::statistics, path);
  const int error = error_of(question);
  if (error == 0) {
    *out = question->statistics;
    return 0;
  }
  if (question != nullptr && question->answered && question->opened)
    __Trace("%s: fstatvfs() failed: %s", kName, std::strerror(error));
  else
    __Trace("%s: could not access: %s", kName, path);
  return fail_quietly(-1, error);
}

bool bounded_exists(const char* path) {
  const int error = error_of(ask(Kind::existence, path));
  return error == 0 || fail_quietly(false, error);
}

}  // namespace kel::internal
