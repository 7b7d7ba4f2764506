/**
 * @file
 * Every family of the library in one header.
 */
#ifndef KEL_KEL_H
#define KEL_KEL_H

#include <kel/blowfish.h>
#include <kel/cipher.h>
#include <kel/crc.h>
#include <kel/crypt.h>
#include <kel/daemon.h>
#include <kel/digest.h>
#include <kel/export.h>
#include <kel/hashtree.h>
#include <kel/library.h>
#include <kel/logging.h>
#include <kel/magic.h>
#include <kel/os.h>
#include <kel/preallocator.h>
#include <kel/runtime.h>
#include <kel/safeio.h>
#include <kel/serialize.h>
#include <kel/strings.h>
#include <kel/uid.h>

#endif
