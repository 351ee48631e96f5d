// Internal invariants: cheap checks that fail fast. They guard programming errors, not user
// input; user-facing failures go through kx::Fatal (report.h).
#pragma once

#include <cstdio>
#include <cstdlib>

#define KX_CHECK(cond)                                                              \
  do {                                                                              \
    if (!(cond)) {                                                                  \
      std::fprintf(stderr, "%s:%d: internal check failed: %s\n", __FILE__, __LINE__, \
                   #cond);                                                          \
      std::abort();                                                                 \
    }                                                                               \
  } while (0)

#ifdef NDEBUG
#define KX_DCHECK(cond) \
  do {                  \
  } while (0)
#else
#define KX_DCHECK(cond) KX_CHECK(cond)
#endif
