// A folder on an HTTPS server that takes GET and PUT, such as nginx with WebDAV. The server
// is always verified. Bodies are whole in memory.
#pragma once

#include <kel/http.h>

#include <cstdint>
#include <string>

#include "base64.h"
#include "fingerprint.h"
#include "options.h"

namespace dedup {

class RemoteFolder {
 public:
  explicit RemoteFolder(const RemoteAddress& address) : address_(address) {}

  enum class Found { kYes, kNo, kFailed };

  // All of these report what fails, with what to do about it, except that something is not there.

  /// Checks the address; nothing is sent yet.
  bool open();
  /// Fetches a file: body() is what it holds.
  Found get(const std::string& name);
  /// Writes a file, over the one that is there.
  bool put(const std::string& name, const std::string& body);
  /// Fetches the first bytes of a file, 64 if it has as many; `size` is that of all of it.
  Found get_start(const std::string& name, uint64_t& size);

  /// Valid until the next request.
  Bytes body() const { return bytes_of(text()); }
  const std::string& text() const { return request_.getDataString(); }
  std::string url_of(const std::string& name) const { return address_.url + "/" + name; }

 private:
  long ask(const std::string& name, CurlRequest::HttpMethod method, const char* header);
  void report(const std::string& name, long status) const;
  Found found(const std::string& name, long status) const;

  RemoteAddress address_;
  CurlRequest request_;  ///< keeps its connection open
};

}  // namespace dedup
