// Component access for the scalar and vector element types, so that an
// operation on elements is written once and applied to every component of a
// float4 or uchar2 the same way as to a plain float.
#pragma once

#include "vela/device/types.h"

namespace vela::internal {

// A scalar is a vector of one component.
template <class T>
struct VectorTraits {
    using Scalar = T;
    static constexpr int size = 1;
    VELA_HD static Scalar& get(T& v, int) { return v; }
    VELA_HD static const Scalar& get(const T& v, int) { return v; }
};

#define VELA_VECTOR_TRAITS_2(V, S)                                                         \
    template <>                                                                            \
    struct VectorTraits<V> {                                                               \
        using Scalar = S;                                                                  \
        static constexpr int size = 2;                                                     \
        VELA_HD static Scalar& get(V& v, int i) { return i == 0 ? v.x : v.y; }             \
        VELA_HD static const Scalar& get(const V& v, int i) { return i == 0 ? v.x : v.y; } \
    }
#define VELA_VECTOR_TRAITS_3(V, S)                                                                        \
    template <>                                                                                           \
    struct VectorTraits<V> {                                                                              \
        using Scalar = S;                                                                                 \
        static constexpr int size = 3;                                                                    \
        VELA_HD static Scalar& get(V& v, int i) { return i == 0 ? v.x : i == 1 ? v.y : v.z; }             \
        VELA_HD static const Scalar& get(const V& v, int i) { return i == 0 ? v.x : i == 1 ? v.y : v.z; } \
    }
#define VELA_VECTOR_TRAITS_4(V, S)                                                                           \
    template <>                                                                                              \
    struct VectorTraits<V> {                                                                                 \
        using Scalar = S;                                                                                    \
        static constexpr int size = 4;                                                                       \
        VELA_HD static Scalar& get(V& v, int i) { return i == 0 ? v.x : i == 1 ? v.y : i == 2 ? v.z : v.w; } \
        VELA_HD static const Scalar& get(const V& v, int i) {                                                \
            return i == 0 ? v.x : i == 1 ? v.y : i == 2 ? v.z : v.w;                                         \
        }                                                                                                    \
    }

VELA_VECTOR_TRAITS_2(float2, float);
VELA_VECTOR_TRAITS_3(float3, float);
VELA_VECTOR_TRAITS_4(float4, float);
VELA_VECTOR_TRAITS_2(int2, int);
VELA_VECTOR_TRAITS_3(int3, int);
VELA_VECTOR_TRAITS_4(int4, int);
VELA_VECTOR_TRAITS_2(uchar2, unsigned char);
VELA_VECTOR_TRAITS_3(uchar3, unsigned char);
VELA_VECTOR_TRAITS_4(uchar4, unsigned char);

#undef VELA_VECTOR_TRAITS_2
#undef VELA_VECTOR_TRAITS_3
#undef VELA_VECTOR_TRAITS_4

// d.c = f(d.c, o.c) for every component c.
template <class T, class F>
VELA_HD inline void combineComponents(T& d, const T& o, F f) {
    using Tr = VectorTraits<T>;
    for (int i = 0; i < Tr::size; ++i) Tr::get(d, i) = f(Tr::get(d, i), Tr::get(o, i));
}

// out.c = f(in.c) for every component c; both types have the same number.
template <class Tout, class Tin, class F>
VELA_HD inline Tout mapComponents(const Tin& in, F f) {
    using To = VectorTraits<Tout>;
    using Ti = VectorTraits<Tin>;
    static_assert(To::size == Ti::size, "the element types must have the same number of components");
    Tout out{};
    for (int i = 0; i < To::size; ++i) To::get(out, i) = f(Ti::get(in, i));
    return out;
}

}  // namespace vela::internal
