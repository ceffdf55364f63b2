// The random-walker data term: for every label, the probability that a
// random walker starting at a pixel first reaches a seed of that label, on
// the pixel grid whose edges colour differences make hard to cross.
#pragma once

#include "src/PDseg.h"
#include "src/settings.h"

// What a video's frames hand on to the walker of the next one, all optional.
struct WalkerCarry {
    // Probabilities (W x H x L, device) that hold where the frame is like the
    // one before: the previous frame's, moved to this one.  The solve then
    // runs only within `freeRadius` pixels of where they may not hold
    // (src/dataterms/walker_region.h), from 0 there, and keeps them elsewhere
    // as it keeps the seeds: a small part of the frame, a fraction of the time.
    const vela::Array<float, 3>* start = nullptr;
    unsigned int freeRadius = 0;
    // With a start: 1 where the frame differs from the one before (W x H,
    // device), where the start does not hold either.
    const vela::Array<float, 2>* changed = nullptr;
    // Receives this frame's probabilities (a new device array; what it held
    // is released).
    vela::Array<float, 3>* keep = nullptr;
    // Receives the conjugate-gradient iterations the solve took.
    int* iterations = nullptr;
};

// Adds settings.dataWeight * -ln(p_l + 0.001) / -ln(0.001) to layer l of
// seg.costMap, p_l being the walker probability of label l at each pixel.
void addWalkerCost(PDseg& seg, vela::Array<float, 2>& labels, const SegmentationSettings& settings,
                   const WalkerCarry& carry = {});

// The factor k of the edge weights exp(k * d) + 1e-6, d the squared colour
// distance with channels in [0, 1]: -beta / (10 * sd * sqrt(3)), sd the
// standard deviation of all channel values of the image; 0 for a flat image.
float walkerColourScale(const vela::Array<float4, 2>& image, float beta);
