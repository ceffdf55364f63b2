#include "vela/algorithms/conversion.h"

#include <cmath>
#include <stdexcept>
#include <type_traits>

#include "vela/access.h"
#include "vela/algorithms/launch_shapes.h"
#include "vela/algorithms/scalar_cast.h"
#include "vela/algorithms/vector_traits.h"
#include "vela/device/launch.h"

namespace algorithms_conversion_namespace {

using vela::Array;
using vela::at;
using vela::device::Thread;
using vela::internal::VectorTraits;

// ---------------------------------------------------------------------------
// Per-pixel work, shared by the kernels and the host loops.

// Planes 0..n-1 of an interleaved pixel, n = out.extents.z; optionally /255.
template <class P, class V>
struct planar_from_interleaved {
    bool normalize;

    VELA_HD void operator()(const Array<P, 3>& out, const Array<V, 2>& in, unsigned int x, unsigned int y) const {
        const V v = at(in, x, y);
        for (unsigned int p = 0; p < out.extents.z; ++p) {
            P s = static_cast<P>(VectorTraits<V>::get(v, static_cast<int>(p)));
            if (normalize) s = s / static_cast<P>(255);
            at(out, x, y, p) = s;
        }
    }
};

// An interleaved pixel from three or four planes; `alpha` stands in for a
// missing fourth plane.
template <class V, class P>
struct interleaved_from_planar {
    P alpha;

    VELA_HD void operator()(const Array<V, 2>& out, const Array<P, 3>& in, unsigned int x, unsigned int y) const {
        V v;
        v.x = at(in, x, y, 0);
        v.y = at(in, x, y, 1);
        v.z = at(in, x, y, 2);
        v.w = in.extents.z == 4 ? at(in, x, y, 3) : alpha;
        at(out, x, y) = v;
    }
};

VELA_HD inline float roundHalfAway(float v) { return roundf(v); }
VELA_HD inline double roundHalfAway(double v) { return round(v); }

// A byte pixel from three or four planes; the fourth byte is always `alpha`.
template <class P>
struct bytes_from_planar {
    bool normalize;
    unsigned char alpha;

    VELA_HD unsigned char toByte(P s) const {
        if (!normalize) return vela::internal::lowByte(s);
        const P clamped = !(s > P(0)) ? P(0) : s > P(1) ? P(1) : s;  // NaN gives 0
        return static_cast<unsigned char>(roundHalfAway(clamped * P(255)));
    }

