// Listing the snapshots.
#include <kel/logging.h>

#include <cerrno>
#include <cstdio>

#include "catalogue.h"
#include "commands.h"
#include "repository.h"
#include "text.h"

namespace dedup {

int list(const std::string& path, const Options& options) {
  Repository repository(path, options.key_file);
  std::vector<NumberedFile> files;
  if (!repository.open() || !repository.list_snapshots(files)) return 1;
  int status = 0;
  std::printf("%8s  %-19s %10s %12s %12s  %s\n", "snapshot", "time", "files", "bytes", "new",
              "source");
  for (const NumberedFile& file : files) {
    CatalogueReader catalogue(repository.key(), file.path);
    if (!catalogue.open() || !catalogue.read_summary()) {
      ErrorA(EIO, "snapshot %s %s; move it away and store its source again", file.path.c_str(),
             catalogue.problem().c_str());
      status = 1;
      continue;
    }
    const Summary& summary = catalogue.summary;
    std::printf("%8u  %-19s %10lu %12s %12s  %s", file.number, time_text(summary.time).c_str(),
                static_cast<unsigned long>(summary.files), size_text(summary.bytes).c_str(),
                size_text(summary.new_bytes).c_str(), path_text(summary.source).c_str());
    if (summary.problems != 0)
      std::printf(" (incomplete: %lu problems)", static_cast<unsigned long>(summary.problems));
    std::printf("\n");
  }
  return status;
}

}  // namespace dedup
