/**
 * @file
 * Every family of the library in one header.
 */
#ifndef KEL_KEL_H
#define KEL_KEL_H

#include <kel/address.h>
#include <kel/array.h>
#include <kel/base64.h>
#include <kel/binsort.h>
#include <kel/bloom.h>
#include <kel/blowfish.h>
#include <kel/charconv.h>
#include <kel/cipher.h>
#include <kel/crc.h>
#include <kel/crypt.h>
#include <kel/daemon.h>
#include <kel/digest.h>
#include <kel/dir.h>
#include <kel/export.h>
#include <kel/file.h>
#include <kel/hashtree.h>
#include <kel/inifile.h>
#include <kel/iprange.h>
#include <kel/library.h>
#include <kel/logfiles.h>
#include <kel/logging.h>
#include <kel/magic.h>
#include <kel/net.h>
#include <kel/options.h>
#include <kel/os.h>
#include <kel/passwd.h>
#include <kel/path.h>
#include <kel/preallocator.h>
#include <kel/probes.h>
#include <kel/runtime.h>
#include <kel/safeio.h>
#include <kel/serialize.h>
#include <kel/set.h>
#include <kel/strings.h>
#include <kel/text.h>
#include <kel/uid.h>
#include <kel/url.h>
#include <kel/wide.h>

#endif
