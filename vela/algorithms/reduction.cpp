#include "vela/algorithms/reduction.h"

#include <cmath>
#include <stdexcept>

#include "vela/access.h"
#include "vela/algorithms/vector_traits.h"
#include "vela/device/launch.h"

namespace vela::internal {

// One input element as a partial result: itself, or (v, v) for a min-max pair.
template <class R>
struct make_type {
    template <class T>
    VELA_HD R operator()(T v) const {
        if constexpr (VectorTraits<R>::size == 2) {
            R r;
            r.x = v;
            r.y = v;
            return r;
        } else {
            return v;
        }
    }
};

}  // namespace vela::internal

namespace algorithms_basic_namespace {

using vela::Array;
using vela::device::Thread;

// Floating-point minimum and maximum drop a NaN operand (fminf semantics).
VELA_HD inline float smaller(float a, float b) { return fminf(a, b); }
VELA_HD inline double smaller(double a, double b) { return fmin(a, b); }
template <class S>
VELA_HD inline S smaller(S a, S b) {
    return b < a ? b : a;
}
VELA_HD inline float larger(float a, float b) { return fmaxf(a, b); }
VELA_HD inline double larger(double a, double b) { return fmax(a, b); }
template <class S>
VELA_HD inline S larger(S a, S b) {
    return a < b ? b : a;
}

template <class R>
struct Min_Op {
    VELA_HD R operator()(R a, R b) const { return smaller(a, b); }
};
template <class R>
struct Max_Op {
    VELA_HD R operator()(R a, R b) const { return larger(a, b); }
};
template <class R>
struct MinMax_Op {
    VELA_HD R operator()(R a, R b) const {
        R r;
        r.x = smaller(a.x, b.x);
        r.y = larger(a.y, b.y);
        return r;
    }
};

// Reduces one 32 x 32 tile of `in` to partial(blockIdx.x, blockIdx.y).  Each
// thread loads its element into the shared tile; the rows are then halved
// toward column 0 and column 0 toward row 0, a barrier after every step.  A
// slot is only merged when its partner lies inside the array, so slots of
// threads outside the array are never read.
template <class T, class R, class Op, class MakeType>
struct stat_op_kernel {
    static constexpr int kTile = 32;
    static constexpr int kSteps = 5;  // 16, 8, 4, 2, 1
    struct Shared {
        R shA[kTile][kTile];
    };
    struct Local {};
    // load | kSteps row steps | kSteps column steps | write
    static constexpr int phases = 2 * kSteps + 2;

    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, Array<T, 2> in, Array<R, 2> partial, Op op,
                            MakeType make) const {
        const int tx = static_cast<int>(t.threadIdx.x);
        const int ty = static_cast<int>(t.threadIdx.y);
        const int x = static_cast<int>(t.blockDim.x * t.blockIdx.x + t.threadIdx.x);
        const int y = static_cast<int>(t.blockDim.y * t.blockIdx.y + t.threadIdx.y);
        const int width = static_cast<int>(in.extents.x);
        const int height = static_cast<int>(in.extents.y);
        if (phase == 0) {
            if (x < width && y < height) s.shA[ty][tx] = make(vela::at(in, x, y));
        } else if (phase <= kSteps) {
            const int step = kTile >> phase;
            if (y < height && tx < step && x + step < width) s.shA[ty][tx] = op(s.shA[ty][tx], s.shA[ty][tx + step]);
        } else if (phase <= 2 * kSteps) {
            const int step = kTile >> (phase - kSteps);
            if (tx == 0 && ty < step && y + step < height) s.shA[ty][0] = op(s.shA[ty][0], s.shA[ty + step][0]);
        } else if (tx == 0 && ty == 0) {
            vela::at(partial, t.blockIdx.x, t.blockIdx.y) = s.shA[0][0];
        }
    }
};

constexpr const char* kSource = "vela/algorithms/basic";

// Releases the partial arrays however the reduction ends.
template <class R>
struct PartialArrays {
    Array<R, 4> device{};
    Array<R, 4> host{};
    ~PartialArrays() {
        vela::freeArray(device);
        vela::freeArray(host);
    }
};

template <class T, class R, class Op>
R reduce(Array<T, 2>& a, cudaStream_t stream) {
    if (a.device == vela::kHostDevice) throw std::runtime_error("memory of the array must be on the device");
    if (a.data == nullptr || a.extents.x == 0 || a.extents.y == 0)
        throw std::runtime_error("the array has no elements to reduce");
    const unsigned int bx = a.extents.x / 32 + (a.extents.x % 32 != 0 ? 1 : 0);
    const unsigned int by = a.extents.y / 32 + (a.extents.y % 32 != 0 ? 1 : 0);
    PartialArrays<R> arrays;
    arrays.device = vela::mallocDeviceArray<R>(make_uint4(bx, by, 1, 1), vela::PITCHED_LAYOUT);
    arrays.host = vela::mallocHostArray<R>(make_uint4(bx, by, 1, 1), vela::LINEAR_LAYOUT);
    Array<R, 2> devicePartial = vela::internal::decreaseArrayDimension<R, 4, 2>(arrays.device);
    Array<R, 2> hostPartial = vela::internal::decreaseArrayDimension<R, 4, 2>(arrays.host);

    using Kernel = stat_op_kernel<T, R, Op, vela::internal::make_type<R>>;
    vela::device::launch<Kernel>(dim3(bx, by, 1), dim3(32, 32, 1), stream, a, devicePartial, Op{},
                                 vela::internal::make_type<R>{});
    vela::arrayCopy(hostPartial, devicePartial);

    const Op op{};
    R r = vela::at(hostPartial, 0, 0);
    for (unsigned int j = 0; j < by; ++j)
        for (unsigned int i = 0; i < bx; ++i) r = op(r, vela::at(hostPartial, i, j));
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
    return r;
}

}  // namespace algorithms_basic_namespace

namespace vela {

namespace ab = algorithms_basic_namespace;

template <class T>
T Min(Array<T, 2>& a, cudaStream_t stream) {
    return ab::reduce<T, T, ab::Min_Op<T>>(a, stream);
}

template <class T>
T Max(Array<T, 2>& a, cudaStream_t stream) {
    return ab::reduce<T, T, ab::Max_Op<T>>(a, stream);
}

uchar2 MinMax(Array<unsigned char, 2>& a, cudaStream_t stream) {
    return ab::reduce<unsigned char, uchar2, ab::MinMax_Op<uchar2>>(a, stream);
}
int2 MinMax(Array<int, 2>& a, cudaStream_t stream) { return ab::reduce<int, int2, ab::MinMax_Op<int2>>(a, stream); }
float2 MinMax(Array<float, 2>& a, cudaStream_t stream) {
    return ab::reduce<float, float2, ab::MinMax_Op<float2>>(a, stream);
}

#define VELA_INSTANTIATE_MIN_MAX(T)                \
    template T Min<T>(Array<T, 2>&, cudaStream_t); \
    template T Max<T>(Array<T, 2>&, cudaStream_t);
VELA_INSTANTIATE_MIN_MAX(int)
VELA_INSTANTIATE_MIN_MAX(unsigned char)
VELA_INSTANTIATE_MIN_MAX(float)
VELA_INSTANTIATE_MIN_MAX(double)

}  // namespace vela
