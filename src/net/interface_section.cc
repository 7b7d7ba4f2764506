// The local interfaces in the system summary.
#include <kel/iprange.h>

#include "frame/os_test_sections.h"

namespace kel::internal {

void print_interface_section(FILE* out) {
  std::fprintf(out, "System Network Interface List:\nName\tIP Address\n");
  NetGetIfaceAddr(out);
}

}  // namespace kel::internal
