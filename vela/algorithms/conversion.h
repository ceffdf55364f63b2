// Conversions between interleaved images (one float4 or uchar4 per pixel) and
// planar images (a 3-D array whose z index is the colour plane, 3 or 4 planes),
// and elementwise conversions between element types of 4-D arrays.
//
// Output first, input second, then the options and the stream.  Both arrays
// must be on the same device; when both are host arrays the work is done on
// the host.  Bad arguments throw std::runtime_error before anything is written.
#pragma once

#include <string>

#include "vela/tools.h"

namespace vela {

namespace internal {

// Throws when two arrays are on different devices; the message starts with
// `prefix` (the caller's signature) and names both arrays and their devices.
void check_arguments_same_device(const std::string& prefix, const std::string& nameA, int deviceA,
                                 const std::string& nameB, int deviceB);

template <class A, int NA, class B, int NB>
void check_arguments_same_device(const std::string& prefix, const Array<A, NA>& a, const std::string& nameA,
                                 const Array<B, NB>& b, const std::string& nameB) {
    check_arguments_same_device(prefix, nameA, a.device, nameB, b.device);
}

}  // namespace internal

// Interleaved to planar: planes 0..2 from .x, .y, .z; plane 3 from .w when
// `out` has four planes.
void convert(Array<float, 3>& out, const Array<float4, 2>& in, cudaStream_t stream);
void convert(Array<unsigned char, 3>& out, const Array<uchar4, 2>& in, cudaStream_t stream);

// Planar to interleaved: .w is plane 3 when `in` has four planes, else `alpha`.
void convert(Array<float4, 2>& out, const Array<float, 3>& in, float alpha, cudaStream_t stream);
void convert(Array<uchar4, 2>& out, const Array<unsigned char, 3>& in, unsigned char alpha, cudaStream_t stream);

// Bytes to T = float or double planes; with `normalize` each value is divided
// by 255.
template <class T>
void convert(Array<T, 3>& out, const Array<uchar4, 2>& in, bool normalize, cudaStream_t stream);

// T = float or double planes to bytes.  With `normalize` each value is clamped
// to [0, 1], scaled by 255 and rounded half away from zero; without, it is
// truncated toward zero and its low byte kept.  The fourth byte is always
// `alpha` (a fourth plane of `in` is not used).
template <class T>
void convert(Array<uchar4, 2>& out, const Array<T, 3>& in, bool normalize, unsigned char alpha, cudaStream_t stream);

// Elementwise type conversion with plain casts (no scaling, no saturation to
// the byte range): float to int truncates toward zero, to unsigned char keeps
// the low byte of the value truncated to unsigned; int to unsigned char keeps
// the low byte.  Pairs among unsigned char, int and float, and among their
// 2- and 4-vectors.
template <class Tout, class Tin>
void convert(Array<Tout, 4>& out, const Array<Tin, 4>& in, cudaStream_t stream);

}  // namespace vela
