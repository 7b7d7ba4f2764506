#include "chunk_reader.h"

#include <algorithm>

namespace dedup {
namespace {

/// Chunks lie in containers in the order in which files were first stored: a few containers at a
/// time serve most of a walk.
constexpr size_t kContainersInMemory = 12;

}  // namespace

Bytes ChunkReader::read(const Fingerprint& chunk, uint32_t length) {
  const auto location = index_.find_stored(chunk);
  if (!location) return {};
  const Loaded& container = load_container(location->container);
  if (container.data.empty()) return {};
  const uint64_t end = uint64_t{location->offset} + location->length;
  if (location->length != length || end > container.data.size()) {
    index_.report(container.number, "is damaged: its table makes no sense");
    return {};
  }
  const Bytes found(container.data.data() + location->offset, length);
  if (fingerprint_of(found) == chunk) return found;
  index_.report(container.number, "is damaged: a chunk does not match its fingerprint");
  return {};
}

const ChunkReader::Loaded& ChunkReader::load_container(uint32_t number) {
  const auto found = std::find_if(loaded_.begin(), loaded_.end(),
                                  [=](const Loaded& loaded) { return loaded.number == number; });
  if (found != loaded_.end()) {
    loaded_.splice(loaded_.begin(), loaded_, found);
    return loaded_.front();
  }
  if (loaded_.size() == kContainersInMemory) loaded_.pop_back();
  Loaded& fresh = loaded_.emplace_front(Loaded{number, {}});
  std::vector<StoredChunk> table;
  std::string problem;
  const std::string path = repository_.containers() + "/" + Repository::container_name(number);
  if (!read_container(repository_, path, table, fresh.data, problem)) {
    fresh.data.clear();
    index_.report(number, problem);
  }
  return fresh;
}

}  // namespace dedup
