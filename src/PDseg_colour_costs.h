// Soft cost maps from the colours of labelled pixels (the spatially varying
// colour distribution), shared by the cost-map builders of PDseg.
#pragma once

#include "vela/tools.h"

namespace seg {

// cost(x, y, l) = -ln(q), where q is a spatially weighted average of the colour
// similarity between pixel (x, y) and the pixels whose label-image colour is
// colors[l]; the spatial weight widens with the distance to the nearest of
// them.  costMap, labelImage and image are W x H device arrays, L the cost
// map's depth (at most kMaxLabels), colors a device table of at least L
// entries.  Mismatched arguments throw std::runtime_error.  Returns the launch
// status; a failed launch also stays pending for the caller's device check.
cudaError_t spatiallyVaryColorDistCostMap(vela::Array<float, 3>& costMap, vela::Array<float4, 2>& labelImage,
                                          vela::Array<float4, 2>& image, vela::Array<float4, 1>& colors);

}  // namespace seg
