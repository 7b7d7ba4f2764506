// JsonObject: who owns the value, its text, and its members.
#include <kel/json.h>

#include <jansson.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <utility>

#include "clients/c_text.h"
#include "internal/handles.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

/// The text that jansson writes in pieces. It goes on when the piece of a key was refused, so that
/// a failure has to be kept.
struct Text {
  std::string text;
  bool failed = false;
};

int append(const char* piece, size_t size, void* data) {
  auto* out = static_cast<Text*>(data);
  try {
    if (!out->failed) out->text.append(piece, size);
  } catch (const std::bad_alloc&) {
    out->failed = true;
    fail_allocation(0, out->text.size() + size, "DumpToString");
  }
  return out->failed ? -1 : 0;
}

json_t* member(const json_t* object, const std::string& key) {
  return json_object_getn(object, key.data(), key.size());
}

}  // namespace

JsonObject::JsonObject(json_t* value, bool owned) { Init(value, owned); }

JsonObject::JsonObject(const JsonObject& other) : handle_(other.handle_), owned_(other.owned_) {
  if (owned_) json_incref(handle_);
}

JsonObject& JsonObject::operator=(const JsonObject& other) {
  if (this == &other) return *this;
  if (other.owned_) json_incref(other.handle_);
  Free();
  handle_ = other.handle_;
  owned_ = other.owned_;
  return *this;
}

JsonObject::~JsonObject() { Free(); }

void JsonObject::Init(json_t* value, bool owned) {
  if (value != handle_) Free();
  handle_ = value != nullptr ? value : json_object();
  owned_ = value == nullptr || owned;
}

void JsonObject::Free() {
  json_t* value = std::exchange(handle_, nullptr);
  if (std::exchange(owned_, false)) json_decref(value);
}

json_t* JsonObject::Release() {
  owned_ = false;
  return std::exchange(handle_, nullptr);
}

json_t* JsonObject::GetHandle() { return handle_; }

bool JsonObject::LoadFromString(const char* text) {
  // Before the current value goes, which the text may lie in.
  json_error_t error;
  json_t* value = json_loads(text, 0, &error);
  if (value == nullptr)
    report_error(-1, "%s: invalid json string, error is %s.", __func__, error.text);
  Init(value, true);
  return value != nullptr;
}

bool JsonObject::LoadFromFile(const std::string& path) {
  json_t* value = is_c_text(path) ? json_load_file(path.c_str(), 0, nullptr)
                                  : fail_quietly<json_t*>(nullptr, EINVAL);
  Init(value, true);
  return value != nullptr;
}

std::string JsonObject::DumpToString(size_t flags) {
  Text out;
  if (handle_ == nullptr || json_dump_callback(handle_, append, &out, flags) != 0 || out.failed)
    out.text.clear();
  return std::move(out.text);
}

bool JsonObject::DumpToFile(const std::string& path, size_t flags) {
  if (handle_ == nullptr || !is_c_text(path)) return fail_quietly(false, EINVAL);
  // As json_dump_file(), which does not notice either that a key could not be written.
  UniqueFile out(std::fopen(path.c_str(), "we"));
  if (out == nullptr) return false;
  const bool dumped = json_dumpf(handle_, out.get(), flags) == 0 && std::ferror(out.get()) == 0;
  return std::fclose(out.release()) == 0 && dumped;
}

std::string JsonObject::GetString(const std::string& key) const {
  const json_t* value = member(handle_, key);
  const size_t size = json_string_length(value);
  try {
    return size != 0 ? std::string(json_string_value(value), size) : std::string();
  } catch (const std::bad_alloc&) {
    fail_allocation(0, size, __func__);
    return {};
  }
}

int JsonObject::GetInt64(const std::string& key, long& out) const {
  const json_t* value = member(handle_, key);
  if (!json_is_integer(value)) return -1;
  out = static_cast<long>(json_integer_value(value));
  return 0;
}

long JsonObject::GetInt64(const std::string& key) const {
  return static_cast<long>(json_integer_value(member(handle_, key)));
}

json_t* JsonObject::GetObject(const std::string& key) { return member(handle_, key); }

bool JsonObject::SetNew(const std::string& key, json_t* value) {
  if (!is_c_text(key)) {  // it could be written, but not be read back
    json_decref(value);
    return fail_quietly(false, EINVAL);
  }
  return json_object_setn_new(handle_, key.data(), key.size(), value) == 0;
}

size_t JsonObject::ArraySize() const { return json_array_size(handle_); }

json_t* JsonObject::ArrayGet(size_t index) { return json_array_get(handle_, index); }
