// The platform's standard assertion entry, called with an explicit
// expression text and line: the one place that knows each platform's entry.
// The lock registry and the segment reader check through KOB_PLATFORM_CHECK;
// kobdiag's own units reach the entry through kobdiag_assert.h.  The
// expression text is passed explicitly, since plain assert() would stringify
// the code differently.

#ifndef KOB_PLATFORM_ASSERT_H
#define KOB_PLATFORM_ASSERT_H

#include <cassert>

#if defined(__GLIBC__)
#define KOB_PLATFORM_FAIL_AT(text, line) __assert_fail((text), __FILE__, (line), __func__)
#elif defined(__APPLE__)
#define KOB_PLATFORM_FAIL_AT(text, line) __assert_rtn(__func__, __FILE__, (line), (text))
#else
#error "no platform assertion entry known for this platform"
#endif

// The library and the tool rely on these checks and on assert(); a build
// that switched them off (some compilers define NDEBUG when optimising)
// would drop them without a word, so it stops here instead.  The library's
// units and the tool's include this header in every build.
#ifdef NDEBUG
#error "libkob and kobdiag rely on their assertions; no build may define NDEBUG"
#endif

#define KOB_PLATFORM_CHECK(cond, text)                                                             \
    do {                                                                                           \
        if (__builtin_expect(!(cond), 0))                                                          \
            KOB_PLATFORM_FAIL_AT(text, __LINE__);                                                  \
    } while (0)

#endif
