// Texts of callers that go to C libraries as plain C strings.
#pragma once

#include <string>

namespace kel::internal {

/// Whether a C string can hold all of `text`; its bytes behind a NUL would be dropped in silence.
inline bool is_c_text(const std::string& text) noexcept {
  return text.find('\0') == std::string::npos;
}

}  // namespace kel::internal
