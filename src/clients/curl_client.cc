// CURLClient: making a session ready, and one request after another on its handle.
#include <kel/http.h>
#include <kel/logging.h>

#include <curl/curl.h>
#include <sys/select.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>
#include <utility>

#include "clients/c_text.h"
#include "clients/curl_calls.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr int kAttempts = 3;
constexpr unsigned kMaxTimeout = INT_MAX / 1000;  // seconds; libcurl counts milliseconds in an int
constexpr curl_off_t kLongTransfer = 60;          // seconds
constexpr curl_off_t kMicroseconds = 1'000'000;

void pause_a_second() {
  timeval second = {1, 0};
  if (::select(0, nullptr, nullptr, nullptr, &second) == -1 && errno != EINTR)
    __Trace("select returned unexpectedly with error %u [%s]", static_cast<unsigned>(errno),
            std::strerror(errno));
}

template <class Attempt>
bool try_again(Attempt attempt) {
  for (int i = 0; i < kAttempts; ++i) {
    if (attempt()) return true;
    pause_a_second();
  }
  return false;
}

bool accepted(CURLcode code, const char* caller) {
  return code == CURLE_OK || fail(false, -1, "%s: could not set an option, error: %s", caller,
                                  curl_easy_strerror(code));
}

}  // namespace

CURLClient::CURLClient() = default;

CURLClient::~CURLClient() { Close(); }

void CURLClient::Close() {
  const ErrnoGuard keep;
  initialised_ = false;
  curl_easy_cleanup(std::exchange(handle_, nullptr));
  curl_slist_free_all(std::exchange(header_list_, nullptr));
  sent_server_name_[0] = '\0';
  context_hook_ = nullptr;
  context_data_ = nullptr;
  info_callback_ = nullptr;
}

void CURLClient::SetTimeout(unsigned int seconds) { timeout_ = seconds; }

/// A new handle with everything but the TLS settings.
bool CURLClient::Prepare(const char* caller) {
  static_assert(sizeof error_text_ == CURL_ERROR_SIZE);
  Close();
  handle_ = curl_easy_init();
  if (handle_ == nullptr) return fail(false, -1, "%s: curl_easy_init failed", caller);
  if (!setSocksProxyOptionsIfRequired()) return false;
  const long timeout = std::min(timeout_, kMaxTimeout);
  error_text_[0] = '\0';
  return accepted(CurlOptions(handle_)
                      .set(CURLOPT_NOSIGNAL, 1L)
                      .set(CURLOPT_CONNECTTIMEOUT, timeout)
                      .set(CURLOPT_TIMEOUT, timeout)
                      .set(CURLOPT_ERRORBUFFER, &error_text_[0])
                      .set(CURLOPT_WRITEFUNCTION, &WriteCallback)
                      .set(CURLOPT_WRITEDATA, &response_)
                      .code(),
                  caller);
}

bool CURLClient::InitImp(const std::string& caCert, const std::string& key, const std::string& cert,
                         const std::string& serverName, CURLContextHook hook,
                         CURLContextHook reserved, bool externalCA) {
  if (!Prepare(__func__) || !setCustomSecurityCreds(caCert, key, cert, serverName)) return false;
  if (setHXPKIArtifacts(true, externalCA, hook, reserved) == -1)
    return fail(false, -1, "%s: setHXPKIArtifacts failed", __func__);
  return initialised_ = true;
}

bool CURLClient::InitImp_withoutsslctxCallback(const std::string& caCert, const std::string& key,
                                               const std::string& cert,
                                               const std::string& serverName) {
  if (!Prepare(__func__) || !setCustomSecurityCreds(caCert, key, cert, serverName)) return false;
  const bool verify = !caCert.empty();
  const CURLcode code = CurlOptions(handle_)
                            .set(CURLOPT_SSL_VERIFYPEER, verify ? 1L : 0L)
                            .set(CURLOPT_SSL_VERIFYHOST, verify ? 2L : 0L)
                            .set_trust(caCert)
                            .set_path(CURLOPT_SSLKEY, key)
                            .set_path(CURLOPT_SSLCERT, cert)
                            .code();
  if (!accepted(code, __func__)) return false;
  if (!serverName.empty() &&
      !accepted(static_cast<CURLcode>(SetServerName(serverName.c_str())), __func__))
    return false;
  return initialised_ = true;
}

bool CURLClient::Init(const std::string& caCert, const std::string& key, const std::string& cert,
                      const std::string& serverName, CURLContextHook hook, CURLContextHook reserved,
                      bool externalCA, bool /*unused*/) {
  return initialised_ || try_again([&] {
           return InitImp(caCert, key, cert, serverName, hook, reserved, externalCA);
         });
}

bool CURLClient::Init_withoutsslctxCallback(const std::string& caCert, const std::string& key,
                                            const std::string& cert,
                                            const std::string& serverName) {
  return initialised_ ||
         try_again([&] { return InitImp_withoutsslctxCallback(caCert, key, cert, serverName); });
}

bool CURLClient::InitNoClientCert(const std::string& caCert, const std::string& serverName) {
  if (initialised_) return true;
  __Trace("%s: try to connect without secure comms cert", __func__);
  return InitImp_withoutsslctxCallback(caCert, {}, {}, serverName);
}

