// Assertions for internal faults only, never for input. Each takes the module
// path as a constant, since the path text in the message is fixed:
//   static constexpr const char* kSourcePath = "apps/witnessd/tpm2/Session";
#pragma once

#include "platform/Log.h"

#define VERIFY(cond)                                  \
  do {                                                \
    if (!(cond)) {                                    \
      Panic("VERIFY %s:%d\n", kSourcePath, __LINE__); \
    }                                                 \
  } while (0)

#define NOT_REACHED() Panic("NOT_REACHED %s:%d\n", kSourcePath, __LINE__)

#define NOT_IMPLEMENTED() Panic("NOT_IMPLEMENTED %s:%d\n", kSourcePath, __LINE__)
