// Costs from per-label probabilities.
//
// A probability p costs -ln(p + 0.001) / -ln(0.001): 0 for a sure label, 1 for
// one that is ruled out, so the costs keep the scale of the seed term's 0 and
// 1.  The floor keeps p = 0 finite.  The random-walker data term scores its
// probabilities with the same function.
#pragma once

#include <cmath>

#include "vela/tools.h"

namespace seg {

constexpr float kProbabilityFloor = 0.001f;

// weight * -ln(p + 0.001) / -ln(0.001), for p from 0 to 1.
VELA_HD inline float probabilityCost(float p, float weight = 1.0f) {
    return weight * logf(p + kProbabilityFloor) / logf(kProbabilityFloor);
}

}  // namespace seg

// Writes into `cost` (W x H x L, on the device) the cost of every label at
// every pixel from `probabilities` (W x H x L, on the device): each pixel's
// values are divided by their sum first, so they need not sum to 1; a pixel
// whose values are all 0 gets 1 / L for each label.  Values that are negative,
// NaN or infinite count as 0.  Throws std::invalid_argument when the extents
// differ.
void probabilitiesToCost(vela::Array<float, 3>& cost, const vela::Array<float, 3>& probabilities);
