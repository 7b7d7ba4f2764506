// What a CURLClient's connections stand on: its files, the server name it asks for, the hook into
// the TLS context, the proxy, pass phrases.
#include <kel/address.h>
#include <kel/http.h>
#include <kel/logging.h>

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "clients/c_text.h"
#include "clients/curl_calls.h"
#include "internal/handles.h"
#include "internal/report.h"

using namespace kel::internal;

namespace {

constexpr size_t kMaxPassphrase = 1023;

/// Where a TLS context keeps its client; -1 when OpenSSL has no room.
int client_index() {
  static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
  return index;
}

int passphrase_failure(int code, const char* what) {
  report_warning(-1, "%s: Failed to %s passphrase file,%s", "loadPassphraseFromFile", what,
                 std::strerror(errno));
  return code;
}

/// Stores `line` up to its first NUL, without CR and LF; what was in `out` is wiped.
bool assign_line(std::string& out, char* line) try {
  char* const end =
      std::remove_if(line, line + std::strlen(line), [](char c) { return c == '\r' || c == '\n'; });
  const size_t length = static_cast<size_t>(end - line);
  std::string text;
  text.reserve(length);
  OPENSSL_cleanse(out.data(), out.size());
  out.swap(text);
  out.assign(line, length);  // straight to where it stays
  return true;
} catch (const std::bad_alloc&) {
  return false;
}

}  // namespace

// libcurl sets its own server name, the URL's host, after the context hook and only then starts the
// handshake. OpenSSL announces the start to the context's information callback just before it
// writes the client hello, which is the one moment between the two.
void CURLClient::SendServerName(const ssl_st* ssl, int where, int result) {
  const auto* client =
      static_cast<const CURLClient*>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), client_index()));
  if (where == SSL_CB_HANDSHAKE_START &&
      SSL_set_tlsext_host_name(const_cast<ssl_st*>(ssl), client->sent_server_name_) != 1)
    report_error(-1, "%s: could not set the server name %s", __func__, client->sent_server_name_);
  if (client->info_callback_ != nullptr) client->info_callback_(ssl, where, result);
}

CURLcode CURLClient::ContextHook(void* curl, void* ctx, void* client) {
  auto& self = *static_cast<CURLClient*>(client);
  auto* const context = static_cast<SSL_CTX*>(ctx);
  if (self.context_hook_ != nullptr) {
    const CURLcode code = self.context_hook_(curl, context, self.context_data_);
    if (code != CURLE_OK) return code;
  }
  if (self.sent_server_name_[0] == '\0') return CURLE_OK;
  if (client_index() < 0 || SSL_CTX_set_ex_data(context, client_index(), client) != 1)
    return CURLE_OUT_OF_MEMORY;
  self.info_callback_ = SSL_CTX_get_info_callback(context);  // perhaps the hook's
  SSL_CTX_set_info_callback(context, SendServerName);
  return CURLE_OK;
}

int CURLClient::SetServerName(const char* name) {
  const size_t length = std::strlen(name);
  if (length > TLSEXT_MAXLEN_host_name) return CURLE_BAD_FUNCTION_ARGUMENT;
  static_assert(sizeof sent_server_name_ > TLSEXT_MAXLEN_host_name);
  const CURLcode code = CurlOptions(handle_)
                            .set(CURLOPT_SSL_CTX_FUNCTION, &ContextHook)
                            .set(CURLOPT_SSL_CTX_DATA, this)
                            .code();
  if (code == CURLE_OK) std::memcpy(sent_server_name_, name, length + 1);
  return code;
}

int CURLClient::setContextFunction(CURLContextHook hook, void* data) {
  CURLcode code = curl_easy_setopt(handle_, CURLOPT_SSL_CTX_FUNCTION, &ContextHook);
  if (code != CURLE_OK) return fail(code, -1, "%s: setContextFunction funcPtr failed", __func__);
  code = curl_easy_setopt(handle_, CURLOPT_SSL_CTX_DATA, this);
  if (code != CURLE_OK)
    return fail(code, -1, "%s: setContextFunction custom_data failed", __func__);
  context_hook_ = hook;
  context_data_ = data;
  return CURLE_OK;
}

