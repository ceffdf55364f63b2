// Taking out seeds that their surroundings contradict.
//
// Point tracks carry a few wrong labels, and a data term that spreads each
// seed over its surroundings would spread those too.  A seed is kept when the
// seeds within `radius` pixels that share its label hold at least `minShare`
// of the vote of all seeds there, each seed voting with the similarity of its
// colour to the checked seed's.
#pragma once

#include "vela/tools.h"

// A new device label array (the caller frees it): `labels` with every seed
// that fails the check set to -1.  `colourScale` < 0 weighs a squared colour
// distance d (channels in [0, 1]) by exp(colourScale * d).
vela::Array<float, 2> checkSeeds(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                                 unsigned int nLabels, int radius, float minShare, float colourScale);
