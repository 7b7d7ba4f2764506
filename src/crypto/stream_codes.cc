// Result codes in words.
#include <kel/crypt.h>

#include <zlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "crypto/stream_format.h"

using namespace kel::internal::stream;

static_assert(sizeof(c_stream_t) == 80);

const char* dcpCryptError(int code) {
  switch (code) {
    case kSystemError:
      return std::strerror(errno);
    case kComplete:
    case kOk:
    case kBadState:
    case kDataError:
    case kNoMemory:
    case kNoProgress:
    case kVersionError:
      return zError(code);
    case kBadKey:
      return "invalid or missing key";
    default:
      static char text[80];
      std::snprintf(text, sizeof text, "internal error: unknown error value %i", code);
      return text;
  }
}
