// Human-written sizes as byte counts.

#include "vnum.h"

#include <cmath>
#include <cstdlib>

namespace {

constexpr double kTwo63 = 9223372036854775808.0;  // 2^63
constexpr double kTwo64 = 18446744073709551616.0; // 2^64

// Truncation into the unsigned range, as the library has always done it:
// negative values wrap around.  A plain cast of a negative or too large
// double is undefined in C++, so each range is converted on purpose:
// negative values through int64_t (whose conversion to unsigned is modular),
// values beyond either end saturate, and not-a-number becomes 0.
uint64_t toBytes(double v) {
    if (std::isnan(v))
        return 0;
    if (v >= kTwo64)
        return UINT64_MAX;
    if (v >= 0.0)
        return static_cast<uint64_t>(v);
    if (v < -kTwo63)
        return static_cast<uint64_t>(INT64_MIN);
    return static_cast<uint64_t>(static_cast<int64_t>(v));
}

} // namespace

extern "C" {

const char *NUM_toBytes(const char *text, uint64_t *result, uint64_t rel) {
    if (text == nullptr || *text == '\0')
        return NUM_ERR_MISSING;
    char *end;
    double fval = strtod(text, &end);
    if (end == text)
        return NUM_ERR_INVALID;
    // No finiteness test: "inf" and "nan" are numbers here, as they always were.
    if (*end == '\0') {
        *result = toBytes(fval);
        return nullptr;
    }
    if (end[0] == '%' && end[1] == '\0') {
        if (rel == 0)
            return NUM_ERR_ABSOLUTE;
        *result = toBytes(fval * (static_cast<double>(rel) / 100.0));
        return nullptr;
    }
    // One blank may stand between the number and its unit, but not after it.
    if (end[0] == ' ' && end[1] != '\0')
        end++;
    int shift = 0;
    switch (*end) {
    case 'k':
    case 'K':
        shift = 10;
        break;
    case 'm':
    case 'M':
        shift = 20;
        break;
    case 'g':
    case 'G':
        shift = 30;
        break;
    case 't':
    case 'T':
        shift = 40;
        break;
    case 'p':
    case 'P':
        shift = 50;
        break;
    case 'e':
    case 'E':
        shift = 60;
        break;
    default:
        break;
    }
    if (shift != 0) {
        fval *= static_cast<double>(uint64_t{1} << shift);
        end++;
    }
    if (*end == 'b' || *end == 'B')
        end++;
    if (*end != '\0')
        return NUM_ERR_SUFFIX;
    *result = toBytes(fval);
    return nullptr;
}

} // extern "C"
