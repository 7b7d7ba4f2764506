// The peers of https_server.sh, whose path KEL_HTTPS_SERVER is, for as long as the object lives.
#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

#include "support/temp_dir.h"

namespace kel::testing {

class HttpsServer {
 public:
  HttpsServer() {
    FILE* ports = run(" start ");
    const int found = std::fscanf(ports, "%d %d %d", &http, &https, &socks);
    if (::pclose(ports) != 0 || found != 3) throw std::runtime_error("no nginx");
  }
  ~HttpsServer() { ::pclose(run(" stop ")); }

  TempDir folder;
  int http = 0, https = 0, socks = 0;  // ports

 private:
  FILE* run(const std::string& action) const {
    return ::popen((KEL_HTTPS_SERVER + action + (folder / "")).c_str(), "r");
  }
};

}  // namespace kel::testing
