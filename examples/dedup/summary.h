// The totals of a snapshot, and their JSON.
#pragma once

#include <kel/json.h>

#include <cstdint>
#include <string>

#include "fingerprint.h"

namespace dedup {

struct Summary {
  int64_t time = 0;  ///< seconds since 1970
  std::string source;
  uint64_t files = 0;
  uint64_t folders = 0;
  uint64_t links = 0;
  uint64_t bytes = 0;  ///< in files
  uint64_t chunks = 0;
  uint64_t new_chunks = 0;
  uint64_t new_bytes = 0;     ///< in new chunks, before compression
  uint64_t stored_bytes = 0;  ///< in new containers
  uint64_t problems = 0;      ///< entries that could not be read
};

/// An object with a member for each of the above. JSON is text, which a path need not be: "source"
/// is one that can be shown, and "source_base64" the bytes where these differ.
JsonObject summary_json(const Summary& summary);
/// Reads the text of such an object; false when something is missing from it.
bool parse_summary(Bytes text, Summary& summary);

}  // namespace dedup
