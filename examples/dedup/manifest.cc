// A JSON object:
//
//   format, version  "kel-dedup remote", 1
//   key              which key the repository has
//   seal             the fingerprint of the key, the text "manifest" and all files: their names
//                    (texts), sizes (u64) and fingerprints, in the order of names
//   files            an array of objects: name, size, fingerprint
#include "manifest.h"

#include <kel/json.h>

#include <jansson.h>

#include "records.h"

namespace dedup {
namespace {

constexpr char kFormat[] = "format";
constexpr char kVersion[] = "version";
constexpr char kKey[] = "key";
constexpr char kSeal[] = "seal";
constexpr char kFiles[] = "files";
constexpr char kFileName[] = "name";
constexpr char kSize[] = "size";
constexpr char kFingerprint[] = "fingerprint";
constexpr char kThisFormat[] = "kel-dedup remote";
constexpr long kThisVersion = 1;

json_t* json_text(const std::string& text) { return json_stringn(text.data(), text.size()); }

bool parse_fingerprint(const std::string& text, Fingerprint& fingerprint) {
  return text.size() == 2 * fingerprint.bytes.size() &&
         SHA256StringToDigest_r(text.c_str(), fingerprint.bytes.data()) != nullptr;
}

}  // namespace

Fingerprint Manifest::seal(const KelKey& key) const {
  RecordWriter all;
  all.text("manifest");
  for (const auto& [name, file] : files) {
    all.text(name);
    all.number(file.size);
    all.fingerprint(file.fingerprint);
  }
  return fingerprint_of({{key.Bytes(), KelKey::kLength}, all.bytes()});
}

const char* Manifest::parse(Bytes text, const KelKey& key, const std::string& key_id) {
  JsonObject json;
  if (!json.LoadFromString(std::string(text.begin(), text.end()).c_str()) ||
      json.GetString(kFormat) != kThisFormat)
    return "is damaged, or no manifest";
  if (json.GetInt64(kVersion) != kThisVersion) return "is of another version";
  if (json.GetString(kKey) != key_id) return "is that of another repository, with another key";
  JsonObject list(json.GetObject(kFiles), false);
  for (size_t i = 0; i < list.ArraySize(); ++i) {
    const JsonObject entry(list.ArrayGet(i), false);
    File file{static_cast<uint64_t>(entry.GetInt64(kSize)), {}};
    if (!parse_fingerprint(entry.GetString(kFingerprint), file.fingerprint)) return "is damaged";
    files.insert_or_assign(entry.GetString(kFileName), file);
  }
  Fingerprint sealed;
  return parse_fingerprint(json.GetString(kSeal), sealed) && sealed == seal(key) ? nullptr
                                                                                 : "is damaged";
}

std::string Manifest::text(const KelKey& key, const std::string& key_id) const {
  json_t* list = json_array();
  for (const auto& [name, file] : files) {
    JsonObject entry;
    entry.SetNew(kFileName, json_text(name));
    entry.SetNew(kSize, json_integer(static_cast<json_int_t>(file.size)));
    entry.SetNew(kFingerprint, json_text(text_of(file.fingerprint)));
    json_array_append_new(list, entry.Release());
  }
  JsonObject json;
  json.SetNew(kFormat, json_string(kThisFormat));
  json.SetNew(kVersion, json_integer(kThisVersion));
  json.SetNew(kKey, json_text(key_id));
  json.SetNew(kSeal, json_text(text_of(seal(key))));
  json.SetNew(kFiles, list);
  return json.DumpToString(JSON_INDENT(1));
}

}  // namespace dedup
