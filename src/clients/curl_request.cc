// CurlRequest: one request prepared, sent, and its response kept.
#include <kel/http.h>

#include <curl/curl.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "clients/c_text.h"
#include "clients/curl_calls.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

int discard_debug(CURL*, curl_infotype, char*, size_t, void*) { return 0; }

size_t append(std::string& text, const char* data, size_t count) try {
  text.append(data, count);
  return count;
} catch (const std::bad_alloc&) {
  return fail_allocation(size_t{0}, count, "perform");
}

size_t receive_header(char* ptr, size_t size, size_t nmemb, void* headers) {
  return append(*static_cast<std::string*>(headers), ptr, size * nmemb);
}

}  // namespace

int CurlRequest::global_init() { return curl_global_init(CURL_GLOBAL_ALL); }

void CurlRequest::global_cleanup() { curl_global_cleanup(); }

CurlRequest::CurlRequest() : handle_(curl_easy_init()) {}

CurlRequest::~CurlRequest() {
  const ErrnoGuard keep;
  curl_easy_cleanup(handle_);
  curl_slist_free_all(header_list_);
}

size_t CurlRequest::Receive(char* ptr, size_t size, size_t nmemb, void* request) {
  auto& self = *static_cast<CurlRequest*>(request);
  if (!self.memory_.in_use) return append(self.response_, ptr, size * nmemb);
  ResponseMemory& memory = self.memory_;
  const size_t count = std::min(size * nmemb, memory.capacity - memory.position);
  if (count != 0) std::memcpy(memory.data + memory.position, ptr, count);
  memory.position += count;
  return count;
}

int CurlRequest::Prepare(const std::string& url, HttpMethod method, long connectTimeout,
                         long timeout) {
  if (handle_ == nullptr) return -1;
  curl_easy_reset(handle_);
  curl_slist_free_all(std::exchange(header_list_, nullptr));
  last_header_ = nullptr;
  response_.clear();
  response_headers_.clear();
  if (std::exchange(body_sent_, false)) body_ = {};
  if (std::exchange(memory_used_, false)) memory_ = {};
  method_ = method;
  if (!is_c_text(url)) return CURLE_URL_MALFORMAT;

  CurlOptions options(handle_);
  options.set(CURLOPT_VERBOSE, 1L)
      .set(CURLOPT_DEBUGFUNCTION, &discard_debug)
      .set(CURLOPT_URL, url.c_str())
      .set(CURLOPT_NOSIGNAL, 1L)
      .set(CURLOPT_NOPROGRESS, 1L)
      .set(CURLOPT_CONNECTTIMEOUT, connectTimeout)
      .set(CURLOPT_TIMEOUT, timeout)
      .set(CURLOPT_WRITEFUNCTION, &Receive)
      .set(CURLOPT_WRITEDATA, this)
      .set(CURLOPT_HEADERFUNCTION, &receive_header)
      .set(CURLOPT_HEADERDATA, &response_headers_);
  if (method == DELETE) options.set(CURLOPT_CUSTOMREQUEST, "DELETE");
  if (method == HEAD) options.set(CURLOPT_NOBODY, 1L);
  if (method == PATCH) options.set(CURLOPT_CUSTOMREQUEST, "PATCH");
  return options.code();
}

/// Gives the methods that have a body theirs. Left to the last moment, so that putData() may come
/// before or after start().
int CurlRequest::SetBody() {
  CurlOptions options(handle_);
  const auto size = static_cast<curl_off_t>(body_.size);
  body_.position = 0;
  if (method_ == POST)
    options.set(CURLOPT_POST, 1L).set(CURLOPT_POSTFIELDSIZE_LARGE, size).set_body(&body_);
  else if (method_ == PUT)
    options.set(CURLOPT_UPLOAD, 1L).set(CURLOPT_INFILESIZE_LARGE, size).set_body(&body_);
  else if (method_ == PATCH)
    options.set(CURLOPT_POSTFIELDSIZE_LARGE, size)
        .set(CURLOPT_COPYPOSTFIELDS, body_.data != nullptr ? body_.data : "");
  return options.code();
}

int CurlRequest::start(const std::string& url, HttpMethod method, const std::string& certFile,
                       const std::string& keyFile, const std::string& caFile, long connectTimeout,
                       long timeout) {
  start_code_ = Prepare(url, method, connectTimeout, timeout);
  if (start_code_ == CURLE_OK)
    start_code_ = CurlOptions(handle_)
                      .set(CURLOPT_SSL_VERIFYHOST, 2L)
                      .set(CURLOPT_SSL_VERIFYPEER, 1L)
                      .set_path(CURLOPT_SSLCERT, certFile)
                      .set_path(CURLOPT_SSLKEY, keyFile)
                      .set_trust(caFile)
                      .code();
  return start_code_;
}

int CurlRequest::start(const std::string& url, HttpMethod method, long connectTimeout, long timeout,
                       bool verifyHost, bool verifyPeer) {
  start_code_ = Prepare(url, method, connectTimeout, timeout);
  if (start_code_ == CURLE_OK)
    start_code_ = CurlOptions(handle_)
                      .set(CURLOPT_SSL_VERIFYHOST, verifyHost ? 2L : 0L)
                      .set(CURLOPT_SSL_VERIFYPEER, verifyPeer ? 1L : 0L)
                      .code();
  return start_code_;
}

bool CurlRequest::headers(const std::string& line) {
  return add_header(header_list_, last_header_, line, __func__);
}

bool CurlRequest::headers(const std::vector<std::string>& lines) {
  return std::all_of(lines.begin(), lines.end(),
                     [this](const std::string& line) { return headers(line); });
}

void CurlRequest::putData(const char* data, size_t size) {
  body_ = {data, 0, data != nullptr ? size : 0};
  body_sent_ = false;
}

void CurlRequest::getData(char* buffer, size_t capacity) {
  memory_ = {buffer, 0, capacity, buffer != nullptr};
  memory_used_ = false;
}

int CurlRequest::perform() {
  if (start_code_ != CURLE_OK) return start_code_;  // a half-set handle must not run
  response_.clear();
  response_headers_.clear();
  memory_.position = 0;
  body_sent_ = memory_used_ = true;
  if (const int code = SetBody(); code != CURLE_OK) return code;
  if (!headers("Expect:")) return CURLE_OUT_OF_MEMORY;
  const CURLcode code = curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, header_list_);
  return code != CURLE_OK ? code : curl_easy_perform(handle_);
}

const std::string& CurlRequest::getDataString() const { return response_; }

char* CurlRequest::getData() const { return memory_.data; }

size_t CurlRequest::getDataSize() const { return memory_.position; }

const std::string& CurlRequest::getHeader() const { return response_headers_; }

long CurlRequest::getHttpRespCode() const {
  long code = 0;
  if (handle_ == nullptr || curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &code) != CURLE_OK)
    return 0;
  return code;
}

std::string CurlRequest::encodeUrl(const char* text) const {
  return text == nullptr ? std::string() : escaped(text, std::strlen(text), __func__);
}

std::string CurlRequest::encodeUrl(const std::string& text) const {
  return escaped(text.data(), text.size(), __func__);
}
