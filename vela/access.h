// Element access inside kernels and host loops.  The address of element
// (x, y, z, w) is data + x*sizeof(T) + y*strides.y + z*strides.z + w*strides.w,
// each product taken in 32 bits and widened, as the device code computes it.
#pragma once

#include <cstddef>

#include "vela/tools.h"

namespace vela {

namespace internal {
template <class T>
VELA_HD inline T* offsetBytes(T* p, std::size_t bytes) {
    return reinterpret_cast<T*>(reinterpret_cast<char*>(p) + bytes);
}
}  // namespace internal

template <class T>
VELA_HD inline T& at(const Array<T, 1>& a, unsigned int x) {
    return *internal::offsetBytes(a.data, static_cast<unsigned int>(x * sizeof(T)));
}

template <class T>
VELA_HD inline T& at(const Array<T, 2>& a, unsigned int x, unsigned int y) {
    return *internal::offsetBytes(a.data,
                                  std::size_t{static_cast<unsigned int>(x * sizeof(T))} + std::size_t{y * a.strides.y});
}

template <class T>
VELA_HD inline T& at(const Array<T, 3>& a, unsigned int x, unsigned int y, unsigned int z) {
    return *internal::offsetBytes(a.data, std::size_t{static_cast<unsigned int>(x * sizeof(T))} +
                                              std::size_t{y * a.strides.y} + std::size_t{z * a.strides.z});
}

template <class T>
VELA_HD inline T& at(const Array<T, 4>& a, unsigned int x, unsigned int y, unsigned int z, unsigned int w) {
    return *internal::offsetBytes(a.data, std::size_t{static_cast<unsigned int>(x * sizeof(T))} +
                                              std::size_t{y * a.strides.y} + std::size_t{z * a.strides.z} +
                                              std::size_t{w * a.strides.w});
}

}  // namespace vela
