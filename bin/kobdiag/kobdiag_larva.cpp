// The "lva" log, and the assertion handler that kobdiag supplies to libkob.

#include <cstdio>
#include <cstdlib>

#include "kobdiag.h"
#include "kobdiag_assert.h"
#include "vas.h"
#include "vsb.h"
#include "vtc_log.h"

struct vtclog *lva_vl;
struct vsb *vas_vsb;
struct vtclog *vas_vl;

void LVA_Init(void) {
    lva_vl = vtc_logopen("lva", nullptr);
    DIA_ASSERT_AT(lva_vl != nullptr, "(lva_vl) != 0", 76);
}

void LVA_sendReport(void *unused1, void *unused2) {
    (void)unused1;
    (void)unused2;
    printf("%s: TODO\n", "LVA_sendReport");
    abort();
}

extern "C" {

void VAS_Fail(const char *func, const char *file, int line, const char *cond, int kind) {
    printf("assert fail! %s %s:%d %s %d\n", func, file, line, cond, kind);
    abort();
}

void VAS_Init(void) {
    vas_vsb = vsb_newauto();
    if (vas_vsb == nullptr) {
        printf("[ERROR] vsb_newauto() failed\n");
        return;
    }
    vas_vl = vtc_logopen("vas", nullptr);
    if (vas_vl == nullptr)
        printf("[ERROR] vtc_logopen failed\n");
}

} // extern "C"
