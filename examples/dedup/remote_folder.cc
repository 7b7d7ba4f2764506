#include "remote_folder.h"

#include <kel/logging.h>

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <string_view>

namespace dedup {
namespace {

constexpr long kConnectTimeout = 30;  // seconds
constexpr long kTimeout = 600;        // seconds for a whole file

/// What can be done about a status that is not the one that was hoped for.
const char* advice_on(long status) {
  switch (status) {
    case 400:
      return "look at --remote-cert and --remote-key: servers refuse certificates that they do not "
             "know like this";
    case 401:
    case 403:
      return "the server has to allow this certificate to read and write there";
    case 404:
    case 409:
      return "look at --remote, and make the folder on the server";
    case 405:
    case 501:
      return "the server has to take PUT there, as nginx does with 'dav_methods PUT'";
    case 413:
      return "the server has to take files of this size, as nginx does with 'client_max_body_size'";
    case 421:
      return "the host in --remote is not one that the server answers for";
    case 507:
      return "make room on the server";
    default:
      return status >= 500 ? "try again, and look at the server's log" : "look at the server's log";
  }
}

/// The size of the whole file, from the head of a response that has part of it: behind the slash of
/// "Content-Range: bytes 0-63/1328".
uint64_t whole_size(std::string_view head) {
  constexpr std::string_view kName = "content-range:";
  uint64_t size = 0;
  while (!head.empty()) {
    const std::string_view line = head.substr(0, head.find('\n'));
    head.remove_prefix(std::min(line.size() + 1, head.size()));
    const size_t slash = line.rfind('/');
    if (slash != std::string_view::npos && line.size() > kName.size() &&
        ::strncasecmp(line.data(), kName.data(), kName.size()) == 0)
      std::from_chars(line.data() + slash + 1, line.data() + line.size(), size);
  }
  return size;
}

}  // namespace

bool RemoteFolder::open() {
  while (address_.url.ends_with('/')) address_.url.pop_back();
  if (address_.url.starts_with("https://") && address_.url.find_first_of("?#") == std::string::npos)
    return true;
  ErrorA(EINVAL, "'%s' is no remote; name one as https://HOST/FOLDER", address_.url.c_str());
  return false;
}

/// The status of the response; 0, after a report, when there is none.
long RemoteFolder::ask(const std::string& name, CurlRequest::HttpMethod method,
                       const char* header) {
  int code = request_.start(url_of(name), method, address_.certificate, address_.key,
                            address_.authority, kConnectTimeout, kTimeout);
  if (header != nullptr && !request_.headers(header)) return 0;
  if (code == 0) code = request_.perform();
  if (code == 0) return request_.getHttpRespCode();
  ErrorA(code,
         "could not reach %s: %s; look at --remote, its -ca, -cert and -key, and at the server",
         url_of(name).c_str(), curl_easy_strerror(static_cast<CURLcode>(code)));
  return 0;
}

void RemoteFolder::report(const std::string& name, long status) const {
  if (status != 0)
    ErrorA(EIO, "%s: the server refused with status %ld; %s", url_of(name).c_str(), status,
           advice_on(status));
}

RemoteFolder::Found RemoteFolder::found(const std::string& name, long status) const {
  if (status == 200) return Found::kYes;
  if (status == 404) return Found::kNo;
  report(name, status);
  return Found::kFailed;
}

RemoteFolder::Found RemoteFolder::get(const std::string& name) {
  return found(name, ask(name, CurlRequest::GET, nullptr));
}

RemoteFolder::Found RemoteFolder::get_start(const std::string& name, uint64_t& size) {
  const long status = ask(name, CurlRequest::GET, "Range: bytes=0-63");
  // Servers may send all of it instead.
  size = status == 206 ? whole_size(request_.getHeader()) : body().size();
  return status == 206 ? Found::kYes : found(name, status);
}

bool RemoteFolder::put(const std::string& name, const std::string& body) {
  request_.putData(body.data(), body.size());
  const long status = ask(name, CurlRequest::PUT, nullptr);
  if (status >= 200 && status < 300) return true;
  report(name, status);
  return false;
}

}  // namespace dedup
