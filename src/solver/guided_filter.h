// Smoothing of the cost map along the image's colours, before the iteration:
// each label's costs are replaced, window by window, by the linear function of
// the pixel's colour that fits them best (the guided filter, with the colour
// image as guide).  Where a window holds one colour the costs are averaged;
// across a colour edge each side keeps its own.  So a thin structure whose
// colour stands out keeps the costs of its own pixels, and isolated noise in
// a region of one colour is averaged away, which the boundary-length term
// alone cannot tell apart.
#pragma once

#include "vela/tools.h"

namespace seg {

// Means over (2 radius + 1)^2 windows, clipped at the image border, of every
// layer of `in` into `out` (both W x H x C on the device); `scratch` is a third
// array of the same size.
void boxMean(const vela::Array<float, 3>& out, const vela::Array<float, 3>& in, const vela::Array<float, 3>& scratch,
             int radius);

// out(., ., l) = the guided filter of in(., ., l), guide `image` (R, G, B in
// [0, 1]), windows of radius `radius`, regularisation `epsilon` (a colour
// variance below it counts as noise).  out and in are W x H x L device arrays
// of the image's size; they may not be the same array.
void guidedFilter(const vela::Array<float, 3>& out, const vela::Array<float, 3>& in,
                  const vela::Array<float4, 2>& image, int radius, float epsilon);

}  // namespace seg
