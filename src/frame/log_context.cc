// Contexts and settings of the reporting threads.
#include "frame/log_context.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "frame/log_sink.h"
#include "internal/atomic_field.h"
#include "internal/handles.h"
#include "internal/report.h"
#include "internal/text_traits.h"

kelLogCtx lclocal;
int num_lc = 0;

namespace kel::internal {
namespace {

pthread_key_t context_key = PTHREAD_KEYS_MAX;  // no key, should none be left to make
pthread_mutex_t log_lock;
pthread_once_t once = PTHREAD_ONCE_INIT;

int init_log_lock() noexcept {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  const int result = pthread_mutex_init(&log_lock, &attributes);
  pthread_mutexattr_destroy(&attributes);
  return result;
}

void init_once() noexcept {
  pthread_key_create(&context_key, kelLogCtxDestroy);
  init_log_lock();
}

void ensure_initialised() noexcept { pthread_once(&once, init_once); }

kelLogCtx* bound_context() noexcept {
  ensure_initialised();
  return static_cast<kelLogCtx*>(pthread_getspecific(context_key));
}

/// Takes over what the first thread set, as a new thread's starting point.
void inherit_settings(kelLogCtx* context) {
  context->baseCode = lclocal.baseCode;
  context->redirector = lclocal.redirector;
  copy_cut(context->path, lclocal.path);
  kelLogSet(context->path, load_field(logconf.flags), load_field(logconf.syslogFlags));
}

[[gnu::noinline]] kelLogCtx* make_context() noexcept {
  const ErrnoGuard keep;
  MallocPtr<kelLogCtx> own(static_cast<kelLogCtx*>(std::calloc(1, sizeof(kelLogCtx))));
  // Binding allocates too when the process has many keys.
  if (own != nullptr && pthread_setspecific(context_key, own.get()) != 0) own.reset();
  if (own == nullptr) {
    std::fprintf(stderr,
                 "ALERT: Could not establish a logging context: malloc failed for %u bytes (%s). "
                 "Using the default logging context instead.\n",
                 static_cast<unsigned>(sizeof(kelLogCtx)), std::strerror(errno));
    pthread_setspecific(context_key, &lclocal);
  }
  kelLogCtx* context = own != nullptr ? own.release() : &lclocal;
  const LogLock lock;
  std::snprintf(context->threadTag, sizeof context->threadTag,
                " [%lu]: ", static_cast<unsigned long>(pthread_self()));
  if (context != &lclocal && num_lc > 0) inherit_settings(context);
  context->number = add_field(num_lc, 1);
  return context;
}

}  // namespace

kelLogCtx* log_context() noexcept {
  kelLogCtx* context = bound_context();
  return context != nullptr ? context : make_context();
}

LogLock::LogLock() noexcept {
  ensure_initialised();
  pthread_mutex_lock(&log_lock);
}

LogLock::~LogLock() { pthread_mutex_unlock(&log_lock); }

int reset_log_lock() noexcept {
  ensure_initialised();
  return init_log_lock();
}

}  // namespace kel::internal

using namespace kel::internal;

void kelLogSet(const char* path, int flags, int syslogFlags) {
  kelLogSetEx(path, flags, syslogFlags, nullptr, nullptr);
}

void kelLogSetEx(const char* path, int flags, int syslogFlags, const char*, const char* lineTag) {
  const LogLock lock;
  kelLogCtx* context = log_context();
  copy_cut(context->path, path);
  if (std::strchr(context->path, '/') == nullptr)
    for (char* c = context->path; *c != '\0'; ++c)
      if (*c == '\\') *c = '/';
  logconf.Init(flags, syslogFlags, context->number == 1);
  context->flags = flags;
  if (context->number == 1 && context != &lclocal) lclocal = *context;
  copy_cut(context->lineTag, lineTag);
}

void kelLogClose(void) {
  kelLogSet(nullptr, 0, 0);
  flush_log_files();
}

const char* kelLogPathA(void) {
  const kelLogCtx* context = log_context();
  return context->path[0] != '\0' ? context->path : "(null)";
}

void kelLogSetRedirector(kelLogRedirector redirector) { log_context()->redirector = redirector; }

int kelLogSetBaseCode(int base) {
  kelLogCtx* context = log_context();
  const int before = context->baseCode;
  context->baseCode = base;
  return before;
}

void* kelLogGetCtx(void) { return bound_context(); }

int kelLogSetCtx(void* ctx) {
  ensure_initialised();
  return pthread_setspecific(context_key, ctx);
}

void kelLogCtxDestroy(void* ctx) {
  if (ctx == nullptr) return;
  const LogLock lock;
  // A thread that drops its own context gets a fresh one with its next report.
  if (pthread_getspecific(context_key) == ctx) pthread_setspecific(context_key, nullptr);
  if (ctx != &lclocal) std::free(ctx);
  add_field(num_lc, -1);
}

int kellog_reset_for_fork(void) {
  reset_log_lock();
  return reset_log_files();
}

char* pthread2str(char* buf, size_t len, pthread_t id) {
  const int length = std::snprintf(buf, len, "%lu", static_cast<unsigned long>(id));
  return length < 0 || static_cast<size_t>(length) >= len ? nullptr : buf;
}
