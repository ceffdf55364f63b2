// Where a walker that starts from a good guess (the previous frame's
// probabilities, moved) still has to solve: near the guess's label
// boundaries, where it is unsure, and around this frame's seeds that it
// contradicts.  Elsewhere the guess stands, held fixed as the seeds are.
#pragma once

#include "vela/tools.h"

namespace seg {

// A pixel counts as settled where the guess gives its label at least this
// probability.
constexpr float kSettledProbability = 0.9f;

// Sets `free` (W x H, device) to 1 within `radius` pixels (a square) of every
// pixel where the guess (W x H x L, device) is unsettled: its most probable
// label below kSettledProbability, a 4-neighbour with another most probable
// label, a seed of `labels` (W x H) of another label, or `changed` (W x H,
// optional) not 0; 0 elsewhere.
void markFreePixels(vela::Array<float, 2>& free, const vela::Array<float, 3>& guess,
                    const vela::Array<float, 2>& labels, const vela::Array<float, 2>& changed, unsigned int radius);

}  // namespace seg
