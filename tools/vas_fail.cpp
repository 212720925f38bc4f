// The assertion handler of the programs beside the tool (tools, tests,
// benchmarks, fuzz targets), in the library's own form.

#include <cstdio>
#include <cstdlib>

#include "vas.h"

extern "C" void VAS_Fail(const char *func, const char *file, int line, const char *cond, int kind) {
    printf("assert fail! %s %s:%d %s %d\n", func, file, line, cond, kind);
    abort();
}