    VELA_HD void operator()(const Array<uchar4, 2>& out, const Array<P, 3>& in, unsigned int x, unsigned int y) const {
        uchar4 v;
        v.x = toByte(at(in, x, y, 0));
        v.y = toByte(at(in, x, y, 1));
        v.z = toByte(at(in, x, y, 2));
        v.w = alpha;
        at(out, x, y) = v;
    }
};

// One component cast to So, with the device's float-to-integer behaviour.
template <class So>
struct cast_to {
    template <class Si>
    VELA_HD So operator()(Si v) const {
        if constexpr (std::is_floating_point_v<Si> && std::is_integral_v<So>) {
            if constexpr (std::is_signed_v<So>)
                return static_cast<So>(vela::internal::truncateToInt(v));
            else
                return static_cast<So>(vela::internal::truncateToUnsigned(v));
        } else {
            return static_cast<So>(v);
        }
    }
};

template <class Tout, class Tin>
struct convert_operator {
    VELA_HD Tout operator()(const Tin& v) const {
        return vela::internal::mapComponents<Tout>(v, cast_to<typename VectorTraits<Tout>::Scalar>{});
    }
};

// ---------------------------------------------------------------------------
// Kernels

// One thread per pixel of the x-y plane shared by `out` and `in`.
template <class Out, class In, class Pixel>
struct image_conversion_kernel {
    VELA_HD void operator()(const Thread& t, Out out, In in, Pixel pixel) const {
        const unsigned int x = t.blockDim.x * t.blockIdx.x + t.threadIdx.x;
        const unsigned int y = t.blockDim.y * t.blockIdx.y + t.threadIdx.y;
        if (x < in.extents.x && y < in.extents.y) pixel(out, in, x, y);
    }
};

template <class Tout, class Tin>
struct type_conversion_kernel {
    VELA_HD void operator()(const Thread& t, Array<Tout, 4> out, Array<Tin, 4> in, int zblocks) const {
        const vela::internal::ElementIndex i(t, zblocks);
        if (i.inside(out.extents))
            at(out, i.x, i.y, i.z, i.w) = convert_operator<Tout, Tin>{}(at(in, i.x, i.y, i.z, i.w));
    }
};

// ---------------------------------------------------------------------------
// Host functions

constexpr const char* kSource = "vela/algorithms/conversion";

// Host arrays: the same per-pixel work in plain loops.
template <class Out, class In, class Pixel>
void convert_host(const Out& out, const In& in, const Pixel& pixel) {
    for (unsigned int y = 0; y < in.extents.y; ++y)
        for (unsigned int x = 0; x < in.extents.x; ++x) pixel(out, in, x, y);
}

template <class Tout, class Tin>
void convert_host(const Array<Tout, 4>& out, const Array<Tin, 4>& in) {
    const uint4 e = out.extents;
    for (unsigned int w = 0; w < e.w; ++w)
        for (unsigned int z = 0; z < e.z; ++z)
            for (unsigned int y = 0; y < e.y; ++y)
                for (unsigned int x = 0; x < e.x; ++x)
                    at(out, x, y, z, w) = convert_operator<Tout, Tin>{}(at(in, x, y, z, w));
}

template <class Out, class In, class Pixel>
void convertImage(const Out& out, const In& in, const Pixel& pixel, cudaStream_t stream) {
    if (out.device == vela::kHostDevice) {
        convert_host(out, in, pixel);
        return;
    }
    vela::device::launch<image_conversion_kernel<Out, In, Pixel>>(vela::internal::imageGrid(in.extents.x, in.extents.y),
                                                                  vela::internal::kImageBlock, stream, out, in, pixel);
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
}

std::string plane(unsigned int x, unsigned int y) { return vela::internal::str_extents(make_uint2(x, y)); }

void checkPlanarOut(const std::string& signature, const uint3& out, const uint2& in) {
    if (out.x == in.x && out.y == in.y && (out.z == 3 || out.z == 4)) return;
    throw std::runtime_error(signature + ":  " + " wrong 'out' array extents." + " 'in'  extents are " +
                             vela::internal::str_extents(in) + " 'out' extents are " +
                             vela::internal::str_extents(out) + " expected extents for 'out' are " + "(" +
                             std::to_string(in.x) + ", " + std::to_string(in.y) + ", 3 or 4)");
}

void checkPlanarIn(const std::string& signature, const uint3& in) {
    if (in.z == 3 || in.z == 4) return;
    throw std::runtime_error(signature + ":  " + " wrong 'in' array extents." + " 'in'  extents are " +
                             vela::internal::str_extents(in) + " expected extents.z == 3 or 4 ");
}

void checkInterleavedOut(const std::string& signature, const uint2& out, const uint3& in) {
    if (out.x == in.x && out.y == in.y) return;
    throw std::runtime_error(signature + ":  " + " wrong 'out' array extents." + " 'in'  extents are " +
                             vela::internal::str_extents(in) + " 'out' extents are " +
                             vela::internal::str_extents(out) + " expected extents for 'out' are " + plane(in.x, in.y));
}

// Type names as they appear in the signatures of error messages.
template <class T>
struct TypeName;
#define VELA_TYPE_NAME(T)                        \
    template <>                                  \
    struct TypeName<T> {                         \
        static constexpr const char* value = #T; \
    };
VELA_TYPE_NAME(float)
VELA_TYPE_NAME(double)
VELA_TYPE_NAME(int)
VELA_TYPE_NAME(unsigned char)
VELA_TYPE_NAME(float2)
VELA_TYPE_NAME(float4)
VELA_TYPE_NAME(int2)
VELA_TYPE_NAME(int4)
VELA_TYPE_NAME(uchar2)
VELA_TYPE_NAME(uchar4)
#undef VELA_TYPE_NAME

}  // namespace algorithms_conversion_namespace

