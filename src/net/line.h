// Lines out, for callers that say how.
#pragma once

#include <string_view>

namespace kel::internal {

/// Sends a line, its LF included, as NetSend() does, with flags for send(2).
int send_line(int sock, int flags, std::string_view line);

}  // namespace kel::internal
