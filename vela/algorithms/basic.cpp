#include "vela/algorithms/basic.h"

#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "vela/access.h"
#include "vela/algorithms/launch_shapes.h"
#include "vela/algorithms/vector_traits.h"
#include "vela/device/launch.h"

namespace algorithms_basic_namespace {

using vela::Array;
using vela::device::Thread;

// ---------------------------------------------------------------------------
// Scalar arithmetic.  Signed integers are computed in their unsigned twin so
// that overflow wraps as it does on the GPU instead of being undefined.

template <class S, bool = std::is_integral_v<S>&& std::is_signed_v<S>>
struct WideOf {
    using type = S;
};
template <class S>
struct WideOf<S, true> {
    using type = std::make_unsigned_t<S>;
};
template <class S>
using Wide = typename WideOf<S>::type;

struct Plus {
    template <class S>
    VELA_HD S operator()(S a, S b) const {
        return static_cast<S>(static_cast<Wide<S>>(a) + static_cast<Wide<S>>(b));
    }
};
struct Minus {
    template <class S>
    VELA_HD S operator()(S a, S b) const {
        return static_cast<S>(static_cast<Wide<S>>(a) - static_cast<Wide<S>>(b));
    }
};
struct Times {
    template <class S>
    VELA_HD S operator()(S a, S b) const {
        return static_cast<S>(static_cast<Wide<S>>(a) * static_cast<Wide<S>>(b));
    }
};
struct Over {
    template <class S>
    VELA_HD S operator()(S a, S b) const {
        if constexpr (std::is_integral_v<S>) {
            // Truncates toward zero; x / 0 gives 0 and INT_MIN / -1 wraps to
            // INT_MIN instead of trapping.
            if (b == 0) return S(0);
            if constexpr (std::is_signed_v<S>)
                if (b == S(-1)) return static_cast<S>(Wide<S>(0) - static_cast<Wide<S>>(a));
            return static_cast<S>(a / b);
        } else {
            return a / b;
        }
    }
};

// d = f(d, o) on every component of an element.
template <class T, class F>
struct Componentwise {
    VELA_HD void operator()(T& d, const T& o) const { vela::internal::combineComponents(d, o, F{}); }
};

template <class T>
struct Add : Componentwise<T, Plus> {};
template <class T>
struct Sub : Componentwise<T, Minus> {};
template <class T>
struct Mul : Componentwise<T, Times> {};
template <class T>
struct Div : Componentwise<T, Over> {};
template <class T>
struct Set {
    VELA_HD void operator()(T& d, const T& o) const { d = o; }
};

// ---------------------------------------------------------------------------
// Kernels

template <class T, class Op>
struct apply_arr_scalar {
    VELA_HD void operator()(const Thread& t, Array<T, 4> a, T s, Op op, int zblocks) const {
        const vela::internal::ElementIndex i(t, zblocks);
        if (i.inside(a.extents)) op(vela::at(a, i.x, i.y, i.z, i.w), s);
    }
};

template <class T, class Op>
struct apply_arr_arr {
    VELA_HD void operator()(const Thread& t, Array<T, 4> a, Array<T, 4> b, Op op, int zblocks) const {
        const vela::internal::ElementIndex i(t, zblocks);
        if (i.inside(a.extents)) op(vela::at(a, i.x, i.y, i.z, i.w), vela::at(b, i.x, i.y, i.z, i.w));
    }
};

// Swaps element i with element n-1-i along dimension dim; threads cover the
// first half of that dimension.
template <class T, int dim>
struct flip_kernel {
    VELA_HD void operator()(const Thread& t, Array<T, 3> a) const {
        const unsigned int x = t.blockDim.x * t.blockIdx.x + t.threadIdx.x;
        const unsigned int y = t.blockDim.y * t.blockIdx.y + t.threadIdx.y;
        const unsigned int z = t.blockDim.z * t.blockIdx.z + t.threadIdx.z;
        const uint3 e = a.extents;
        if (dim == 0 && x < e.x / 2 && y < e.y && z < e.z) {
            swap(vela::at(a, x, y, z), vela::at(a, e.x - 1 - x, y, z));
        } else if (dim == 1 && x < e.x && y < e.y / 2 && z < e.z) {
            swap(vela::at(a, x, y, z), vela::at(a, x, e.y - 1 - y, z));
        } else if (dim == 2 && x < e.x && y < e.y && z < e.z / 2) {
            swap(vela::at(a, x, y, z), vela::at(a, x, y, e.z - 1 - z));
        }
    }

