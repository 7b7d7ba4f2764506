// The sections of the system summary that stand on floors above the frame.
#pragma once

#include <cstdio>

namespace kel::internal {

/// The mounted file systems with their sizes. Defined with the mounts (os/mount_section.cc).
void print_mount_section(FILE* out);
/// The local addresses with their interfaces. Defined with those (net/interface_section.cc).
void print_interface_section(FILE* out);

}  // namespace kel::internal
