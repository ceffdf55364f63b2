// A plain, one-pixel-at-a-time reading of the solver and its edge weights,
// written independently of the library's code, to check it against.
#pragma once

#include "solver_test_support.h"

namespace solvertest {

enum class Form { Isotropic, Structure, Reflection };

// L fixed rounds, no early exit, an integer count.
void refProjectSimplex(float* v, int L);

// g == nullptr: unweighted.  D == nullptr: isotropic.
void refDual(Grid<float2>& p, const Grid<float>& v, float sigma, const Grid<float>* g, const Grid<float4>* D,
             Form form);
void refPrimal(Grid<float>& u, Grid<float>& ubar, const Grid<float>& f, const Grid<float2>& p, const Grid<float4>* D,
               float tau, float lambda, Form form);
// The fused step in the host backend's block order: rows of tiles with even
// index, then odd; within a row the tiles from left to right.
void refFast(Grid<float>& u, const Grid<float>& f, Grid<float2>& p, const Grid<float>& g, float tau, float sigma,
             float lambda);
void refBinarize(Grid<float>& u);

Grid<float2> refGradient(const Grid<float4>& image);
Grid<float> refDiffusivitySTD(const Grid<float4>& image);
Grid<float> refDiffusivityEXP(const Grid<float4>& image, float alpha);
void refStructureTensor(const Grid<float4>& image, Grid<float4>& D, Grid<float>& g);
Grid<float4> refReflectionTensor(const Grid<float2>& gradient);
Grid<float4> refGradientTensor(const Grid<float2>& gradient);
Grid<float4> refImageTensor(const Grid<float4>& image);

// A whole solve: the image in 0..255, the cost map, the model and its
// parameters; returns the relaxed labelling of the last iteration.
Grid<float> refSolve(const Grid<float4>& image, const Grid<float>& cost, int model, int iterations, float lambda,
                     int diffusivityType, float alpha);

}  // namespace solvertest
