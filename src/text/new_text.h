// Memory for the texts that the library hands out.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdlib>

#include "internal/handles.h"
#include "internal/report.h"

namespace kel::internal {

/// Room for `length` characters and a terminator; null after a report in the name of `function`.
template <class Char>
MallocPtr<Char> new_text(std::size_t length, const char* function) {
  std::size_t size = 0;
  MallocPtr<Char> text;
  if (!__builtin_mul_overflow(length + 1, sizeof(Char), &size))
    text.reset(static_cast<Char*>(std::malloc(size)));
  if (text == nullptr) report_error(ENOMEM, "%s: could not allocate memory", function);
  if (text == nullptr) errno = ENOMEM;
  return text;
}

}  // namespace kel::internal
