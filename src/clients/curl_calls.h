// What both HTTP clients do with libcurl.
#pragma once

#include <kel/http.h>

#include <curl/curl.h>

#include <string>

namespace kel::internal {

/// Sets options until one is refused, whose code stays.
class CurlOptions {
 public:
  explicit CurlOptions(CURL* handle) : handle_(handle) {}
  template <class Value>
  CurlOptions& set(CURLoption option, Value value) {
    if (code_ == CURLE_OK) code_ = curl_easy_setopt(handle_, option, value);
    return *this;
  }
  /// Sets a path, or leaves the option as it is where that is empty.
  CurlOptions& set_path(CURLoption option, const std::string& path);
  /// Trusts a CA file, and it alone: the build's folder of CAs would count besides.
  CurlOptions& set_trust(const std::string& ca_file);
  /// Lets libcurl read a body, also once more.
  CurlOptions& set_body(CURLPutDataBuffer* body);
  CURLcode code() const { return code_; }

 private:
  CURL* handle_;
  CURLcode code_ = CURLE_OK;
};

/// Adds a line behind `last`, the end of the list at `first`; false, reported, where that fails.
bool add_header(curl_slist*& first, curl_slist*& last, const std::string& line, const char* caller);

/// libcurl's escaping; empty, reported, without memory.
std::string escaped(const char* text, size_t length, const char* caller);

}  // namespace kel::internal
