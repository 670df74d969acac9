#pragma once

#include <cstdio>
#include <cstdlib>

// What must hold for every input; stops the fuzzer, in every build, when it does not.
#define REQUIRE(condition)                                                         \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      std::abort();                                                                \
    }                                                                              \
  } while (false)
