// The name of any process.
#include <kel/daemon.h>

#include "internal/process_stat.h"

const char* OSGetProcName(int pid) {
  static char name[kel::internal::kProcessNameSize];
  kel::internal::read_process_name(pid, name);
  return name;
}
