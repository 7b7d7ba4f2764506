/**
 * @file
 * Every family of the library in one header.
 */
#ifndef KEL_KEL_H
#define KEL_KEL_H

#include <kel/export.h>
#include <kel/logging.h>
#include <kel/strings.h>

#endif