int CURLClient::setupCAInfoToNULL() {
  return CurlOptions(handle_).set(CURLOPT_CAINFO, nullptr).set(CURLOPT_CAPATH, nullptr).code();
}

bool CURLClient::setSocksProxyOptionsIfRequired() {
  char host[256];
  char port[10];
  if (!get_nat_qxproxy(host, sizeof host, port, sizeof port)) return true;
  const bool bare_ipv6 = host[0] != '[' && std::strchr(host, ':') != nullptr;
  char proxy[sizeof host + sizeof port + sizeof "socks5h://[]:"];
  std::snprintf(proxy, sizeof proxy, bare_ipv6 ? "socks5h://[%s]:%s" : "socks5h://%s:%s", host,
                port);
  const CURLcode code = curl_easy_setopt(handle_, CURLOPT_PROXY, proxy);
  return code == CURLE_OK || fail(false, -1, "%s: could not set the proxy %s, error: %s", __func__,
                                  proxy, curl_easy_strerror(code));
}

int CURLClient::setHXPKIArtifacts(bool verify, bool externalCA, CURLContextHook hook,
                                  CURLContextHook /*reserved*/) {
  int last = CURLE_OK;
  const auto check = [&](const char* option, int code) {
    if (code == CURLE_OK) return;
    last = code;
    report_error(-1, "curl_easy_setop CURLOPT_%s failed，Err:%d,%s", option, code,
                 curl_easy_strerror(static_cast<CURLcode>(code)));
  };
  check("SSLCERTTYPE", curl_easy_setopt(handle_, CURLOPT_SSLCERTTYPE, "PEM"));
  check("SNI_HOSTNAME", SetServerName(externalCA ? "ECA" : "QXCA"));
  if (verify) {
    check("SSL_VERIFYPEER", curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYPEER, 1L));
    check("SSL_VERIFYHOST", curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYHOST, 2L));
    if (client_key_path_.empty() || client_cert_path_.empty())
      return fail(-1, -1, "%s: Missing PKI artifact(s)", __func__);
    if (!externalCA) {
      check("SSLCERT", curl_easy_setopt(handle_, CURLOPT_SSLCERT, client_cert_path_.c_str()));
      check("SSLKEY", curl_easy_setopt(handle_, CURLOPT_SSLKEY, client_key_path_.c_str()));
    }
  }
  if (ca_cert_path_.empty())
    report_warning(-1, "%s: m_CACertPath is NULL", __func__);
  else
    __Trace("%s: m_CACertPath:%s", __func__, ca_cert_path_.c_str());
  if (externalCA) {
    check("CAINFO", setupCAInfoToNULL());
    __Trace("%s: set_ssl_context", __func__);
    if (const int code = setContextFunction(hook, this); code != CURLE_OK) last = code;
  } else {
    check("CAINFO", CurlOptions(handle_).set_trust(ca_cert_path_).code());
  }
  __Trace("%s: setHXPKIArtifacts end,%d ", __func__, last);
  return last;
}

int CURLClient::loadPassphraseFromFile(const std::string& path, std::string& out) {
  if (!is_c_text(path)) return fail_quietly(-1, EINVAL), passphrase_failure(-1, "open");
  UniqueFile file{std::fopen(path.c_str(), "re")};
  if (file == nullptr) return passphrase_failure(-1, "open");
  struct Line {
    char text[kMaxPassphrase + 1] = "";
    ~Line() { OPENSSL_cleanse(text, sizeof text); }
  } line;
  std::setvbuf(file.get(), nullptr, _IONBF, 0);  // no second copy to wipe

  int result = 0;
  errno = ENODATA;
  if (std::fgets(line.text, sizeof line.text, file.get()) == nullptr)
    result = passphrase_failure(std::ferror(file.get()) != 0 ? -1 : -2, "get");
  else if (!assign_line(out, line.text))
    result = fail_allocation(-1, std::strlen(line.text), __func__);
  if (std::fclose(file.release()) != 0) passphrase_failure(0, "close");
  __Trace("%s: loadPassphraseFromFile, return %d", __func__, result);
  return result;
}
