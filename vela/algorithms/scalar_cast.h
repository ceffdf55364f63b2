// Float-to-integer casts with the device's behaviour on every backend.
//
// A GPU converts with saturation: NaN becomes 0 and values beyond the target
// range become its nearest limit.  In C++ such a cast is undefined, so host
// code (and the host backend running kernel bodies) uses these helpers
// instead of a bare cast.  Values in range truncate toward zero as usual.
#pragma once

#include <climits>

#include "vela/device/types.h"

namespace vela::internal {

template <class F>
VELA_HD inline int truncateToInt(F v) {
    if (!(v == v)) return 0;  // NaN
    if (v >= static_cast<F>(2147483648.0)) return INT_MAX;
    if (v <= static_cast<F>(-2147483648.0)) return INT_MIN;
    return static_cast<int>(v);
}

template <class F>
VELA_HD inline unsigned int truncateToUnsigned(F v) {
    if (!(v > static_cast<F>(0))) return 0u;  // NaN, zero and negatives
    if (v >= static_cast<F>(4294967296.0)) return UINT_MAX;
    return static_cast<unsigned int>(v);
}

// The low byte of the sample truncated toward zero to an int: 255.9 gives 255,
// 256 gives 0 and -1 gives 255.  Image files are written this way.
template <class F>
VELA_HD inline unsigned char lowByte(F v) {
    return static_cast<unsigned char>(static_cast<unsigned int>(truncateToInt(v)) & 0xffu);
}

}  // namespace vela::internal
