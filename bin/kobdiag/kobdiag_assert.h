// The tool's own checks use the platform's standard assertion.  Some of them
// report a fixed line number and a fixed expression text; DIA_ASSERT_AT
// passes both to the platform's assertion entry directly.

#ifndef KOBDIAG_ASSERT_H
#define KOBDIAG_ASSERT_H

#include <cassert>

#ifdef NDEBUG
#error "kobdiag relies on its assertions; no build may define NDEBUG"
#endif

#if defined(__GLIBC__)
#define DIA_ASSERT_FAIL(text, line) __assert_fail((text), __FILE__, (line), __func__)
#elif defined(__APPLE__)
#define DIA_ASSERT_FAIL(text, line) __assert_rtn(__func__, __FILE__, (line), (text))
#else
#error "no platform assertion entry known for this platform"
#endif

#define DIA_ASSERT_AT(cond, text, line)                                                            \
    do {                                                                                           \
        if (!(cond))                                                                               \
            DIA_ASSERT_FAIL(text, line);                                                           \
    } while (0)

#endif
