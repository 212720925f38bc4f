// Internals of the test log, visible to its tests.

#ifndef KOB_VTC_LOG_PRIV_H
#define KOB_VTC_LOG_PRIV_H

#include <cstddef>

namespace kob {

// Writes v as printf's "%6.2f" would (no terminator); returns the length.
// buf must hold at least 352 bytes, the longest double in fixed notation.
size_t formatSeconds(char *buf, double v);

} // namespace kob

#endif
