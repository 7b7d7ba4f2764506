// Containers: a few MiB of chunks in one file, behind a table of them.
#pragma once

#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "container_numbers.h"
#include "index.h"
#include "repository.h"
#include "segment_file.h"

namespace dedup {

struct StoredChunk {
  Fingerprint chunk;
  uint32_t offset;
  uint32_t length;
};

/// Gathers new chunks and writes a container whenever enough have come, one at a time and beside
/// the caller.
class ContainerWriter {
 public:
  /// Containers get the numbers that follow the last one.
  ContainerWriter(const Repository& repository, ContainerNumbers& numbers);
  ~ContainerWriter();

  /// Adds a chunk and says where it will be; false after a report, when a container could not be
  /// written.
  bool add(const Fingerprint& chunk, Bytes data, Location& location);
  /// Writes what is left and waits; after true everything added is durable.
  bool finish();

  uint64_t stored_bytes() const { return stored_bytes_; }

 private:
  struct Content {
    uint32_t number;
    std::vector<StoredChunk> table;
    std::vector<unsigned char> data;
  };

  bool send();
  bool wait();
  bool write(const Content& content);

  const Repository& repository_;
  ContainerNumbers& numbers_;
  SegmentWriter file_;
  Content filling_;
  Content writing_;
  std::future<bool> written_;
  uint64_t stored_bytes_ = 0;
};

/// Reads the table of a container, and with it checks that the file is as long as it should be. On
/// failure `problem` says what is wrong; nothing is reported.
bool read_table(const Repository& repository, const std::string& path,
                std::vector<StoredChunk>& table, std::string& problem);

/// As read_table(), and the data that the offsets point into.
bool read_container(const Repository& repository, const std::string& path,
                    std::vector<StoredChunk>& table, std::vector<unsigned char>& data,
                    std::string& problem);

/// The size of a file; UINT64_MAX when there is none.
uint64_t file_size(const std::string& path);

}  // namespace dedup
