// What the log reader's two units share.

#ifndef KOB_VSL_PRIV_H
#define KOB_VSL_PRIV_H

#include "vsl.h"

// Make the reader state on first use; check it every time.
struct vsl *vsl_Setup(struct VSM_data *vd);

// The segment under the log was closed (by the log itself, by the caller or
// by a counter walk that maps it anew): the positions point into a mapping
// that is gone, so the next read opens the log afresh.  last_gen stays.
void vsl_SegmentClosed(struct vsl *vsl);

#endif
