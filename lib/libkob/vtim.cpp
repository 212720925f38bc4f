// Time sources: seconds as doubles.

#include "vtim.h"

#include <cstdint>

#include "odr.h"
#include "vas.h"

extern "C" {

double VTIM_now(void) {
    struct timeval tv;
    VAS_CHECK(ODR_gettimeofday(&tv, nullptr) == 0, "ODR_gettimeofday(&tv, NULL) == 0");
    return static_cast<double>(tv.tv_sec) + 1e-6 * static_cast<double>(tv.tv_usec);
}

double VTIM_real(void) {
    struct timespec ts;
    VAS_CHECK(ODR_clock_gettime(ODR_CLOCK_REALTIME, &ts) == 0,
              "ODR_clock_gettime(ODR_CLOCK_REALTIME, &ts) == 0");
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

double VTIM_mono(void) {
    struct timespec ts;
    VAS_CHECK(ODR_clock_gettime(ODR_CLOCK_MONOTONIC, &ts) == 0,
              "ODR_clock_gettime(ODR_CLOCK_MONOTONIC, &ts) == 0");
    return static_cast<double>(ts.tv_sec) + 1e-9 * static_cast<double>(ts.tv_nsec);
}

struct timeval VTIM_toTimeval(double t) {
    struct timeval tv;
    tv.tv_sec = static_cast<time_t>(static_cast<int64_t>(t));
    tv.tv_usec =
        static_cast<suseconds_t>(static_cast<int32_t>((t - static_cast<double>(tv.tv_sec)) * 1e6));
    return tv;
}

} // extern "C"
