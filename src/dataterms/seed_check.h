// Taking out seeds that their surroundings contradict.
//
// Point tracks carry a few wrong labels, and a data term that spreads each
// seed over its surroundings would spread those too.  A seed is kept when the
// seeds within `radius` pixels that share its label hold at least `minShare`
// of the vote of all seeds there, each seed voting with the similarity of its
// colour to the checked seed's.
#pragma once

#include "vela/tools.h"

// A new device label array: `labels` with every seed that fails the check set
// to -1.  `colourScale` < 0 weighs a squared colour distance d (channels in
// [0, 1]) by exp(colourScale * d).
//
// Given a `fit`, colour is a second witness: a seed the vote rejects is
// dropped only when its colour, by the labels' colour models, fits another
// label clearly better than its own (fit(x, y) < minFit, fit from
// ColourModel::seedFit), so that a thin structure's seeds among another
// label's are kept when their colour is their own.  A label never loses its
// last seeds then: where every seed of a label fails, all of them stay.
vela::ScopedArray<float, 2> checkSeeds(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                                       unsigned int nLabels, int radius, float minShare, float colourScale,
                                       const vela::Array<float, 2>& fit = {}, float minFit = 0.0f);

// The seeds of a device label array: pixels holding a label index below nLabels.
unsigned long long countSeeds(const vela::Array<float, 2>& labels, unsigned int nLabels);
