// What steers the solver's regulariser, computed once per frame from the colour
// image scaled to [0, 1]: scalar edge weights g (the radius of the dual field's
// disc), the image gradient, and 2x2 tensor fields D = (a, b, c, d), the matrix
// with rows (a, b) and (c, d).  Only the R, G and B components of the image
// enter; its fourth component never does.
//
// Each function launches one kernel over the pixels of its first array, in
// blocks of 32 x 2, on the default stream.  The caller checks the device error
// state afterwards; arrays of different sizes are refused with an exception.
#pragma once

#include <string>

#include "vela/tools.h"

namespace seg {

// Forward differences summed over the channels (signed, not a norm):
// gx = sum_c I_c(x+1, y) - I_c(x, y), gy likewise downwards; 0 at the last
// column and row.
void imageGradient(const vela::Array<float2, 2>& gradient, const vela::Array<float4, 2>& image);

// g = 1 / sqrt(s + 1e-6), s being the summed squares of full central differences
// over clamped neighbours: 1000 in flat regions, small across edges.
void imageDiffusivity_STD(const vela::Array<float, 2>& g, const vela::Array<float4, 2>& image);

// g = exp(-alpha * s) with the same s: 1 in flat regions, towards 0 across edges.
void imageDiffusivity_EXP(const vela::Array<float, 2>& g, const vela::Array<float4, 2>& image, float alpha);

// The structure-tensor field: D = adjugate of the normalised colour structure
// tensor + 1e-4 I, which measures the label gradient along image edges and only
// weakly across them; g = 1 / (n^2 + 2e-4) with n the norm of the colour Jacobian.
void compute_Diffusion_tensor(const vela::Array<float4, 2>& D, const vela::Array<float4, 2>& image,
                              const vela::Array<float, 2>& g);

// The reflection tensor (ex, ey, ey, -ex) of the unit gradient direction,
// (1, 0, 0, -1) where the gradient is below 1e-4.
void compute_Diffusion_tensor_exp(const vela::Array<float4, 2>& D, const vela::Array<float2, 2>& gradient);

// Weight w = exp(-|grad|^2) along the gradient direction and 1 along the edge.
void compute_Diffusion_tensor(const vela::Array<float4, 2>& D, const vela::Array<float2, 2>& gradient);

// Weight w = exp(-2 n^2) on the normalised structure tensor, 1 on its adjugate.
void compute_Diffusion_tensor(const vela::Array<float4, 2>& D, const vela::Array<float4, 2>& image);

// Per-edge weights normalised by the frame's contrast, as a diagonal tensor
// (wx, 0, 0, wy) for the reflection form of the solver's steps: the edge from
// a pixel to its right (lower) neighbour weighs exp(-b d^2), d^2 the squared
// colour difference across it and b = 1 / (2 * mean d^2) over all edges of the
// image; 0 where there is no neighbour, 1 everywhere in a flat image.
void contrastEdgeWeights(const vela::Array<float4, 2>& D, const vela::Array<float4, 2>& image);

// Colours each pixel by the direction and length of gradient * factor: hue from
// half the angle, brightness from the length capped at 1; alpha 255.
void cartesianToRGB(const vela::Array<uchar4, 2>& picture, const vela::Array<float2, 2>& gradient, float factor);

// Writes the gradient as a colour picture (PPM or PGM by the file's extension),
// a length of `scale` reaching full brightness.  A negative scale counts as 1.
void saveGradient(vela::Array<float2, 2>& gradient, float scale, const std::string& fileName);

}  // namespace seg
