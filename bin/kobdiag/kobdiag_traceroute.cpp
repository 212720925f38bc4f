// The traceroute towards the operator's KT IDC node.

#include <cstdio>

#include "kobdiag.h"
#include "kobdiag_assert.h"
#include "kobdiag_config.h"

void TRE_traceroute(const char *addr) {
    char buf[1024];
    // At most 15 hops and numeric output, so no name look-ups add to its time.
    int l = snprintf(buf, sizeof buf, KOBDIAG_CMD_TRACEROUTE, addr);
    DIA_ASSERT_AT(l >= 0 && static_cast<size_t>(l) < sizeof(buf), "l < sizeof(buf)", 35);
    DIA_dumpCommand(buf);
}