    VELA_HD static void swap(T& p, T& q) {
        const T tmp = p;
        p = q;
        q = tmp;
    }
};

// ---------------------------------------------------------------------------
// Host functions

constexpr const char* kSource = "vela/algorithms/basic";

template <class T>
void sanity_check_arguments(const Array<T, 4>& a, const Array<T, 4>& b) {
    if (a.device != b.device) throw std::runtime_error("memory of both arrays must be on the same device");
    if (a.device == vela::kHostDevice) throw std::runtime_error("memory of both arrays must be on the device");
    const uint4 ea = a.extents, eb = b.extents;
    if (ea.x != eb.x || ea.y != eb.y || ea.z != eb.z || ea.w != eb.w) {
        const auto list = [](const uint4& e) {
            return std::to_string(e.x) + ", " + std::to_string(e.y) + ", " + std::to_string(e.z) + ", " +
                   std::to_string(e.w);
        };
        throw std::runtime_error("extents mismatch\n extents of first operand are (" + list(ea) + ") " +
                                 " extents of second operand are (" + list(eb) + ")");
    }
}

template <class T, class Op>
void applyScalar(Array<T, 4>& a, T s, cudaStream_t stream) {
    if (a.device == vela::kHostDevice) throw std::runtime_error("memory of the array must be on the device");
    vela::device::launch<apply_arr_scalar<T, Op>>(vela::internal::elementwiseGrid(a.extents),
                                                  vela::internal::kElementwiseBlock, stream, a, s, Op{},
                                                  static_cast<int>(a.extents.z));
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
}

template <class T, class Op>
void applyArray(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream) {
    sanity_check_arguments<T>(a, b);
    vela::device::launch<apply_arr_arr<T, Op>>(vela::internal::elementwiseGrid(a.extents),
                                               vela::internal::kElementwiseBlock, stream, a, b, Op{},
                                               static_cast<int>(a.extents.z));
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
}

// Mirrors a host array along dimension dim.
template <class T, int dim>
void flipHost(Array<T, 4>& a) {
    const uint4 e = a.extents;
    const unsigned int n = vela::internal::component(e, dim);
    if (n < 2) return;
    for (unsigned int w = 0; w < e.w; ++w)
        for (unsigned int z = 0; z < (dim == 2 ? n / 2 : e.z); ++z)
            for (unsigned int y = 0; y < (dim == 1 ? n / 2 : e.y); ++y)
                for (unsigned int x = 0; x < (dim == 0 ? n / 2 : e.x); ++x) {
                    const unsigned int mx = dim == 0 ? n - 1 - x : x;
                    const unsigned int my = dim == 1 ? n - 1 - y : y;
                    const unsigned int mz = dim == 2 ? n - 1 - z : z;
                    std::swap(vela::at(a, x, y, z, w), vela::at(a, mx, my, mz, w));
                }
}

template <class T, int dim>
void flip(Array<T, 4>& a) {
    if (a.device == vela::kHostDevice) {
        flipHost<T, dim>(a);
        return;
    }
    using vela::device::blocksFor;
    const dim3 block(32, 4, 1);
    for (unsigned int w = 0; w < a.extents.w; ++w) {
        const Array<T, 4> slab = vela::block(a, vela::Range(0, -1), vela::Range(0, -1), vela::Range(0, -1),
                                             vela::Range(static_cast<int>(w), static_cast<int>(w)));
        const Array<T, 3> v = vela::internal::decreaseArrayDimension<T, 4, 3>(slab);
        // Only the first half along the flipped dimension gets threads.
        const dim3 grid(blocksFor(v.extents.x, dim == 0 ? 2 * block.x : block.x),
                        blocksFor(v.extents.y, dim == 1 ? 2 * block.y : block.y),
                        dim == 2 ? blocksFor(v.extents.z, 2) : v.extents.z);
        vela::device::launch<flip_kernel<T, dim>>(grid, block, nullptr, v);
        vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
    }
}

}  // namespace algorithms_basic_namespace

