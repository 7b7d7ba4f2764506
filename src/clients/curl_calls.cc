#include "clients/curl_calls.h"

#include <climits>
#include <cstdio>
#include <memory>
#include <new>
#include <string_view>

#include "clients/c_text.h"
#include "internal/report.h"

namespace kel::internal {
namespace {

/// libcurl goes back to the start when a kept connection turns out to be closed.
int seek_body(void* body, curl_off_t offset, int origin) {
  auto& put = *static_cast<CURLPutDataBuffer*>(body);
  if (origin != SEEK_SET || offset < 0 || static_cast<size_t>(offset) > put.size)
    return CURL_SEEKFUNC_FAIL;
  put.position = static_cast<size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

}  // namespace

CurlOptions& CurlOptions::set_path(CURLoption option, const std::string& path) {
  if (!is_c_text(path)) code_ = CURLE_BAD_FUNCTION_ARGUMENT;
  return path.empty() ? *this : set(option, path.c_str());
}

CurlOptions& CurlOptions::set_trust(const std::string& ca_file) {
  if (!ca_file.empty()) set(CURLOPT_CAPATH, nullptr);
  return set_path(CURLOPT_CAINFO, ca_file);
}

CurlOptions& CurlOptions::set_body(CURLPutDataBuffer* body) {
  return set(CURLOPT_READFUNCTION, &CURLClient::PutDataCallback_)
      .set(CURLOPT_READDATA, body)
      .set(CURLOPT_SEEKFUNCTION, &seek_body)
      .set(CURLOPT_SEEKDATA, body);
}

bool add_header(curl_slist*& first, curl_slist*& last, const std::string& line,
                const char* caller) {
  constexpr std::string_view kLineEnds("\r\n\0", 3);
  if (line.find_first_of(kLineEnds) != line.npos)
    return fail(false, EINVAL, "%s: a header is no single line", caller);
  curl_slist* added = curl_slist_append(last, line.c_str());
  if (added == nullptr) return fail_allocation(false, line.size() + 1, caller);
  last = last == nullptr ? first = added : last->next;
  return true;
}

std::string escaped(const char* text, size_t length, const char* caller) try {
  if (length == 0) return {};  // which libcurl takes for "up to the NUL"
  if (length > INT_MAX) return fail(std::string(), EINVAL, "%s: invalid size", caller);
  const std::unique_ptr<char, decltype(&curl_free)> copy(
      curl_easy_escape(nullptr, text, static_cast<int>(length)), curl_free);
  if (copy == nullptr) return fail_allocation(std::string(), length, caller);
  return copy.get();
} catch (const std::bad_alloc&) {
  fail_allocation(0, length, caller);
  return {};
}

}  // namespace kel::internal
