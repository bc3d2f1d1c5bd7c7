// A check that stops the fuzzer with a message when a property of the text utilities
// does not hold.
#pragma once

#include <cstdio>
#include <cstdlib>

#define ZSM_FUZZ_CHECK(condition)                                                        \
  do {                                                                                   \
    if (!(condition)) {                                                                  \
      std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                      \
    }                                                                                    \
  } while (0)
