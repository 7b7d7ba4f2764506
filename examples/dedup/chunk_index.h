// Where every known chunk is, in a bounded part of memory: the index file for most containers, a
// hash tree for those that came since it was written, and the tables of the containers that were
// looked at last.
#pragma once

#include <array>
#include <set>

#include "container.h"
#include "index_file.h"

namespace dedup {

class IndexWriter;

class ChunkIndex {
 public:
  enum class Use {
    kRead,   ///< nothing is written to the repository
    kStore,  ///< by the one process that may
  };

  ChunkIndex(const Repository& repository, Use use) : repository_(repository), use_(use) {}

  /// Learns where the chunks are. Containers and an index file that cannot be read are reported;
  /// false after a report when nothing can be looked up.
  bool open();

  /// A location is taken from the table of its container, sealed with the key, whatever the index
  /// file says. A chunk of a container that cannot be read is not found, after a report.
  std::optional<Location> find(const Fingerprint& chunk);
  /// As find(), of a chunk that should be there: when the index file does not lead to it, the
  /// containers are read instead from then on.
  std::optional<Location> find_stored(const Fingerprint& chunk);

  /// Notes a new chunk of a container that is being written.
  bool put(const Fingerprint& chunk, const Location& location);
  /// So much was put that memory should be freed by update().
  bool is_full() const { return fresh_.size() >= most_fresh(); }
  /// So much came since the index file was written, or it is so wrong, that a new one saves more
  /// than it costs.
  bool is_update_due() const;
  /// Writes the index file anew with all containers on disk, which nobody else may be changing, and
  /// forgets what was put. False after a report.
  bool update();

  /// All containers when the index was opened, in the order of their numbers.
  const std::vector<NumberedFile>& containers() const { return containers_; }
  /// The highest number of a container that is, or was known to be, in the repository.
  uint32_t last_container() const { return last_container_; }

  /// Reports what is wrong with a container, once for each.
  void report(uint32_t container, const std::string& problem);
  /// Containers that something is wrong with.
  size_t damaged() const { return reported_.size(); }
  /// Reads the whole index file; false when it is damaged, after a report here or in open().
  bool check_file();

 private:
  uint64_t most_fresh() const;
  std::string file_path() const { return repository_.path() + "/index"; }
  void open_file();
  bool is_file_current() const;
  std::vector<NumberedFile> uncovered() const;
  bool learn();
  bool rebuild();
  bool sort_into(IndexWriter& out, const std::string& folder, std::vector<CoveredContainer>& all);
  std::optional<Location> find_in_file(const Fingerprint& chunk);
  bool load_table(uint32_t number);
  bool remove_file() const;
  void forget_file();

  const Repository& repository_;
  const Use use_;
  std::vector<NumberedFile> containers_;
  uint32_t last_container_ = 0;
  std::set<uint32_t> reported_;

  std::optional<IndexFile> file_;
  bool file_is_own_ = false;    ///< made from the containers by this process
  bool file_is_wrong_ = false;  ///< the one in the repository
  bool file_is_bad_ = false;    ///< likewise, and not merely behind the containers

  Index fresh_;  ///< chunks of containers that the file does not cover
  size_t fresh_containers_ = 0;
  uint32_t last_put_ = 0;

  // Tables of covered containers: when the young half is full, the old one is forgotten and they
  // change places. Chunks that were stored together are mostly looked up together.
  std::array<Index, 2> recent_;
  size_t young_ = 0;
  std::vector<StoredChunk> table_;
};

}  // namespace dedup
