// A plain, one-pixel-at-a-time reading of the solver and its edge weights,
// written independently of the library's code, to check it against.
#pragma once

#include "solver_test_support.h"

namespace solvertest {

// L fixed rounds, no early exit.
void refProjectSimplex(float* v, int L);

Grid<float2> refGradient(const Grid<float4>& image);
Grid<float> refDiffusivity(const Grid<float4>& image, int type, float alpha);  // 0: standard, 1: exponential
void refStructureTensor(const Grid<float4>& image, Grid<float4>& D, Grid<float>& g);
// From the gradient: the reflection tensor, or weight exp(-|grad|^2) along it.
Grid<float4> refGradientTensor(const Grid<float2>& gradient, bool reflection);
// Weight exp(-2 n^2) on the normalised structure tensor.
Grid<float4> refImageTensor(const Grid<float4>& image);

// Per-edge weights exp(-b d^2) to the right and lower neighbour as the
// diagonal tensor (wx, 0, 0, wy), b = 1 / (2 * mean d^2) over the image's
// edges; 0 where there is no neighbour.
Grid<float4> refContrastWeights(const Grid<float4>& image);
// A whole solve of an image in 0..255 with lambda 10 and alpha 0.5, the fused
// model's tiles in the host's order; the relaxed labelling of the last
// iteration.  Model 5 stands for model 1 with the contrast-normalised edges.
Grid<float> refSolve(const Grid<float4>& image, const Grid<float>& cost, int model, int iterations,
                     int diffusivityType);

}  // namespace solvertest
