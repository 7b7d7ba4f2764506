// Makes a repository of many chunks that are nearly nothing: as large for its index as terabytes.
// Usage: dedup_synthetic REPO CHUNKS [CHUNKS-IN-A-CONTAINER]
#include <kel/library.h>
#include <kel/runtime.h>

#include <cstdlib>

#include "container.h"
#include "key.h"

int main(int argc, char** argv) {
  using namespace dedup;
  const tqutil::LibAutoInit library("dedup_synthetic");
  if (argc < 3) return 2;
  const std::string path = argv[1];
  const uint64_t chunks = std::strtoull(argv[2], nullptr, 10);
  const uint64_t in_container = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : chunks;
  Repository repository(path, default_key_file());
  ContainerNumbers numbers;
  if (!repository.open_for_store(Settings{}) || !numbers.open(path + "/last-container", path, 0))
    return 1;
  ContainerWriter containers(repository, numbers);
  const unsigned char nothing = 0;
  for (uint64_t i = 0; i < chunks; ++i) {
    Fingerprint chunk;
    Location location;
    if (RandomGetBytes(chunk.bytes.data(), chunk.bytes.size()) != 0 ||
        !containers.add(chunk, {&nothing, 1}, location) ||
        ((i + 1) % in_container == 0 && !containers.finish()))
      return 1;
  }
  return containers.finish() ? 0 : 1;
}
