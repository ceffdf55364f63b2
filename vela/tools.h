// The array core: the n-dimensional array descriptor shared by host code and
// kernels, its memory layouts, allocation, copies between arrays and sub-block
// views, and the one device error check.
//
// A vela::Array owns nothing.  Whoever allocated its memory releases it:
// vela::freeArray picks the device or host release from the `device` field.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "vela/device/runtime.h"
#include "vela/device/types.h"

namespace vela {

// Source names used in device error messages.
constexpr const char* kToolsSource = "vela/tools";

namespace internal {
template <int N>
struct UIntVec;
template <>
struct UIntVec<1> {
    using type = uint1;
};
template <>
struct UIntVec<2> {
    using type = uint2;
};
template <>
struct UIntVec<3> {
    using type = uint3;
};
template <>
struct UIntVec<4> {
    using type = uint4;
};
}  // namespace internal

// Memory device number of host arrays.
constexpr int kHostDevice = -1;

template <class T, int N>
struct Array {
    static_assert(N >= 1 && N <= 4, "arrays have 1 to 4 dimensions");
    using Extents = typename internal::UIntVec<N>::type;
    using value_type = T;
    static constexpr int dimensions = N;

    T* data = nullptr;
    Extents strides{};  // bytes between neighbours along each dimension
    Extents extents{};  // elements along each dimension
    int device = 0;     // kHostDevice for host memory, else the GPU's number
};

enum MemLayout {
    PITCHED_LAYOUT = 0,  // device only: rows padded to the runtime's pitch
    LINEAR_LAYOUT = 1,   // rows packed tightly
};

// Inclusive index range; an `end` of -1 stands for the last index.
struct Range {
    int begin;
    int end;
    constexpr Range(int b, int e) : begin(b), end(e) {}
};

// Throws std::runtime_error "<file>:<line>: cuda error: <text>\n" when the
// device runtime holds an error, and clears it.
void _CHECK_CUDA_ERROR(const char* file, int line);

namespace internal {

std::string str_extents(uint1 e);
std::string str_extents(uint2 e);
std::string str_extents(uint3 e);
std::string str_extents(uint4 e);

// Component access by index for the uintN extents and strides.
template <class V>
VELA_HD constexpr unsigned int component(const V& v, int i) {
    if constexpr (sizeof(V) / sizeof(unsigned int) == 1) {
        return v.x;
    } else if constexpr (sizeof(V) / sizeof(unsigned int) == 2) {
        return i == 0 ? v.x : v.y;
    } else if constexpr (sizeof(V) / sizeof(unsigned int) == 3) {
        return i == 0 ? v.x : i == 1 ? v.y : v.z;
    } else {
        return i == 0 ? v.x : i == 1 ? v.y : i == 2 ? v.z : v.w;
    }
}

template <class V>
constexpr void setComponent(V& v, int i, unsigned int value) {
    if constexpr (sizeof(V) / sizeof(unsigned int) >= 1) {
        if (i == 0) v.x = value;
    }
    if constexpr (sizeof(V) / sizeof(unsigned int) >= 2) {
        if (i == 1) v.y = value;
    }
    if constexpr (sizeof(V) / sizeof(unsigned int) >= 3) {
        if (i == 2) v.z = value;
    }
    if constexpr (sizeof(V) / sizeof(unsigned int) >= 4) {
        if (i == 3) v.w = value;
    }
}

// Views an N-dimensional array as 4-D: added extents are 1, and each added
// stride is the last given stride times the last given extent.
template <class T, int N, int M = 4>
Array<T, 4> increaseArrayDimension(const Array<T, N>& a) {
    static_assert(M == 4, "arrays are widened to 4 dimensions");
    Array<T, 4> r{};
    r.data = a.data;
    r.device = a.device;
    unsigned int stride = 0, extent = 1;
    for (int i = 0; i < 4; ++i) {
        if (i < N) {
            stride = component(a.strides, i);
            extent = component(a.extents, i);
            setComponent(r.strides, i, stride);
            setComponent(r.extents, i, extent);
        } else {
            stride = stride * extent;
            extent = 1;
            setComponent(r.strides, i, stride);
            setComponent(r.extents, i, 1);
        }
    }
    return r;
}

[[noreturn]] void throwCannotDecrease(int targetDimension, uint4 extents);

// Views a 4-D array with M dimensions; every dropped extent must be 1.
template <class T, int N, int M>
Array<T, M> decreaseArrayDimension(const Array<T, N>& a) {
    static_assert(N == 4 && M >= 1 && M <= 3, "4-D arrays are narrowed to 1 to 3 dimensions");
    for (int i = M; i < 4; ++i)
        if (component(a.extents, i) != 1) throwCannotDecrease(M, a.extents);
    Array<T, M> r{};
    r.data = a.data;
    r.device = a.device;
    for (int i = 0; i < M; ++i) {
        setComponent(r.strides, i, component(a.strides, i));
        setComponent(r.extents, i, component(a.extents, i));
    }
    return r;
}

inline bool anyZero(uint4 e) { return e.x == 0 || e.y == 0 || e.z == 0 || e.w == 0; }

}  // namespace internal

namespace internal {
template <class T>
Array<T, 4> wrapHost(T* p, uint4 extents) {
    Array<T, 4> a{};
    a.data = p;
    a.extents = extents;
    const unsigned int row = extents.x * static_cast<unsigned int>(sizeof(T));
    a.strides = make_uint4(static_cast<unsigned int>(sizeof(T)), row, row * extents.y, row * extents.y * extents.z);
    a.device = kHostDevice;
    return a;
}
}  // namespace internal

template <class T>
Array<T, 4> mallocHostArray(uint4 extents, MemLayout layout) {
    if (internal::anyZero(extents)) throw std::runtime_error("vela::mallocHostArray: all extents must be >= 1");
    if (layout == PITCHED_LAYOUT) throw std::runtime_error("vela::mallocHostArray: unsupported memory layout");
    Array<T, 4> a = internal::wrapHost<T>(nullptr, extents);
    const std::uint64_t bytes = static_cast<std::uint64_t>(extents.x) * extents.y * extents.z * extents.w * sizeof(T);
    a.data = static_cast<T*>(std::malloc(bytes));
    return a;
}

template <class T>
Array<T, 4> mallocDeviceArray(uint4 extents, MemLayout layout) {
    if (internal::anyZero(extents)) throw std::runtime_error("vela::mallocDeviceArray: all extents must be >= 1");
    Array<T, 4> a{};
    a.extents = extents;
    a.device = device::getDevice();
    const unsigned int elem = static_cast<unsigned int>(sizeof(T));
    if (layout == PITCHED_LAYOUT) {
        const device::PitchedPtr p = device::malloc3D(static_cast<std::size_t>(extents.x) * sizeof(T), extents.y,
                                                      static_cast<std::size_t>(extents.z) * extents.w);
        _CHECK_CUDA_ERROR(kToolsSource, 49);
        const unsigned int pitch = static_cast<unsigned int>(p.pitch);
        a.data = static_cast<T*>(p.ptr);
        a.strides = make_uint4(elem, pitch, extents.y * pitch, extents.y * pitch * extents.z);
    } else if (layout == LINEAR_LAYOUT) {
        const unsigned int count = extents.x * extents.y * extents.z * extents.w;
        a.data = static_cast<T*>(device::mallocLinear(static_cast<std::size_t>(count) * sizeof(T)));
        _CHECK_CUDA_ERROR(kToolsSource, 59);
        const unsigned int row = extents.x * elem;
        a.strides = make_uint4(elem, row, extents.y * row, extents.y * row * extents.z);
    } else {
        throw std::runtime_error("vela::mallocDeviceArray: unsupported memory layout");
    }
    return a;
}

template <class T>
Array<T, 2> mallocDeviceArray(uint2 extents, MemLayout layout) {
    Array<T, 4> a = mallocDeviceArray<T>(make_uint4(extents.x, extents.y, 1, 1), layout);
    return internal::decreaseArrayDimension<T, 4, 2>(a);
}

// Wraps tightly packed host memory without copying; the caller keeps owning it.
template <class T>
Array<T, 3> arrayFromHostMemory(T* p, uint3 extents) {
    return internal::decreaseArrayDimension<T, 4, 3>(
        internal::wrapHost(p, make_uint4(extents.x, extents.y, extents.z, 1)));
}

template <class T>
Array<T, 3> arrayFromHostMemory(T* p, unsigned int x, unsigned int y, unsigned int z) {
    return arrayFromHostMemory(p, make_uint3(x, y, z));
}

template <class T>
Array<T, 2> arrayFromHostMemory(T* p, uint2 extents) {
    return internal::decreaseArrayDimension<T, 4, 2>(internal::wrapHost(p, make_uint4(extents.x, extents.y, 1, 1)));
}

// Releases memory from mallocHostArray or mallocDeviceArray.  Safe on an
// empty descriptor.  Not for wrapped memory or block views.
template <class T, int N>
void freeArray(Array<T, N>& a) {
    if (a.data == nullptr) return;
    if (a.device == kHostDevice)
        std::free(a.data);
    else
        device::free(a.data);
    a.data = nullptr;
}

// Owns one array and releases it in its destructor, also when the scope is
// left by an exception.  Move-only: a hand-off is a move, and the array moved
// from is left empty, so no memory is ever released twice or copied by
// accident.
template <class T, int N>
struct ScopedArray {
    Array<T, N> a{};
    ScopedArray() = default;
    explicit ScopedArray(const Array<T, N>& array) : a(array) {}
    ScopedArray(ScopedArray&& other) noexcept : a(other.release()) {}
    ScopedArray& operator=(ScopedArray&& other) noexcept {
        if (this != &other) {
            freeArray(a);
            a = other.release();
        }
        return *this;
    }
    ScopedArray(const ScopedArray&) = delete;
    ScopedArray& operator=(const ScopedArray&) = delete;
    ~ScopedArray() { freeArray(a); }