namespace vela {

namespace ab = algorithms_basic_namespace;

template <class T>
void add(Array<T, 4>& a, T s, cudaStream_t stream) {
    ab::applyScalar<T, ab::Add<T>>(a, s, stream);
}
template <class T>
void sub(Array<T, 4>& a, T s, cudaStream_t stream) {
    ab::applyScalar<T, ab::Sub<T>>(a, s, stream);
}
template <class T>
void mul(Array<T, 4>& a, T s, cudaStream_t stream) {
    ab::applyScalar<T, ab::Mul<T>>(a, s, stream);
}
template <class T>
void div(Array<T, 4>& a, T s, cudaStream_t stream) {
    ab::applyScalar<T, ab::Div<T>>(a, s, stream);
}
template <class T>
void set(Array<T, 4>& a, T s, cudaStream_t stream) {
    ab::applyScalar<T, ab::Set<T>>(a, s, stream);
}

template <class T>
void add(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream) {
    ab::applyArray<T, ab::Add<T>>(a, b, stream);
}
template <class T>
void sub(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream) {
    ab::applyArray<T, ab::Sub<T>>(a, b, stream);
}
template <class T>
void mul(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream) {
    ab::applyArray<T, ab::Mul<T>>(a, b, stream);
}
template <class T>
void div(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream) {
    ab::applyArray<T, ab::Div<T>>(a, b, stream);
}
template <class T>
void set(Array<T, 4>& a, const Array<T, 4>& b, cudaStream_t stream) {
    ab::applyArray<T, ab::Set<T>>(a, b, stream);
}

template <class T>
void flipX(Array<T, 4>& a) {
    ab::flip<T, 0>(a);
}
template <class T>
void flipY(Array<T, 4>& a) {
    ab::flip<T, 1>(a);
}
template <class T>
void flipZ(Array<T, 4>& a) {
    ab::flip<T, 2>(a);
}

#define VELA_INSTANTIATE_ARITHMETIC(T)                                    \
    template void add<T>(Array<T, 4>&, T, cudaStream_t);                  \
    template void sub<T>(Array<T, 4>&, T, cudaStream_t);                  \
    template void mul<T>(Array<T, 4>&, T, cudaStream_t);                  \
    template void div<T>(Array<T, 4>&, T, cudaStream_t);                  \
    template void add<T>(Array<T, 4>&, const Array<T, 4>&, cudaStream_t); \
    template void sub<T>(Array<T, 4>&, const Array<T, 4>&, cudaStream_t); \
    template void mul<T>(Array<T, 4>&, const Array<T, 4>&, cudaStream_t); \
    template void div<T>(Array<T, 4>&, const Array<T, 4>&, cudaStream_t);
#define VELA_INSTANTIATE_SET(T)                          \
    template void set<T>(Array<T, 4>&, T, cudaStream_t); \
    template void set<T>(Array<T, 4>&, const Array<T, 4>&, cudaStream_t);
#define VELA_INSTANTIATE_FLIP(T)          \
    template void flipX<T>(Array<T, 4>&); \
    template void flipY<T>(Array<T, 4>&); \
    template void flipZ<T>(Array<T, 4>&);

VELA_INSTANTIATE_ARITHMETIC(float)
VELA_INSTANTIATE_ARITHMETIC(float2)
VELA_INSTANTIATE_ARITHMETIC(float3)
VELA_INSTANTIATE_ARITHMETIC(float4)
VELA_INSTANTIATE_ARITHMETIC(double)
VELA_INSTANTIATE_ARITHMETIC(int)

VELA_INSTANTIATE_SET(float)
VELA_INSTANTIATE_SET(float2)
VELA_INSTANTIATE_SET(float3)
VELA_INSTANTIATE_SET(float4)
VELA_INSTANTIATE_SET(double)
VELA_INSTANTIATE_SET(int)
VELA_INSTANTIATE_SET(int2)
VELA_INSTANTIATE_SET(int3)
VELA_INSTANTIATE_SET(int4)
VELA_INSTANTIATE_SET(unsigned int)
VELA_INSTANTIATE_SET(unsigned char)
VELA_INSTANTIATE_SET(uchar2)
VELA_INSTANTIATE_SET(uchar3)
VELA_INSTANTIATE_SET(uchar4)
VELA_INSTANTIATE_SET(bool)

VELA_INSTANTIATE_FLIP(int)
VELA_INSTANTIATE_FLIP(float)
VELA_INSTANTIATE_FLIP(float2)
VELA_INSTANTIATE_FLIP(float3)
VELA_INSTANTIATE_FLIP(float4)
VELA_INSTANTIATE_FLIP(double)
VELA_INSTANTIATE_FLIP(uchar4)

}  // namespace vela
