// Listing the snapshots.
#include <kel/json.h>
#include <kel/logging.h>

#include <jansson.h>

#include <cerrno>
#include <cstdio>

#include "catalogue.h"
#include "commands.h"
#include "remote.h"
#include "repository.h"
#include "text.h"

namespace dedup {

namespace {

void print_row(uint32_t number, const Summary& summary) {
  std::printf("%8u  %-19s %10lu %12s %12s  %s", number, time_text(summary.time).c_str(),
              static_cast<unsigned long>(summary.files), size_text(summary.bytes).c_str(),
              size_text(summary.new_bytes).c_str(), path_text(summary.source).c_str());
  if (summary.problems != 0)
    std::printf(" (incomplete: %lu problems)", static_cast<unsigned long>(summary.problems));
  std::printf("\n");
}

}  // namespace

int list(const std::string& path, const Options& options) {
  const Fetched fetched = fetch(path, options);
  Repository repository(path, options.key_file);
  std::vector<NumberedFile> files;
  if (fetched == Fetched::kFailed || !repository.open() || !repository.list_snapshots(files))
    return 1;
  int status = fetched == Fetched::kAll ? 0 : 1;
  json_t* snapshots = json_array();
  JsonObject all;
  all.SetNew("snapshots", snapshots);
  if (!options.json)
    std::printf("%8s  %-19s %10s %12s %12s  %s\n", "snapshot", "time", "files", "bytes", "new",
                "source");
  for (const NumberedFile& file : files) {
    CatalogueReader catalogue(repository.key(), file.path);
    if (!catalogue.open() || !catalogue.read_summary()) {
      ErrorA(EIO, "snapshot %s %s; move it away and store its source again", file.path.c_str(),
             catalogue.problem().c_str());
      status = 1;
    } else if (options.json) {
      JsonObject snapshot;
      snapshot.SetNew("number", json_integer(file.number));
      json_object_update(snapshot.GetHandle(), summary_json(catalogue.summary).GetHandle());
      json_array_append_new(snapshots, snapshot.Release());
    } else {
      print_row(file.number, catalogue.summary);
    }
  }
  if (options.json) std::printf("%s\n", all.DumpToString(JSON_INDENT(2)).c_str());
  return status;
}

}  // namespace dedup
