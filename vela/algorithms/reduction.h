// Minimum, maximum, or both, of all elements of a 2-D device array.  The
// device reduces 32 x 32 tiles to one value each; the host folds the tile
// results.  For floating-point data a NaN is dropped in favour of the other
// operand, so NaNs among finite values do not show in the result.
#pragma once

#include "vela/tools.h"

namespace vela {

// T = int, unsigned char, float, double.
template <class T>
T Min(Array<T, 2>& a, cudaStream_t stream = nullptr);
template <class T>
T Max(Array<T, 2>& a, cudaStream_t stream = nullptr);

// .x the minimum, .y the maximum.
uchar2 MinMax(Array<unsigned char, 2>& a, cudaStream_t stream = nullptr);
int2 MinMax(Array<int, 2>& a, cudaStream_t stream = nullptr);
float2 MinMax(Array<float, 2>& a, cudaStream_t stream = nullptr);

}  // namespace vela
