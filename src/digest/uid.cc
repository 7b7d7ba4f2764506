// Unique identifiers. Every function that takes one judges it by judge().
#include <kel/runtime.h>
#include <kel/safeio.h>
#include <kel/uid.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "internal/hex.h"
#include "internal/report.h"

namespace {

using kel::internal::fail;
using kel::internal::hex_decode;
using kel::internal::hex_encode;

constexpr size_t kSize = sizeof(KelUID);
constexpr size_t kTextSize = 2 * kSize;
static_assert(kSize == 16);

constexpr char kNull[] = "invalid NULL parameter";
constexpr char kInvalid[] = "invalid UID";
constexpr char kUnhandled[] = "unhandled version case";

/// What is wrong with a version; null when there is nothing.
const char* judge(int version) {
  switch (version) {
    case KEL_UID_RANDOM:
      return nullptr;
    case KEL_UID_NOT_SET:
      return kInvalid;
    default:
      return kUnhandled;
  }
}

const char* judge(const KelUID* uid) { return uid == nullptr ? kNull : judge(uid->bytes[0]); }

template <class Result>
Result refuse(Result failure, const char* fault, const char* function) {
  return fail(failure, EINVAL, "%s: %s", function, fault);
}

/// As refuse(), where it does not matter what is wrong with an identifier.
template <class Result>
Result refuse_invalid(Result failure, const KelUID* uid, const char* function) {
  return refuse(failure, uid == nullptr ? kNull : kInvalid, function);
}

/// Whether both are valid and of one version; else reports it for `function`.
bool are_comparable(const KelUID* a, const KelUID* b, const char* function) {
  for (const KelUID* uid : {a, b})
    if (judge(uid) != nullptr) return refuse_invalid(false, uid, function);
  if (a->bytes[0] != b->bytes[0]) return refuse(false, "UID versions do not match", function);
  return true;
}

int order(const KelUID* a, const KelUID* b) { return std::memcmp(a->bytes, b->bytes, kSize); }

size_t parse_text(KelUID* uid, const char* text, size_t size, const char* function) {
  unsigned char parsed[kSize];
  if (hex_decode(text, 1, parsed) != 2)
    return refuse(size_t{0}, "input contained invalid character for version", function);
  if (const char* fault = judge(parsed[0])) return refuse(size_t{0}, fault, function);
  if (size < kTextSize) return refuse(size_t{0}, "insufficient buffer", function);
  if (hex_decode(text, kSize, parsed) != kTextSize)
    return refuse(size_t{0}, "input contained invalid character", function);
  std::memcpy(uid->bytes, parsed, kSize);
  return kTextSize;
}

size_t parse_raw(KelUID* uid, const unsigned char* bytes, size_t size, const char* function) {
  if (const char* fault = judge(bytes[0])) return refuse(size_t{0}, fault, function);
  if (size < kSize) return refuse(size_t{0}, "insufficient buffer for binary", function);
  std::memcpy(uid->bytes, bytes, kSize);
  return kSize;
}

size_t parse(KelUID* uid, const void* src, size_t size, int raw, const char* function) {
  if (uid == nullptr || src == nullptr || size < 2) return refuse(size_t{0}, kNull, function);
  return raw != 0 ? parse_raw(uid, static_cast<const unsigned char*>(src), size, function)
                  : parse_text(uid, static_cast<const char*>(src), size, function);
}

}  // namespace

size_t KelUIDSize(void) { return kSize; }

KelUID* KelUIDInit(KelUID* uid) {
  if (uid == nullptr) return refuse(uid, kNull, __func__);
  uid->bytes[0] = KEL_UID_NOT_SET;
  return uid;
}

KelUID* KelUIDNew(void) {
  auto* uid = static_cast<KelUID*>(std::calloc(1, kSize));
  return uid != nullptr ? KelUIDInit(uid)
                        : fail(uid, ENOMEM, "%s: could not allocate memory", __func__);
}

void KelUIDDelete(KelUID** uid) {
  if (uid == nullptr) return;
  std::free(*uid);
  *uid = nullptr;
}

KelUID* KelUIDInitCopy(KelUID* dst, const KelUID* src) {
  if (dst == nullptr) return refuse(dst, kNull, __func__);
  if (const char* fault = judge(src)) return refuse<KelUID*>(nullptr, fault, __func__);
  *dst = *src;
  return dst;
}

KelUID* KelUIDGenerate(KelUID* uid, int version) {
  if (uid == nullptr) return refuse(uid, kNull, __func__);
  if (const char* fault = judge(version)) return refuse<KelUID*>(nullptr, fault, __func__);
  RandomGetBytes(uid->bytes, kSize);
  uid->bytes[0] = KEL_UID_RANDOM;
  return uid;
}

int KelUIDVersionGet(const KelUID* uid) {
  if (uid != nullptr && uid->bytes[0] == KEL_UID_NOT_SET) return KEL_UID_NOT_SET;
  const char* fault = judge(uid);
  return fault == nullptr ? uid->bytes[0] : refuse(0, fault, __func__);
}

int KelUIDValidate(const KelUID* uid) {
  const char* fault = judge(uid);
  return fault == nullptr ? 1 : refuse(0, fault, __func__);
}

int32_t KelUIDCompare(const KelUID* a, const KelUID* b) {
  if (!are_comparable(a, b, __func__)) return KEL_UID_COMPARE_ERROR;
  return std::clamp(order(a, b), -1, 1);
}

int KelUIDEqual(const KelUID* a, const KelUID* b) {
  return are_comparable(a, b, __func__) ? order(a, b) == 0 : -1;
}

size_t KelUIDSerializedSize(const KelUID* uid, int raw) {
  if (judge(uid) != nullptr) return refuse_invalid(size_t{0}, uid, __func__);
  return raw != 0 ? kSize : kTextSize;
}

size_t KelUIDSerialize(void* buf, size_t size, const KelUID* uid, int raw) {
  const size_t needed = raw != 0 ? kSize : kTextSize;
  if (judge(uid) != nullptr) return refuse_invalid(size_t{0}, uid, __func__);
  if (buf == nullptr) return refuse(size_t{0}, kNull, __func__);
  if (size < needed) return refuse(size_t{0}, "insufficient buffer", __func__);
  if (raw != 0) {
    std::memcpy(buf, uid->bytes, kSize);
    return needed;
  }
  auto* text = static_cast<char*>(buf);
  hex_encode(uid->bytes, kSize, text);
  if (size > needed) text[needed] = '\0';
  return needed;
}

size_t KelUIDDeserialize(KelUID* uid, const void* src, size_t size, int raw) {
  return parse(uid, src, size, raw, __func__);
}

KelUID* KelUIDInitFromFile(KelUID* uid, FILE* stream, int raw, size_t* consumed) {
  if (uid == nullptr || stream == nullptr) return refuse<KelUID*>(nullptr, kNull, __func__);
  unsigned char form[kTextSize];
  const size_t needed = raw != 0 ? kSize : kTextSize;
  const size_t got = safe_fread(stream, form, needed);
  if (got != needed)
    return fail<KelUID*>(nullptr, got == static_cast<size_t>(-1) ? errno : ENODATA,
                         "%s: could not read from file", __func__);
  if (parse(uid, form, needed, raw, __func__) == 0) return nullptr;
  if (consumed != nullptr) *consumed = needed;
  return uid;
}
