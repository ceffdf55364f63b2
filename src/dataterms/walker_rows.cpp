#include "src/dataterms/walker_rows.h"

#include "src/solver/pack.h"

namespace seg::walker {
namespace {

// The values a span's pixels add to the sums are kept for this many pixels at
// a time, then added in order.
constexpr unsigned int kChunk = 256;

// ---------------------------------------------------------------------------
// The steps over P::lanes interior pixels x .. x + lanes - 1 of row y (every
// neighbour exists): what each adds goes to first[0 ..] and second[0 ..].
// ---------------------------------------------------------------------------

struct ApplyRun {
    static constexpr bool kPacked = true;
    static constexpr int kSums = 1;
    template <class P>
    static void run(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float, float* first,
                    float*) {
        P degree, inverse, wRight, wDown, wLeft, wUp, unused;
        loadPairs(&vela::at(a.diagonal, x, y), degree, inverse);
        loadPairs(&vela::at(a.weights, x, y), wRight, wDown);
        loadPairs(&vela::at(a.weights, x - 1, y), wLeft, unused);
        loadPairs(&vela::at(a.weights, x, y - 1), unused, wUp);
        float* p = &vela::at(a.p, x, y, l);
        const P here = P::load(p);
        const P neighbours = interiorNeighbourSum(wRight, P::load(p + 1), wDown, P::load(&vela::at(a.p, x, y + 1, l)),
                                                  wLeft, P::load(p - 1), wUp, P::load(&vela::at(a.p, x, y - 1, l)));
        const P value = appliedValue(degree, inverse, here, neighbours);
        value.store(&vela::at(a.q, x, y, l));
        (here * value).store(first);
    }
};

struct StepRun {
    static constexpr bool kPacked = true;
    static constexpr int kSums = 2;
    template <class P>
    static void run(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float alpha, float* first,
                    float* second) {
        float* value = &vela::at(a.x, x, y, l);
        stepped(P::load(value), alpha, P::load(&vela::at(a.p, x, y, l))).store(value);
        float* r = &vela::at(a.r, x, y, l);
        const P residual = steppedResidual(P::load(r), alpha, P::load(&vela::at(a.q, x, y, l)));
        residual.store(r);
        P degree, inverse;
        loadPairs(&vela::at(a.diagonal, x, y), degree, inverse);
        (residual * residual * inverse).store(first);
        (residual * residual).store(second);
    }
};

struct DirectionRun {
    static constexpr bool kPacked = true;
    static constexpr int kSums = 0;
    template <class P>
    static void run(const WalkerArrays& a, unsigned int x, unsigned int y, unsigned int l, float beta, float*, float*) {
        P degree, inverse;
        loadPairs(&vela::at(a.diagonal, x, y), degree, inverse);
        float* p = &vela::at(a.p, x, y, l);
        nextDirection(P::load(&vela::at(a.r, x, y, l)), inverse, beta, P::load(p)).store(p);
    }
};

// Steps without runs: their pixels one by one (they run once per solve).
struct PixelsOnly {
    static constexpr bool kPacked = false;
    static constexpr int kSums = 2;
    template <class P>
    static void run(const WalkerArrays&, unsigned int, unsigned int, unsigned int, float, float*, float*) {}
};

template <class Step>
struct RunOf {
    using type = PixelsOnly;
};
template <>
struct RunOf<ApplyStep> {
    using type = ApplyRun;
};
template <>
struct RunOf<StepStep> {
    using type = StepRun;
};
template <>
struct RunOf<DirectionStep> {
    using type = DirectionRun;
};

// Pixels x0 .. x1 - 1 (at most kChunk) of row y: the values each adds, in
// runs of Wide and then Quarter lanes where every neighbour exists, the rest
// one by one.
template <class Step, class Wide, class Quarter>
inline void chunkValues(const WalkerArrays& a, unsigned int x0, unsigned int x1, unsigned int y, unsigned int l,
                        float coefficient, float* first, float* second) {
    using Run = typename RunOf<Step>::type;
    const unsigned int w = a.x.extents.x, h = a.x.extents.y;
    unsigned int x = x0;
    auto pixel = [&] {
        const float2 v = Step{}(a, x, y, l, coefficient);
        first[x - x0] = v.x;
        second[x - x0] = v.y;
    };
    if (Run::kPacked && y > 0 && y + 1 < h) {
        if (x == 0 && x < x1) pixel(), ++x;
        for (; x + Wide::lanes <= x1 && x + Wide::lanes < w; x += Wide::lanes)
            Run::template run<Wide>(a, x, y, l, coefficient, first + (x - x0), second + (x - x0));
        for (; x + Quarter::lanes <= x1 && x + Quarter::lanes < w; x += Quarter::lanes)
            Run::template run<Quarter>(a, x, y, l, coefficient, first + (x - x0), second + (x - x0));
    }
    for (; x < x1; ++x) pixel();
}

// The sums of rows y0 .. y0 + n - 1 (n at most kRowsAtOnce) over pixels
// x0 .. x1 - 1, each in x order: the rows' sums are independent chains of
// additions, taken together so that each waits less on its own.
template <class Step, class Wide, class Quarter>
inline void rowSums(const WalkerArrays& a, unsigned int x0, unsigned int x1, unsigned int y0, unsigned int n,
                    unsigned int l, float coefficient, double* s0, double* s1) {
    using Run = typename RunOf<Step>::type;
    float first[kRowsAtOnce][kChunk], second[kRowsAtOnce][kChunk];
    double sum0[kRowsAtOnce] = {}, sum1[kRowsAtOnce] = {};
    for (unsigned int c0 = x0; c0 < x1; c0 += kChunk) {
        const unsigned int c1 = x1 - c0 > kChunk ? c0 + kChunk : x1;
        for (unsigned int k = 0; k < n; ++k)
            chunkValues<Step, Wide, Quarter>(a, c0, c1, y0 + k, l, coefficient, first[k], second[k]);
        const unsigned int m = c1 - c0;
        // A step that adds nothing to a sum gives +0 at every pixel, which
        // leaves the sum as it is.
        if (Run::kSums == 0) continue;
        if (n == kRowsAtOnce) {
            for (unsigned int i = 0; i < m; ++i)
                for (unsigned int k = 0; k < kRowsAtOnce; ++k) sum0[k] += first[k][i];
            if (Run::kSums == 2)
                for (unsigned int i = 0; i < m; ++i)
                    for (unsigned int k = 0; k < kRowsAtOnce; ++k) sum1[k] += second[k][i];
        } else {
            for (unsigned int k = 0; k < n; ++k)
                for (unsigned int i = 0; i < m; ++i) {
                    sum0[k] += first[k][i];
                    if (Run::kSums == 2) sum1[k] += second[k][i];
                }
        }
    }
    for (unsigned int k = 0; k < n; ++k) {
        s0[k] = sum0[k];
        s1[k] = sum1[k];
    }
}

// The rows in 16-byte vectors, which every host has; inlined whole, so that
// all of it is compiled for the same target.
template <class Step>
__attribute__((flatten)) void rowsBaseline(const WalkerArrays& a, unsigned int x0, unsigned int x1, unsigned int y0,
                                           unsigned int n, unsigned int l, float coefficient, double* s0, double* s1) {
    rowSums<Step, Pack<16, 4>, Pack<4, 4>>(a, x0, x1, y0, n, l, coefficient, s0, s1);
}

#if defined(__x86_64__)
// The rows in AVX vectors on hosts that have AVX2, without FMA, so that no
// product is fused into a sum and the bits stay those of the kernels.
template <class Step>
__attribute__((target("avx2"), flatten)) void rowsAvx2(const WalkerArrays& a, unsigned int x0, unsigned int x1,
                                                       unsigned int y0, unsigned int n, unsigned int l,
                                                       float coefficient, double* s0, double* s1) {
    rowSums<Step, Pack<16, 8>, Pack<4, 4>>(a, x0, x1, y0, n, l, coefficient, s0, s1);
}

bool hostHasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}
#endif

}  // namespace

template <class Step>
void hostRows(const WalkerArrays& a, unsigned int x0, unsigned int x1, unsigned int y0, unsigned int n, unsigned int l,
              float coefficient, double* first, double* second) {
#if defined(__x86_64__)
    if (hostHasAvx2()) return rowsAvx2<Step>(a, x0, x1, y0, n, l, coefficient, first, second);
#endif
    rowsBaseline<Step>(a, x0, x1, y0, n, l, coefficient, first, second);
}

#define SEG_WALKER_HOST_ROWS(Step)                                                                            \
    template void hostRows<Step>(const WalkerArrays&, unsigned int, unsigned int, unsigned int, unsigned int, \
                                 unsigned int, float, double*, double*);
SEG_WALKER_HOST_ROWS(StartStep)
SEG_WALKER_HOST_ROWS(ApplyStep)
SEG_WALKER_HOST_ROWS(StepStep)
SEG_WALKER_HOST_ROWS(DirectionStep)
SEG_WALKER_HOST_ROWS(StartOutsideStep)
SEG_WALKER_HOST_ROWS(StartFromGuessStep)
SEG_WALKER_HOST_ROWS(ResidualStep)
#undef SEG_WALKER_HOST_ROWS

}  // namespace seg::walker