    bool empty() const { return a.data == nullptr; }
    // Gives the array up: the caller releases it now.
    Array<T, N> release() {
        const Array<T, N> given = a;
        a = Array<T, N>{};
        return given;
    }
};

namespace internal {
// Whether the slices and volumes of a 4-D array lie where one 3-D copy puts them.
inline bool copyCompatible(const uint4& strides, const uint4& extents) {
    return strides.z <= strides.y * extents.y && strides.w <= strides.z * extents.z;
}
[[noreturn]] void throwExtentsMismatch(const std::string& src, const std::string& dst);
cudaMemcpyKind copyKind(int srcDevice, int dstDevice);
}  // namespace internal

// Copies src into dst with one synchronous 3-D copy, across host and device
// and between pitched and packed layouts.
template <class T, int N>
void arrayCopy(Array<T, N>& dst, const Array<T, N>& src) {
    const Array<T, 4> s = internal::increaseArrayDimension(src);
    const Array<T, 4> d = internal::increaseArrayDimension(dst);
    if (!internal::copyCompatible(s.strides, s.extents))
        throw std::runtime_error("vela::arrayCopy: memory layout of src array is incompatible");
    if (!internal::copyCompatible(d.strides, d.extents))
        throw std::runtime_error("vela::arrayCopy: memory layout of dst array is incompatible");
    if (src.data == nullptr) throw std::runtime_error("vela::arrayCopy: src is null");
    if (dst.data == nullptr) throw std::runtime_error("vela::arrayCopy: dst is null");
    if (src.data == dst.data) throw std::runtime_error("vela::arrayCopy: src and dst are identical");
    for (int i = 0; i < N; ++i)
        if (internal::component(src.extents, i) != internal::component(dst.extents, i))
            internal::throwExtentsMismatch(internal::str_extents(src.extents), internal::str_extents(dst.extents));

    device::Copy3D copy{};
    const std::size_t rowBytes = static_cast<std::size_t>(s.extents.x) * sizeof(T);
    copy.src = device::PitchedPtr{s.data, s.strides.y, rowBytes, s.extents.y};
    copy.dst = device::PitchedPtr{d.data, d.strides.y, static_cast<std::size_t>(d.extents.x) * sizeof(T), d.extents.y};
    copy.width = rowBytes;
    copy.height = s.extents.y;
    copy.depth = static_cast<std::size_t>(s.extents.z) * s.extents.w;
    copy.kind = internal::copyKind(s.device, d.device);
    device::memcpy3D(copy);
    _CHECK_CUDA_ERROR(kToolsSource, 767);
}

namespace internal {
[[noreturn]] void throwBlockOutOfBounds(uint4 extents, const Range (&r)[4]);
}

// A view of a sub-block of `a`, sharing its memory and strides.
template <class T>
Array<T, 4> block(const Array<T, 4>& a, Range x, Range y, Range z, Range w) {
    Range r[4] = {x, y, z, w};
    bool inside = true;
    for (int i = 0; i < 4; ++i) {
        const int extent = static_cast<int>(internal::component(a.extents, i));
        if (r[i].end == -1) r[i].end = extent - 1;
        if (r[i].begin < 0 || r[i].end >= extent) inside = false;
    }
    if (!inside) internal::throwBlockOutOfBounds(a.extents, r);
    Array<T, 4> v = a;
    v.data = reinterpret_cast<T*>(reinterpret_cast<char*>(a.data) + static_cast<std::size_t>(r[0].begin) * sizeof(T) +
                                  static_cast<std::size_t>(r[1].begin) * a.strides.y +
                                  static_cast<std::size_t>(r[2].begin) * a.strides.z +
                                  static_cast<std::size_t>(r[3].begin) * a.strides.w);
    v.extents = make_uint4(
        static_cast<unsigned int>(r[0].end - r[0].begin + 1), static_cast<unsigned int>(r[1].end - r[1].begin + 1),
        static_cast<unsigned int>(r[2].end - r[2].begin + 1), static_cast<unsigned int>(r[3].end - r[3].begin + 1));
    return v;
}

}  // namespace vela
