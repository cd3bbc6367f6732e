// Fatal assertion for POSIX set-up calls: these never fail on a sane system, and carrying on after
// one did would corrupt the process, so the process stops with the glibc-style assertion text.
#ifndef QUOREL_PLATFORM_SRC_FATAL_H
#define QUOREL_PLATFORM_SRC_FATAL_H

#include <cstdio>
#include <cstdlib>

#define QFATAL_ASSERT(cond, source)                                                                         \
    do {                                                                                                    \
        if (!(cond)) {                                                                                      \
            std::fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", source, __LINE__, __func__, #cond); \
            std::abort();                                                                                   \
        }                                                                                                   \
    } while (0)

#endif
