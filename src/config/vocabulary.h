// The names out of the configuration vocabulary that the library itself reads.
#pragma once

namespace kel::config {

extern const char* const kLoggingSection;
extern const char* const kLoggingEntry;
extern const char* const kRetentionEntry;

}  // namespace kel::config
