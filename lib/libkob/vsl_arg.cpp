// The log reader's options.

#include <cstdlib>

#include "vas.h"
#include "vsl.h"
#include "vsl_priv.h"

extern "C" int VSL_Arg(struct VSM_data *vd, int arg, const char *opt) {
    (void)vsl_Setup(vd);
    switch (arg) {
    case 'n':
        return VSM_n_Arg(vd, opt);
    default:
        // The filters and counts have no options; a program sets them itself.
        VAS_WRONG();
    }
}
