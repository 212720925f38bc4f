// Checks that report through the platform's standard assertion entry rather
// than VAS_Fail: the lock registry and the segment reader use them.  The
// expression text is passed explicitly, since plain assert() would
// stringify the code differently.  Like assert(), they vanish under NDEBUG,
// but the condition is still evaluated, so no call may hide inside one.

#ifndef KOB_PLATFORM_ASSERT_H
#define KOB_PLATFORM_ASSERT_H

#include <cassert>

#ifdef NDEBUG
#define KOB_PLATFORM_CHECK(cond, text) ((void)(cond))
#else
#if defined(__GLIBC__)
#define KOB_PLATFORM_FAIL(text) __assert_fail((text), __FILE__, __LINE__, __func__)
#elif defined(__APPLE__)
#define KOB_PLATFORM_FAIL(text) __assert_rtn(__func__, __FILE__, __LINE__, (text))
#else
#error "no platform assertion entry known for this platform"
#endif
#define KOB_PLATFORM_CHECK(cond, text)                                                             \
    do {                                                                                           \
        if (__builtin_expect(!(cond), 0))                                                          \
            KOB_PLATFORM_FAIL(text);                                                               \
    } while (0)
#endif

#endif
