// Lane operations for the solver's per-pixel arithmetic.
//
// The solver steps are written once, over a value type V that holds one pixel
// (float, as a GPU thread sees it) or a run of neighbouring pixels of one row
// (seg::Pack, src/solver/pack.h, on the host).  Arithmetic uses the
// ordinary operators; the few operations that differ between a scalar and a
// pack go through the functions below, which packs overload with the same IEEE
// operation per lane, so both give identical bits.
#pragma once

#include <cmath>

#include "vela/device/types.h"

namespace seg {

VELA_HD inline float select(bool take, float a, float b) { return take ? a : b; }
VELA_HD inline bool allLanes(bool m) { return m; }
VELA_HD inline bool noLanes(bool m) { return !m; }
VELA_HD inline float lanesSqrt(float a) { return sqrtf(a); }

// max(1, a), returning 1 for a NaN as fmaxf does: a vanishing edge weight
// (|q| / g = 0 / 0) must not poison the dual field.
template <class V>
VELA_HD inline V maxOne(const V& a) {
    return select(a > V(1.0f), a, V(1.0f));
}

}  // namespace seg
