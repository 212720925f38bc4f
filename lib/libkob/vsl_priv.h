// What the log reader's two units share.

#ifndef KOB_VSL_PRIV_H
#define KOB_VSL_PRIV_H

#include "vsl.h"

// Make the reader state on first use; check it every time.
struct vsl *vsl_Setup(struct VSM_data *vd);

#endif
