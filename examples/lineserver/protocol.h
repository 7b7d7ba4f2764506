// The words of the service and its clients.
#pragma once

#include <cstddef>

namespace lineserver {

constexpr char kDefaultPort[] = "7410";

// Answers, ended by CR LF.
constexpr char kKnown[] = "KNOWN";
constexpr char kUnknown[] = "UNKNOWN";
constexpr char kNoFingerprint[] = "ERROR  Not a fingerprint of 64 hexadecimal digits";

// Farewells, ended by LF and the end of the connection, as those of the accept loop.
constexpr char kDenied[] = "ABRT  Access Denied";
constexpr char kShuttingDown[] = "BYE  Service Shutting Down, try again later";
constexpr char kFull[] = "BYE  Too Many Connections, try again later";
constexpr char kIdle[] = "BYE  Idle for too long";
constexpr char kTooLong[] = "BYE  Line too long";

constexpr size_t kDigits = 64;     ///< of a fingerprint
constexpr size_t kLongest = 1024;  ///< of a request, LF included

}  // namespace lineserver
