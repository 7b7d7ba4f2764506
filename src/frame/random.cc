// Random bytes from OpenSSL's generator.
#include <kel/logging.h>
#include <kel/runtime.h>

#include <openssl/rand.h>

#include <algorithm>
#include <climits>
#include <cstdint>

namespace {

pthread_once_t once = PTHREAD_ONCE_INIT;
pthread_mutex_t generator;

/// Puts cancellation off while it lives: a thread that ended inside the generator would leave this
/// lock, or one of OpenSSL's own, taken for ever.
class GeneratorLock {
 public:
  GeneratorLock() noexcept {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
    pthread_mutex_lock(&generator);
  }
  ~GeneratorLock() {
    pthread_mutex_unlock(&generator);
    pthread_setcancelstate(cancel_state_, nullptr);
  }
  GeneratorLock(const GeneratorLock&) = delete;
  GeneratorLock& operator=(const GeneratorLock&) = delete;

 private:
  int cancel_state_ = PTHREAD_CANCEL_ENABLE;
};

uint32_t random_word() {
  uint32_t word = 0;
  RandomGetBytes(&word, sizeof word);
  return word;
}

}  // namespace

void RandomInit(void) { pthread_mutex_init(&generator, nullptr); }

int RandomGetBytes(void* buf, size_t len) {
  pthread_once(&once, RandomInit);
  const GeneratorLock lock;
  auto* next = static_cast<unsigned char*>(buf);
  while (len > 0) {
    const size_t piece = std::min<size_t>(len, INT_MAX);
    // Going on with bytes that are not random would make keys that anyone can guess.
    KEL_ASSERT(RAND_bytes(next, static_cast<int>(piece)) == 1);
    next += piece;
    len -= piece;
  }
  return 0;
}

unsigned int RandomRange(unsigned int low, unsigned int high) {
  const uint32_t word = random_word();
  const uint32_t range = high - low + 1;  // 0 for the full range
  return range == 0 ? word : low + word % range;
}

size_t _dc_open0(void* buf, size_t len) {
  if (len == 0) return 0;
  auto* bytes = static_cast<unsigned char*>(buf);
  RandomGetBytes(bytes, len);
  for (size_t i = 0; i < len; ++i)
    if (bytes[i] == 0) bytes[i] = static_cast<unsigned char>(random_word() % 255 + 1);
  const size_t value = bytes[len - 1];
  bytes[value % len] |= 0x80;
  return value / len;
}
