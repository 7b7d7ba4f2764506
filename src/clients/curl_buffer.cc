// A response body in a block from realloc(3), which moves large blocks by their pages.
#include <kel/http.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr size_t kStep = 1024;
constexpr size_t kExact = 64 * kStep;  // up to here the capacity is no more than needed

size_t round_up(size_t size) { return (size + kStep - 1) / kStep * kStep; }

}  // namespace

CURLBuffer::CURLBuffer() { Reserve(kStep, "CURLBuffer"); }

CURLBuffer::~CURLBuffer() { std::free(bytes_); }

bool CURLBuffer::Resize(size_t capacity) {
  void* const bytes = std::realloc(bytes_, capacity);
  if (bytes == nullptr) return false;
  bytes_ = static_cast<char*>(bytes);
  capacity_ = capacity;
  return true;
}

bool CURLBuffer::Reserve(size_t needed, const char* caller) {
  if (needed <= capacity_) return true;
  if (needed > SIZE_MAX / 2) return fail_allocation(false, needed, caller);
  const size_t least = round_up(needed);
  const size_t roomy = round_up(capacity_ + capacity_ / 2);
  if (least > kExact && roomy > least && Resize(roomy)) return true;
  return Resize(least) || fail_allocation(false, least, caller);
}

size_t CURLBuffer::Append(const void* data, size_t size, size_t nmemb) {
  size_t count = 0;
  size_t needed = 0;
  if (__builtin_mul_overflow(size, nmemb, &count) ||
      __builtin_add_overflow(length_, count, &needed))
    return fail(size_t{0}, EINVAL, "%s: invalid size", __func__);
  if (count == 0) return 0;
  if (data == nullptr) return fail(size_t{0}, EINVAL, "%s: invalid NULL parameter", __func__);
  if (!Reserve(needed, __func__)) return 0;
  std::memcpy(bytes_ + length_, data, count);
  length_ = needed;
  return count;
}

bool CURLBuffer::Finalize() {
  if (!Reserve(length_ + 1, __func__)) return false;
  bytes_[length_++] = '\0';
  return true;
}

void CURLBuffer::Reset() { length_ = 0; }

const char* CURLBuffer::GetContent() const { return bytes_; }

size_t CURLBuffer::GetContentLength() const { return length_; }

size_t CURLBuffer::GetCapacity() const { return capacity_; }