namespace vela {

namespace ac = algorithms_conversion_namespace;

namespace internal {

void check_arguments_same_device(const std::string& prefix, const std::string& nameA, int deviceA,
                                 const std::string& nameB, int deviceB) {
    if (deviceA == deviceB) return;
    const auto where = [](int device) { return device == kHostDevice ? std::string("HOST") : std::to_string(device); };
    throw std::runtime_error(prefix + ":  " + "arrays '" + nameA + "' and '" + nameB +
                             "' must be on the same device.\n '" + nameA + "' is on device " + where(deviceA) + "\n '" +
                             nameB + "' is on device " + where(deviceB));
}

}  // namespace internal

void convert(Array<float, 3>& out, const Array<float4, 2>& in, cudaStream_t stream) {
    const std::string signature =
        "void vela::convert(vela::Array<float, 3>&, const vela::Array<float4, 2>&, cudaStream_t)";
    internal::check_arguments_same_device(signature, out, "out", in, "in");
    ac::checkPlanarOut(signature, out.extents, in.extents);
    ac::convertImage(out, in, ac::planar_from_interleaved<float, float4>{false}, stream);
}

void convert(Array<unsigned char, 3>& out, const Array<uchar4, 2>& in, cudaStream_t stream) {
    const std::string signature =
        "void vela::convert(vela::Array<unsigned char, 3>&, const vela::Array<uchar4, 2>&, cudaStream_t)";
    internal::check_arguments_same_device(signature, out, "out", in, "in");
    ac::checkPlanarOut(signature, out.extents, in.extents);
    ac::convertImage(out, in, ac::planar_from_interleaved<unsigned char, uchar4>{false}, stream);
}

void convert(Array<float4, 2>& out, const Array<float, 3>& in, float alpha, cudaStream_t stream) {
    const std::string signature =
        "void vela::convert(vela::Array<float4, 2>&, const vela::Array<float, 3>&, float, cudaStream_t)";
    internal::check_arguments_same_device(signature, out, "out", in, "in");
    ac::checkPlanarIn(signature, in.extents);
    ac::checkInterleavedOut(signature, out.extents, in.extents);
    ac::convertImage(out, in, ac::interleaved_from_planar<float4, float>{alpha}, stream);
}

void convert(Array<uchar4, 2>& out, const Array<unsigned char, 3>& in, unsigned char alpha, cudaStream_t stream) {
    const std::string signature =
        "void vela::convert(vela::Array<uchar4, 2>&, const vela::Array<unsigned char, 3>&, unsigned char, "
        "cudaStream_t)";
    internal::check_arguments_same_device(signature, out, "out", in, "in");
    ac::checkPlanarIn(signature, in.extents);
    ac::checkInterleavedOut(signature, out.extents, in.extents);
    ac::convertImage(out, in, ac::interleaved_from_planar<uchar4, unsigned char>{alpha}, stream);
}

template <class T>
void convert(Array<T, 3>& out, const Array<uchar4, 2>& in, bool normalize, cudaStream_t stream) {
    const std::string signature =
        std::string(
            "void vela::convert(vela::Array<T, 3>&, const vela::Array<uchar4, 2>&, bool, cudaStream_t) "
            "[with T = ") +
        ac::TypeName<T>::value + "]";
    internal::check_arguments_same_device(signature, out, "out", in, "in");
    ac::checkPlanarOut(signature, out.extents, in.extents);
    ac::convertImage(out, in, ac::planar_from_interleaved<T, uchar4>{normalize}, stream);
}

template <class T>
void convert(Array<uchar4, 2>& out, const Array<T, 3>& in, bool normalize, unsigned char alpha, cudaStream_t stream) {
    const std::string signature =
        std::string(
            "void vela::convert(vela::Array<uchar4, 2>&, const vela::Array<T, 3>&, bool, unsigned char, "
            "cudaStream_t) [with T = ") +
        ac::TypeName<T>::value + "]";
    internal::check_arguments_same_device(signature, out, "out", in, "in");
    ac::checkPlanarIn(signature, in.extents);
    ac::checkInterleavedOut(signature, out.extents, in.extents);
    ac::convertImage(out, in, ac::bytes_from_planar<T>{normalize, alpha}, stream);
}

template <class Tout, class Tin>
void convert(Array<Tout, 4>& out, const Array<Tin, 4>& in, cudaStream_t stream) {
    const std::string signature =
        std::string(
            "void vela::convert(vela::Array<Tout, 4>&, const vela::Array<Tin, 4>&, cudaStream_t) [with "
            "Tout = ") +
        ac::TypeName<Tout>::value + "; Tin = " + ac::TypeName<Tin>::value + "]";
    internal::check_arguments_same_device(signature, out, "out", in, "in");
    const uint4 eo = out.extents, ei = in.extents;
    if (eo.x != ei.x || eo.y != ei.y || eo.z != ei.z || eo.w != ei.w)
        throw std::runtime_error(signature + ":  " + " wrong 'out' array extents." + " 'in'  extents are " +
                                 internal::str_extents(ei) + " 'out' extents are " + internal::str_extents(eo) +
                                 " expected are the same extents. ");
    if (out.device == kHostDevice) {
        ac::convert_host(out, in);
        return;
    }
    device::launch<ac::type_conversion_kernel<Tout, Tin>>(internal::elementwiseGrid(eo), internal::kElementwiseBlock,
                                                          stream, out, in, static_cast<int>(eo.z));
    _CHECK_CUDA_ERROR(ac::kSource, __LINE__);
}

template void convert<float>(Array<float, 3>&, const Array<uchar4, 2>&, bool, cudaStream_t);
template void convert<double>(Array<double, 3>&, const Array<uchar4, 2>&, bool, cudaStream_t);
template void convert<float>(Array<uchar4, 2>&, const Array<float, 3>&, bool, unsigned char, cudaStream_t);
template void convert<double>(Array<uchar4, 2>&, const Array<double, 3>&, bool, unsigned char, cudaStream_t);

#define VELA_INSTANTIATE_TYPE_CONVERSION(Tout, Tin) \
    template void convert<Tout, Tin>(Array<Tout, 4>&, const Array<Tin, 4>&, cudaStream_t);
#define VELA_INSTANTIATE_TYPE_CONVERSIONS(U, I, F) \
    VELA_INSTANTIATE_TYPE_CONVERSION(U, I)         \
    VELA_INSTANTIATE_TYPE_CONVERSION(U, F)         \
    VELA_INSTANTIATE_TYPE_CONVERSION(I, U)         \
    VELA_INSTANTIATE_TYPE_CONVERSION(I, F)         \
    VELA_INSTANTIATE_TYPE_CONVERSION(F, U)         \
    VELA_INSTANTIATE_TYPE_CONVERSION(F, I)
VELA_INSTANTIATE_TYPE_CONVERSIONS(uchar4, int4, float4)
VELA_INSTANTIATE_TYPE_CONVERSIONS(uchar2, int2, float2)
VELA_INSTANTIATE_TYPE_CONVERSIONS(unsigned char, int, float)

}  // namespace vela
