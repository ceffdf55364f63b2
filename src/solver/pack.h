// Runs of neighbouring pixels of a row held in vector lanes, for the host's
// row sweeps: the lane operations of src/solver/lanes.h for packs.
// GNU vector extensions, which the host compilers of both builds support, give
// vector instructions without intrinsics; host code only.
//
// Pack<N, Width> holds N lanes in N / Width vectors of Width floats: Width 4
// is an SSE register, available on every x86-64 host; Width 8 an AVX
// register, for code compiled for AVX2.  Two vectors per pack give
// independent instruction chains to interleave.
#pragma once

#include <cmath>

#include "src/solver/lanes.h"

namespace seg {

namespace detail {
template <int Width>
struct VectorOf;
// Vec is the register type; Unaligned the same vector at any float's address,
// for loads and stores.  Typed accesses (rather than byte copies) tell the
// compiler that storing pixels cannot change the array descriptors, so their
// fields stay in registers.
template <>
struct VectorOf<4> {
    typedef float Vec __attribute__((vector_size(16)));
    typedef float Unaligned __attribute__((vector_size(16), aligned(4)));
    typedef int Mask __attribute__((vector_size(16)));
    typedef long long Words __attribute__((vector_size(16)));
    // Even and odd elements of two vectors, and the interleaving back.
    static constexpr Mask kEven{0, 2, 4, 6}, kOdd{1, 3, 5, 7};
    static constexpr Mask kLowPairs{0, 4, 1, 5}, kHighPairs{2, 6, 3, 7};
};
template <>
struct VectorOf<8> {
    typedef float Vec __attribute__((vector_size(32)));
    typedef float Unaligned __attribute__((vector_size(32), aligned(4)));
    typedef int Mask __attribute__((vector_size(32)));
    typedef long long Words __attribute__((vector_size(32)));
    static constexpr Mask kEven{0, 2, 4, 6, 8, 10, 12, 14}, kOdd{1, 3, 5, 7, 9, 11, 13, 15};
    static constexpr Mask kLowPairs{0, 8, 1, 9, 2, 10, 3, 11}, kHighPairs{4, 12, 5, 13, 6, 14, 7, 15};
};
}  // namespace detail

// Per-lane truth values (all bits set or clear), as comparisons of packs give.
template <int N, int Width>
struct PackMask {
    typedef detail::VectorOf<Width> Of;
    typename Of::Mask part[N / Width];

    // Lanes are folded into 64-bit words: a few vector instructions rather
    // than one move per lane.
    friend bool allLanes(const PackMask& a) {
        typename Of::Mask all = a.part[0];
        for (int i = 1; i < N / Width; ++i) all &= a.part[i];
        const Words w = reinterpret_cast<Words>(all);
        long long folded = w[0];
        for (int k = 1; k < Width / 2; ++k) folded &= w[k];
        return folded == -1;
    }
    friend bool noLanes(const PackMask& a) {
        typename Of::Mask any = a.part[0];
        for (int i = 1; i < N / Width; ++i) any |= a.part[i];
        const Words w = reinterpret_cast<Words>(any);
        long long folded = w[0];
        for (int k = 1; k < Width / 2; ++k) folded |= w[k];
        return folded == 0;
    }

 private:
    typedef typename Of::Words Words;
};

template <int N, int Width = 4>
struct Pack {
    static_assert(N % Width == 0, "a pack holds whole vectors");
    typedef detail::VectorOf<Width> Of;
    typedef typename Of::Vec Vec;
    static constexpr int kParts = N / Width;
    static constexpr int lanes = N;

    Vec part[kParts];

    Pack() = default;
    Pack(float s) {  // broadcast: a scalar in an expression counts in every lane
        for (auto& v : part) v = Vec{} + s;
    }

