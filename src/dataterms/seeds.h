// Reading seeds from a label array: label index per pixel, negative for none.
#pragma once

#include "vela/access.h"

namespace seg {

// The seed index of pixel (x, y), or -1: negative values and values at or
// above `nLabels` seed nothing.
VELA_HD inline int seedOf(const vela::Array<float, 2>& labels, unsigned int x, unsigned int y, unsigned int nLabels) {
    const float v = vela::at(labels, x, y);
    return (v >= 0.0f && v < static_cast<float>(nLabels)) ? static_cast<int>(v) : -1;
}

}  // namespace seg
