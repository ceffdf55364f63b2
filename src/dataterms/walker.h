// The random-walker data term: for every label, the probability that a
// random walker starting at a pixel first reaches a seed of that label, on
// the pixel grid whose edges colour differences make hard to cross.
#pragma once

#include "src/PDseg.h"
#include "src/settings.h"

// Where a video's frame starts the walker, all optional: probabilities
// (W x H x L, device) that hold where the frame is like the one before, the
// previous frame's moved to this one.  The solve then runs only within
// `freeRadius` pixels of where they may not hold
// (src/dataterms/walker_region.h), from 0 there, keeps them elsewhere as it
// keeps the seeds (a small part of the frame, a fraction of the time) and
// stops at temporalWalkerTolerance where that is above 0.  With a free radius
// of 0 the whole frame is solved, starting from them, to walkerTolerance.
// `changed` (W x H, device) is 1 where the frame differs from the one before,
// where the start does not hold either.
struct WalkerStart {
    const vela::Array<float, 3>* probabilities = nullptr;
    unsigned int freeRadius = 0;
    const vela::Array<float, 2>* changed = nullptr;
};

// The walker's probabilities of a frame and the conjugate-gradient iterations
// they took.
struct WalkerSolve {
    vela::ScopedArray<float, 3> probabilities;
    int iterations = 0;
};

// Adds settings.dataWeight * -ln(p_l + 0.001) / -ln(0.001) to layer l of
// seg.costMap, p_l being the walker probability of label l at each pixel;
// `spread` is colourSpread(seg.image).
WalkerSolve addWalkerCost(PDseg& seg, const vela::Array<float, 2>& labels, const SegmentationSettings& settings,
                          double spread, const WalkerStart& start = {});

// The standard deviation of all channel values of the image (0 to 255).
double colourSpread(const vela::Array<float4, 2>& image);

// The factor k of the edge weights exp(k * d) + 1e-6, d the squared colour
// distance with channels in [0, 1]: -beta / (10 * spread * sqrt(3)), spread
// the image's colourSpread(); 0 for a flat image.
float walkerColourScale(double spread, float beta);
