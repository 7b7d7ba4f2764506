#include "summary.h"

#include <jansson.h>

#include "base64.h"
#include "text.h"

namespace dedup {
namespace {

constexpr char kTime[] = "time";
constexpr char kSource[] = "source";
constexpr char kSourceBytes[] = "source_base64";

constexpr struct {
  const char* name;
  uint64_t Summary::*member;
} kCounts[] = {{"files", &Summary::files},         {"folders", &Summary::folders},
               {"links", &Summary::links},         {"bytes", &Summary::bytes},
               {"chunks", &Summary::chunks},       {"new_chunks", &Summary::new_chunks},
               {"new_bytes", &Summary::new_bytes}, {"stored_bytes", &Summary::stored_bytes},
               {"problems", &Summary::problems}};

}  // namespace

JsonObject summary_json(const Summary& summary) {
  JsonObject json;
  const std::string shown = path_text(summary.source);
  json.SetNew(kTime, json_integer(summary.time));
  json.SetNew(kSource, json_stringn(shown.data(), shown.size()));
  if (shown != summary.source)
    json.SetNew(kSourceBytes, json_string(base64_of(bytes_of(summary.source)).c_str()));
  for (const auto& [name, member] : kCounts)
    json.SetNew(name, json_integer(static_cast<json_int_t>(summary.*member)));
  return json;
}

bool parse_summary(Bytes text, Summary& summary) {
  JsonObject json;
  long time = 0;
  if (!json.LoadFromString(std::string(text.begin(), text.end()).c_str()) ||
      json.GetInt64(kTime, time) != 0)
    return false;
  summary.time = time;
  summary.source = json.GetString(kSource);
  if (json.GetObject(kSourceBytes) != nullptr) {
    std::vector<unsigned char> bytes;
    if (!read_base64(json.GetString(kSourceBytes), bytes)) return false;
    summary.source.assign(bytes.begin(), bytes.end());
  }
  for (const auto& [name, member] : kCounts) {
    long count = 0;
    if (json.GetInt64(name, count) != 0) return false;
    summary.*member = static_cast<uint64_t>(count);
  }
  return true;
}

}  // namespace dedup