    static Pack load(const float* p) {
        Pack r;
        for (int i = 0; i < kParts; ++i) r.part[i] = loadVec(p + Width * i);
        return r;
    }
    void store(float* p) const {
        for (int i = 0; i < kParts; ++i) storeVec(p + Width * i, part[i]);
    }
    static Vec loadVec(const float* p) { return *reinterpret_cast<const typename Of::Unaligned*>(p); }
    static void storeVec(float* p, Vec v) { *reinterpret_cast<typename Of::Unaligned*>(p) = v; }
    float lane(int i) const { return part[i / Width][i % Width]; }
    void setLane(int i, float value) { part[i / Width][i % Width] = value; }

#define SEG_PACK_BINARY(op)                                                  \
    friend Pack operator op(const Pack& a, const Pack& b) {                  \
        Pack r;                                                              \
        for (int i = 0; i < kParts; ++i) r.part[i] = a.part[i] op b.part[i]; \
        return r;                                                            \
    }
    SEG_PACK_BINARY(+)
    SEG_PACK_BINARY(-)
    SEG_PACK_BINARY(*)
    SEG_PACK_BINARY(/)
#undef SEG_PACK_BINARY

    friend PackMask<N, Width> operator>(const Pack& a, const Pack& b) {
        PackMask<N, Width> m;
        for (int i = 0; i < kParts; ++i) m.part[i] = a.part[i] > b.part[i];
        return m;
    }
    friend PackMask<N, Width> operator==(const Pack& a, const Pack& b) {
        PackMask<N, Width> m;
        for (int i = 0; i < kParts; ++i) m.part[i] = a.part[i] == b.part[i];
        return m;
    }
    friend Pack select(const PackMask<N, Width>& take, const Pack& a, const Pack& b) {
        Pack r;
        for (int i = 0; i < kParts; ++i) r.part[i] = take.part[i] ? a.part[i] : b.part[i];
        return r;
    }
    friend Pack lanesSqrt(const Pack& a) {
        // Built without errno handling (the solver's CMake block), so this loop
        // is one square-root instruction per vector.
        Pack r;
        for (int i = 0; i < kParts; ++i)
            for (int k = 0; k < Width; ++k) r.part[i][k] = std::sqrt(a.part[i][k]);
        return r;
    }
};

// Reads N consecutive float2 values as their x and y lanes.
template <int N, int Width>
inline void loadPairs(const float2* pairs, Pack<N, Width>& x, Pack<N, Width>& y) {
    typedef detail::VectorOf<Width> Of;
    const float* p = reinterpret_cast<const float*>(pairs);
    for (int i = 0; i < N / Width; ++i) {
        const typename Of::Vec lo = Pack<N, Width>::loadVec(p + 2 * Width * i);
        const typename Of::Vec hi = Pack<N, Width>::loadVec(p + 2 * Width * i + Width);
        x.part[i] = __builtin_shuffle(lo, hi, Of::kEven);
        y.part[i] = __builtin_shuffle(lo, hi, Of::kOdd);
    }
}

template <int N, int Width>
inline void storePairs(float2* pairs, const Pack<N, Width>& x, const Pack<N, Width>& y) {
    typedef detail::VectorOf<Width> Of;
    float* p = reinterpret_cast<float*>(pairs);
    for (int i = 0; i < N / Width; ++i) {
        const typename Of::Vec lo = __builtin_shuffle(x.part[i], y.part[i], Of::kLowPairs);
        const typename Of::Vec hi = __builtin_shuffle(x.part[i], y.part[i], Of::kHighPairs);
        Pack<N, Width>::storeVec(p + 2 * Width * i, lo);
        Pack<N, Width>::storeVec(p + 2 * Width * i + Width, hi);
    }
}

// Reads N consecutive float4 values as four packs of their components.
template <int N, int Width>
inline void loadQuads(const float4* p, Pack<N, Width>& a, Pack<N, Width>& b, Pack<N, Width>& c, Pack<N, Width>& d) {
    float lanes[4][N];
    for (int i = 0; i < N; ++i) {
        lanes[0][i] = p[i].x;
        lanes[1][i] = p[i].y;
        lanes[2][i] = p[i].z;
        lanes[3][i] = p[i].w;
    }
    a = Pack<N, Width>::load(lanes[0]);
    b = Pack<N, Width>::load(lanes[1]);
    c = Pack<N, Width>::load(lanes[2]);
    d = Pack<N, Width>::load(lanes[3]);
}

}  // namespace seg
