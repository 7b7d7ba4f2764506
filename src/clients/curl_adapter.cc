// A CURLClient behind the interface; the interface's own table of functions lives here too.
#include <kel/http.h>

namespace storage {

CURLClientInterface::~CURLClientInterface() = default;

CURLClientAdapter::CURLClientAdapter() = default;

CURLClientAdapter::~CURLClientAdapter() = default;

const CURLBuffer& CURLClientAdapter::GetBuffer() const { return client_.GetBuffer(); }

bool CURLClientAdapter::InitNoClientCert(const std::string& caCert, const std::string& serverName) {
  return client_.InitNoClientCert(caCert, serverName);
}

bool CURLClientAdapter::Init(const std::string& caCert, const std::string& key,
                             const std::string& cert, const std::string& serverName,
                             CURLContextHook hook, CURLContextHook reserved, bool externalCA,
                             bool unused) {
  return client_.Init(caCert, key, cert, serverName, hook, reserved, externalCA, unused);
}

bool CURLClientAdapter::Init_withoutsslctxCallback(const std::string& caCert,
                                                   const std::string& key, const std::string& cert,
                                                   const std::string& serverName) {
  return client_.Init_withoutsslctxCallback(caCert, key, cert, serverName);
}

bool CURLClientAdapter::Execute(const std::string& url, const std::vector<std::string>& headers,
                                const std::string& body, curl::HttpMethod method) {
  return client_.Execute(url, headers, body, method);
}

void CURLClientAdapter::SetTimeout(unsigned int seconds) { client_.SetTimeout(seconds); }

long CURLClientAdapter::GetResponseCode() { return client_.GetResponseCode(); }

std::string CURLClientAdapter::encodeUrl(const char* text) { return client_.encodeUrl(text); }

}  // namespace storage
