/* The segment readers' headers are C headers: this unit only has to compile as C. */
#include "libkob.h"

int segment_headers_compile_as_c(void);

int segment_headers_compile_as_c(void) {
    struct VSM_fantom vf = {0};
    struct VSC_C_main m = {0};
    return (int)sizeof vf + (int)sizeof m + (VSL_tags[1] != 0);
}
