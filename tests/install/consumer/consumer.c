/*
 * A C program that uses the installed libkob and libkobec as any user would:
 * headers from include/kob, the handler VAS_Fail defined here.  With the
 * word "misuse" it breaks a buffer's rule, so the library's check must reach
 * this program's handler, also from a shared libkob.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <libkob.h>

void VAS_Fail(const char *func, const char *file, int line, const char *cond, int kind) {
    printf("assert fail! %s %s:%d %s %d\n", func, file, line, cond, kind);
    fflush(stdout);
    abort();
}

int main(int argc, char **argv) {
    struct vsb *vsb = vsb_newauto();
    if (vsb == NULL)
        return 2;
    if (argc > 1 && strcmp(argv[1], "misuse") == 0) {
        /* Reading a buffer before vsb_finish is a broken invariant. */
        puts(vsb_data(vsb));
        return 3;
    }
    uint64_t bytes = 0;
    const char *err = NUM_toBytes("1.5k", &bytes, 0);
    vsb_printf(vsb, "C: %s %llu", err == NULL ? "1.5k is" : err, (unsigned long long)bytes);
    vsb_finish(vsb);
    printf("%s bytes, %d characters\n", vsb_data(vsb), vsb_len(vsb));
    vsb_delete(vsb);
    fflush(stdout);
    KOBEC_showMsg_debug(KOBEC_LEVEL_INFO, "KOB-0001", NULL, "main", 1, "from %s", "C");
    return VTIM_mono() > 0.0 ? 0 : 4;
}