bool CURLClient::setCustomSecurityCreds(const std::string& caCert, const std::string& key,
                                        const std::string& cert,
                                        const std::string& serverName) try {
  for (const std::string* text : {&caCert, &key, &cert, &serverName})
    if (!is_c_text(*text)) return fail(false, EINVAL, "%s: a NUL in a path or name", __func__);
  if (TraceOn())
    __Trace("%s: %s,%s,%s,%s", __func__, caCert.c_str(), key.c_str(), cert.c_str(),
            serverName.c_str());
  ca_cert_path_ = caCert;
  client_key_path_ = key;
  client_cert_path_ = cert;
  server_name_ = serverName;
  return true;
} catch (const std::bad_alloc&) {
  return fail_allocation(false, caCert.size() + key.size() + cert.size() + serverName.size(),
                         __func__);
}

int CURLClient::ResetOpt() {
  return CurlOptions(handle_)
      .set(CURLOPT_UPLOAD, 0L)
      .set(CURLOPT_POST, 0L)
      .set(CURLOPT_HTTPGET, 0L)
      .set(CURLOPT_CUSTOMREQUEST, nullptr)
      .code();
}

int CURLClient::SetMethod(storage::curl::HttpMethod method) {
  CurlOptions options(handle_);
  const auto size = static_cast<curl_off_t>(request_body_.size);
  if (method == storage::curl::PUT)
    options.set(CURLOPT_UPLOAD, 1L).set(CURLOPT_INFILESIZE_LARGE, size).set_body(&request_body_);
  else if (method == storage::curl::POST || size != 0)
    options.set(CURLOPT_POST, 1L).set(CURLOPT_POSTFIELDSIZE_LARGE, size).set_body(&request_body_);
  else if (method == storage::curl::DELETE)
    options.set(CURLOPT_CUSTOMREQUEST, "DELETE");
  else
    options.set(CURLOPT_HTTPGET, 1L);
  return options.code();
}

bool CURLClient::ReplaceHeaders(const std::vector<std::string>& headers) {
  if (!accepted(curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, nullptr), "Execute")) return false;
  curl_slist_free_all(std::exchange(header_list_, nullptr));
  curl_slist* last = nullptr;
  for (const std::string& line : headers)
    if (!add_header(header_list_, last, line, "Execute")) return false;
  return accepted(curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, header_list_), "Execute");
}

bool CURLClient::Execute(const std::string& url, const std::vector<std::string>& headers,
                         const std::string& body, storage::curl::HttpMethod method) {
  response_.Reset();
  response_code_ = 0;
  if (!initialised_) return fail(false, EINVAL, "%s: not initialised", __func__);
  if (!is_c_text(url)) return fail(false, EINVAL, "%s: a NUL in the URL", __func__);
  if (TraceOn()) __Trace("%s: method: %d", __func__, static_cast<int>(method));

  request_body_ = {body.data(), 0, body.size()};
  const bool received = accepted(static_cast<CURLcode>(ResetOpt()), __func__) &&
                        accepted(CurlOptions(handle_)
                                     .set(CURLOPT_WRITEDATA, &response_)
                                     .set(CURLOPT_URL, url.c_str())
                                     .code(),
                                 __func__) &&
                        accepted(static_cast<CURLcode>(SetMethod(method)), __func__) &&
                        ReplaceHeaders(headers) && Perform();
  request_body_ = {};  // the caller's bytes
  return received;
}

bool CURLClient::Perform() {
  constexpr const char* kCaller = "Execute";
  const CURLcode code = curl_easy_perform(handle_);
  if (code != CURLE_OK)
    return fail(false, -1, "%s: failed to perform CURL session, error: %s", kCaller,
                error_text_[0] != '\0' ? error_text_ : curl_easy_strerror(code));
  curl_off_t duration = 0;
  if (curl_easy_getinfo(handle_, CURLINFO_TOTAL_TIME_T, &duration) == CURLE_OK &&
      duration > kLongTransfer * kMicroseconds)
    report_warning(-1, "%s: the curl excuting time exceeded 60s (%ld)", kCaller,
                   static_cast<long>(duration / kMicroseconds));
  const bool answered =
      accepted(curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &response_code_), kCaller);
  return response_.Finalize() && answered;
}

const CURLBuffer& CURLClient::GetBuffer() const { return response_; }

long CURLClient::GetResponseCode() const { return response_code_; }

std::string CURLClient::encodeUrl(const char* text) const {
  return text == nullptr ? std::string() : escaped(text, std::strlen(text), __func__);
}

size_t CURLClient::WriteCallback(char* ptr, size_t size, size_t nmemb, void* buffer) {
  return buffer == nullptr ? 0 : static_cast<CURLBuffer*>(buffer)->Append(ptr, size, nmemb);
}

size_t CURLClient::PutDataCallback_(char* ptr, size_t size, size_t nmemb, void* putBuffer) {
  if (putBuffer == nullptr) {
    __Trace("%s: inputBuffer was nullptr", __func__);
    return 0;
  }
  auto& put = *static_cast<CURLPutDataBuffer*>(putBuffer);
  const size_t left = put.size - put.position;
  size_t count = 0;
  if (__builtin_mul_overflow(size, nmemb, &count) || count > left) count = left;
  if (count != 0) std::memcpy(ptr, put.data + put.position, count);
  put.position += count;
  return count;
}
