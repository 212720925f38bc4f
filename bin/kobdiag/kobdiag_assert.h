// The tool's own checks use the platform's standard assertion.  Some of them
// report a fixed line number and a fixed expression text; DIA_ASSERT_AT
// passes both to the platform's assertion entry directly.

#ifndef KOBDIAG_ASSERT_H
#define KOBDIAG_ASSERT_H

#include "platform_assert.h"

#define DIA_ASSERT_AT(cond, text, line)                                                            \
    do {                                                                                           \
        if (!(cond))                                                                               \
            KOB_PLATFORM_FAIL_AT(text, line);                                                      \
    } while (0)

#endif
