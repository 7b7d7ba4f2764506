// What the parts of the option parser share about a table and its options.
#pragma once

#include <kel/options.h>

#include <cstddef>
#include <cstdint>

namespace kel::config {

// The parser's own bits of opt_t::flags.
inline constexpr std::uint64_t kStored = std::uint64_t{1} << 63;
inline constexpr std::uint64_t kAllocated = std::uint64_t{1} << 62;
inline constexpr std::uint64_t kFileLoaded = std::uint64_t{1} << 61;

/// Capacity for option texts, which opt_validate() holds all options to.
inline constexpr std::size_t kOptionText = 1024;
/// Capacity for values from the configuration file; takes every path.
inline constexpr std::size_t kFileValue = 4096;

inline bool is_flag(const opt_t& option) noexcept {
  return option.type == OPT_CLEAR || option.type == OPT_SET;
}

/// The word for the option's value; empty for a flag.
const char* word_of(const opt_t& option) noexcept;

/// An option's text for a message, cut where it is too long.
struct OptionText {
  explicit OptionText(const opt_t& option) noexcept;
  char text[kOptionText];
};

/// Reports a failure without a code; errno is `error`, the result -1.
[[gnu::format(printf, 2, 3)]] int refuse(int error, const char* format, ...);

/// What an option gets when the command line does not have it.
struct DefaultText {
  const char* text;  ///< may be null
  bool cut;          ///< it is the beginning of a value of the configuration file
};
DefaultText default_text(const opt_t& option, const opt_t* ini_option, char* buf, std::size_t len);

/// Stores what a flag has before it is given.
void reset_flag(opt_t& option) noexcept;

/// Stores the path of the configuration file in the option that names it; null where there is none.
/// False when a path of the command line could not be stored, which is reported.
bool choose_ini_option(opt_t** options, int argc, char** argv, opt_t*& chosen);

}  // namespace kel::config
