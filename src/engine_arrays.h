// Shapes of arrays the segmentation engine allocates and wraps, so that every
// file builds them the same way.
#pragma once

#include "vela/tools.h"

namespace seg {

// A pitched device array of W x H x L elements.
template <class T>
vela::Array<T, 3> deviceArray3D(unsigned int w, unsigned int h, unsigned int l) {
    return vela::internal::decreaseArrayDimension<T, 4, 3>(
        vela::mallocDeviceArray<T>(make_uint4(w, h, l, 1), vela::PITCHED_LAYOUT));
}

// A pitched device array of W x H elements.
template <class T>
vela::Array<T, 2> deviceArray2D(unsigned int w, unsigned int h) {
    return vela::internal::decreaseArrayDimension<T, 4, 2>(
        vela::mallocDeviceArray<T>(make_uint4(w, h, 1, 1), vela::PITCHED_LAYOUT));
}

// A device row of n elements.
template <class T>
vela::Array<T, 1> deviceArray1D(unsigned int n) {
    return vela::internal::decreaseArrayDimension<T, 4, 1>(
        vela::mallocDeviceArray<T>(make_uint4(n, 1, 1, 1), vela::PITCHED_LAYOUT));
}

// A new pitched device copy of `from` (host or device), owned.
template <class T, int N>
vela::ScopedArray<T, N> deviceCopy(const vela::Array<T, N>& from) {
    const vela::Array<T, 4> f = vela::internal::increaseArrayDimension(from);
    vela::ScopedArray<T, N> copy(vela::internal::decreaseArrayDimension<T, 4, N>(vela::mallocDeviceArray<T>(
        make_uint4(f.extents.x, f.extents.y, f.extents.z, f.extents.w), vela::PITCHED_LAYOUT)));
    vela::arrayCopy(copy.a, from);
    return copy;
}

// Views n packed host elements as a 1-D array; the caller keeps the memory.
template <class T>
vela::Array<T, 1> hostView1D(T* p, unsigned int n) {
    return vela::internal::decreaseArrayDimension<T, 4, 1>(
        vela::internal::increaseArrayDimension(vela::arrayFromHostMemory(p, make_uint2(n, 1))));
}

}  // namespace seg

namespace seg {
using vela::ScopedArray;

// The device check of one source file, named in its messages:
//     constexpr seg::DeviceCheck check{"src/dataterms/walker"};  ...  check(__LINE__);
struct DeviceCheck {
    const char* source;
    void operator()(int line) const { vela::_CHECK_CUDA_ERROR(source, line); }
};
}  // namespace seg
