// Shared memory, which this platform's callers do without.
#include <kel/daemon.h>

#include "internal/report.h"

using kel::internal::fail_quietly;

void* KelShMOpen(const char*, size_t, int) { return fail_quietly<void*>(nullptr, ENOSYS); }

int KelShMRead(void*, void*, size_t) { return fail_quietly(-1, ENOSYS); }

int KelShMWrite(void*, const void*, size_t) { return fail_quietly(-1, ENOSYS); }

void KelShMClose(void*) {}

bool KelShMSupported(void) { return false; }
