#pragma once

// The header of the serial library, which two packagings bring in two ways.
//
// One puts it into a folder and brings integer types of its own; another one does neither, and
// names a file that it doesn't install unless it is told that the system's types will do.
#ifndef HAVE_STDINT_H
#define HAVE_STDINT_H 1
#endif
#if __has_include(<serial/serial.h>)
#include <serial/serial.h>
#else
#include <serial.h>
#endif
