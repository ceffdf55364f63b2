// Elementwise arithmetic, fills and flips on whole device arrays.
//
// Every operation works in place on the 4-D form of an array (widen others with
// vela::internal::increaseArrayDimension).  The arithmetic and fills run on the
// given stream; they need device arrays and throw std::runtime_error otherwise.
// Vector elements (float2, int4, uchar3, ...) are treated componentwise.
//
//   add, sub, mul, div:  float, float2, float3, float4, double, int
//   set:                 those, and int2, int3, int4, unsigned int,
//                        unsigned char, uchar2, uchar3, uchar4, bool
//   flipX, flipY, flipZ: int, float, float2, float3, float4, double, uchar4
//
// Integer arithmetic wraps around on overflow, and an integer division by zero
// gives 0, the same on every backend.
#pragma once

#include "vela/tools.h"

namespace vela {

// a = a op s for every element.
template <class T>
void add(Array<T, 4>& a, T s, cudaStream_t stream = nullptr);
template <class T>
void sub(Array<T, 4>& a, T s, cudaStream_t stream = nullptr);
template <class T>
void mul(Array<T, 4>& a, T s, cudaStream_t stream = nullptr);
template <class T>
void div(Array<T, 4>& a, T s, cudaStream_t stream = nullptr);
template <class T>
void set(Array<T, 4>& a, T s, cudaStream_t stream = nullptr);

// a = a op b element by element; a and b have the same extents and device.
// They may be the same array.
template <class T>
void add(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream = nullptr);
template <class T>
void sub(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream = nullptr);
template <class T>
void mul(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream = nullptr);
template <class T>
void div(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream = nullptr);
template <class T>
void set(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream = nullptr);

// Mirror in place along x, y or z.  Host arrays are flipped on the host;
// device arrays on the default stream, one launch per w index.
template <class T>
void flipX(Array<T, 4>& a);
template <class T>
void flipY(Array<T, 4>& a);
template <class T>
void flipZ(Array<T, 4>& a);

}  // namespace vela
