#include "index.h"

#include <cstring>

namespace dedup {
namespace {

struct Record {
  Fingerprint chunk;
  Location location;
};

int32_t compare(void*, const void* a, const void* b) {
  const int order = std::memcmp(a, b, sizeof(Fingerprint));
  return (order > 0) - (order < 0);
}

uint32_t hash(void*, const void* record) {
  uint32_t value;  // the bits of a fingerprint are evenly spread
  std::memcpy(&value, record, sizeof value);
  return value;
}

constexpr uint32_t kFirstBits = 14;
constexpr uint64_t kSlabSize = uint64_t{1} << 20;

}  // namespace

Index::Index()
    : tree_(KelHashTreeNew(kFirstBits, sizeof(Record), compare, hash, nullptr, kSlabSize)) {}

Index::~Index() { KelHashTreeDelete(&tree_); }

bool Index::put(const Fingerprint& chunk, const Location& location) {
  const Record record{chunk, location};
  Record before;
  if (KelHashTreeReplaceOrInsert(tree_, &record, &before) < 0) return false;
  const uint32_t bits = KelHashTreeGetBits(tree_);
  const bool crowded = size() > uint64_t{2} << bits;
  // A tree that cannot grow its table is slower, not wrong.
  if (crowded && bits < KEL_HASHTREE_MAX_BITS) KelHashTreeSetBits(tree_, bits + 1);
  return true;
}

std::optional<Location> Index::find(const Fingerprint& chunk) const {
  const Record key{chunk, {}};
  Record found;
  if (KelHashTreeGet(tree_, &key, &found) != 1) return std::nullopt;
  return found.location;
}

void Index::clear() { KelHashTreeEmpty(tree_); }

uint64_t Index::size() const { return KelHashTreeGetNumUsedNodes(tree_); }

}  // namespace dedup
