#include "src/solver/host_sweeps.h"

#include "src/solver/pack.h"
#include "src/solver/steps.h"

#if defined(_OPENMP)
#include <omp.h>
#define SEG_PRAGMA_OMP(text) _Pragma(#text)
#else
#define SEG_PRAGMA_OMP(text)
#endif

namespace seg::host {
namespace {

using vela::Array;

float* floatsAt(const Array<float, 3>& a, unsigned int x, unsigned int y, int l) {
    return &vela::at(a, x, y, static_cast<unsigned int>(l));
}

// ---------------------------------------------------------------------------
// Accessors for N interior pixels x .. x+N-1 of row y: 1 <= x and x+N <= W-1,
// so every neighbour exists and no column border rule applies.
// ---------------------------------------------------------------------------

template <class P>
struct DualRun {
    const Array<float2, 3>& p;
    const Array<float, 3>& v;
    const Array<float, 2>& g;
    const Array<float4, 2>& D;
    unsigned int x, y, yd;

    P here(int l) const { return P::load(floatsAt(v, x, y, l)); }
    P right(int l) const { return P::load(floatsAt(v, x + 1, y, l)); }
    P down(int l) const { return P::load(floatsAt(v, x, yd, l)); }
    P radius() const { return P::load(&vela::at(g, x, y)); }
    Quad<P> tensor() const {
        Quad<P> q;
        loadQuads(&vela::at(D, x, y), q.a, q.b, q.c, q.d);
        return q;
    }
    void loadP(int l, P& px, P& py) const { loadPairs(&vela::at(p, x, y, static_cast<unsigned int>(l)), px, py); }
    void storeP(int l, const P& px, const P& py) const {
        storePairs(&vela::at(p, x, y, static_cast<unsigned int>(l)), px, py);
    }
};

template <class P>
struct PrimalRun {
    const Array<float, 3>& u;
    const Array<float, 3>& f;
    const Array<float2, 3>& p;
    const Array<float4, 2>& D;
    unsigned int x, y, yu;
    bool zeroHereX, zeroHereY, zeroLeft, zeroUp;

    P loadU(int l) const { return P::load(floatsAt(u, x, y, l)); }
    P loadF(int l) const { return P::load(floatsAt(f, x, y, l)); }
    void loadP(int l, P& px, P& py) const { pairs(x, y, l, px, py); }
    void loadPLeft(int l, P& px, P& py) const { pairs(x - 1, y, l, px, py); }
    void loadPUp(int l, P& px, P& py) const { pairs(x, yu, l, px, py); }
    void tensors(Quad<P>& here, Quad<P>& left, Quad<P>& up) const {
        loadQuads(&vela::at(D, x, y), here.a, here.b, here.c, here.d);
        loadQuads(&vela::at(D, x - 1, y), left.a, left.b, left.c, left.d);
        loadQuads(&vela::at(D, x, yu), up.a, up.b, up.c, up.d);
    }

 private:
    void pairs(unsigned int px0, unsigned int row, int l, P& px, P& py) const {
        loadPairs(&vela::at(p, px0, row, static_cast<unsigned int>(l)), px, py);
    }
};

// ---------------------------------------------------------------------------
// Sweeps: one step over every pixel of a row, interior in packs.
// ---------------------------------------------------------------------------

template <TvForm F, bool Weighted>
struct DualSweep {
    Array<float2, 3> p;
    Array<float, 3> v;
    float sigma;
    Array<float, 2> g;
    Array<float4, 2> D;

    void pixel(unsigned int x, unsigned int y) const { dualPixel<F, Weighted>(p, v, sigma, g, D, x, y); }
    template <class P>
    void pack(unsigned int x, unsigned int y) const {
        const unsigned int yd = y + 1 < v.extents.y ? y + 1 : y;
        dualStep<P, F, Weighted>(DualRun<P>{p, v, g, D, x, y, yd}, sigma, static_cast<int>(p.extents.z));
    }
};

template <int C, TvForm F>
struct PrimalSweep {
    Array<float, 3> u;
    Array<float, 3> ubar;
    Array<float, 3> f;
    Array<float2, 3> p;
    Array<float4, 2> D;
    float tau, lambda;

    void pixel(unsigned int x, unsigned int y) const { primalPixel<C, F>(u, ubar, f, p, D, tau, lambda, x, y); }
    template <class P>
    void pack(unsigned int x, unsigned int y) const {
        const int L = static_cast<int>(u.extents.z);
        const unsigned int yu = y == 0 ? 0 : y - 1;
        const bool zeroHereY = y + 1 == u.extents.y && y != 0;
        P w[C], uold[C];
        primalStep<C, P, F>(PrimalRun<P>{u, f, p, D, x, y, yu, false, zeroHereY, false, y == 0}, tau, lambda, L, w,
                            uold);
        for (int l = 0; l < L; ++l) {
            w[l].store(floatsAt(u, x, y, l));
            overRelaxed(w[l], uold[l]).store(floatsAt(ubar, x, y, l));
        }
    }
};

// One row: the first and the last pixels one by one, the interior in packs of
// Wide lanes, then at most one of Half and one of Quarter lanes.
template <class Wide, class Half, class Quarter, class Sweep>
inline void sweepRow(const Sweep& s, unsigned int y, unsigned int W) {
    s.pixel(0, y);
    unsigned int x = 1;
    for (; x + Wide::lanes < W; x += Wide::lanes) s.template pack<Wide>(x, y);
    if (x + Half::lanes < W) {
        s.template pack<Half>(x, y);
        x += Half::lanes;
    }
    if (x + Quarter::lanes < W) {
        s.template pack<Quarter>(x, y);
        x += Quarter::lanes;
    }
    for (; x < W; ++x) s.pixel(x, y);
}

// The row in 16-byte vectors, which every host has.  Everything the row calls
// is inlined into it, so that it is all compiled for the same target.
template <class Sweep>
__attribute__((flatten)) void sweepRowBaseline(const Sweep& s, unsigned int y, unsigned int W) {
    sweepRow<Pack<16, 4>, Pack<8, 4>, Pack<4, 4>>(s, y, W);
}

#if defined(__x86_64__)
// The row in AVX vectors, on hosts that have AVX2.  Without FMA, so no
// product is fused into a sum and the bits stay those of the kernels; and
// inlined whole, so no AVX code escapes into functions other callers share.
template <class Sweep>
__attribute__((target("avx2"), flatten)) void sweepRowAvx2(const Sweep& s, unsigned int y, unsigned int W) {
    sweepRow<Pack<16, 8>, Pack<8, 8>, Pack<4, 4>>(s, y, W);
}

bool hostHasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2");
    return has;
}
#endif

template <class Sweep>
void sweepRow(const Sweep& s, unsigned int y, unsigned int W) {
#if defined(__x86_64__)
    if (hostHasAvx2()) return sweepRowAvx2(s, y, W);
#endif
    sweepRowBaseline(s, y, W);
}

// One step over the image.  Each pixel's step reads only values the sweep
// does not write (or its own), so the split into packs and threads cannot
// change a result.  Threads take contiguous bands of rows.
template <class Sweep>
void sweepRows(unsigned int W, unsigned int H, const Sweep& s) {
    const long long rows = H;
    SEG_PRAGMA_OMP(omp parallel for schedule(static))
    for (long long row = 0; row < rows; ++row) sweepRow(s, static_cast<unsigned int>(row), W);
}

// One iteration, the dual step and then the primal step, in one pass over the
// rows.  The dual step of row y reads v (u or ū) of rows y and y + 1, which the
// primal steps of those rows overwrite; the primal step of row y reads p of
// rows y - 1 and y, which their dual steps write.  Going down a band of rows,
// dual(y) then primal(y) meets both orders, except at the band's ends: its
// last row's dual step needs v of the next band's first row before that
// band's primal step overwrites it, and the next band's first primal step
// needs that dual step's p.  So every thread first takes the dual step of its
// band's last row, all wait, and then each sweeps its band.  Every step sees
// exactly the values of the two-pass order; p stays in cache between its
// writing and its reading, and each array crosses memory once per iteration.
template <class Dual, class Primal>
void sweepIteration(unsigned int W, unsigned int H, const Dual& dual, const Primal& primal) {
    SEG_PRAGMA_OMP(omp parallel) {
        unsigned long long threads = 1, me = 0;
#if defined(_OPENMP)
        threads = static_cast<unsigned long long>(omp_get_num_threads());
        me = static_cast<unsigned long long>(omp_get_thread_num());
#endif
        const unsigned int first = static_cast<unsigned int>(H * me / threads);
        const unsigned int end = static_cast<unsigned int>(H * (me + 1) / threads);
        if (first < end) sweepRow(dual, end - 1, W);
        SEG_PRAGMA_OMP(omp barrier)
        for (unsigned int y = first; y < end; ++y) {
            if (y + 1 < end) sweepRow(dual, y, W);
            sweepRow(primal, y, W);
        }
    }
}

template <TvForm F, bool Weighted>
void iteration(const Array<float2, 3>& p, const Array<float, 3>& v, const Array<float, 3>& u,
               const Array<float, 3>& ubar, const Array<float, 3>& f, const Array<float, 2>& g,
               const Array<float4, 2>& D, float sigma, float tau, float lambda) {
    withLabelCapacity(static_cast<int>(u.extents.z), [&](auto capacity) {
        sweepIteration(u.extents.x, u.extents.y, DualSweep<F, Weighted>{p, v, sigma, g, D},
                       PrimalSweep<capacity.value, F>{u, ubar, f, p, D, tau, lambda});
    });
}

template <TvForm F, bool Weighted>
void dual(const Array<float2, 3>& p, const Array<float, 3>& v, float sigma, const Array<float, 2>& g,
          const Array<float4, 2>& D) {
    sweepRows(p.extents.x, p.extents.y, DualSweep<F, Weighted>{p, v, sigma, g, D});
}

template <TvForm F>
void primal(const Array<float, 3>& u, const Array<float, 3>& ubar, const Array<float, 3>& f, const Array<float2, 3>& p,
            const Array<float4, 2>& D, float tau, float lambda) {
    withLabelCapacity(static_cast<int>(u.extents.z), [&](auto capacity) {
        sweepRows(u.extents.x, u.extents.y, PrimalSweep<capacity.value, F>{u, ubar, f, p, D, tau, lambda});
    });
}

}  // namespace

void updateDual(const Array<float2, 3>& p, const Array<float, 3>& v, float sigma) {
    dual<TvForm::Isotropic, false>(p, v, sigma, {}, {});
}

void updateDual(const Array<float2, 3>& p, const Array<float, 3>& v, float sigma, const Array<float, 2>& g) {
    dual<TvForm::Isotropic, true>(p, v, sigma, g, {});
}

void updatePrimal(const Array<float, 3>& u, const Array<float, 3>& ubar, const Array<float, 3>& f,
                  const Array<float2, 3>& p, float tau, float lambda) {
    primal<TvForm::Isotropic>(u, ubar, f, p, {}, tau, lambda);
}

void updateDualAniso(const Array<float2, 3>& p, const Array<float, 3>& ubar, float sigma, const Array<float4, 2>& D,
                     const Array<float, 2>& g) {
    dual<TvForm::StructureTensor, true>(p, ubar, sigma, g, D);
}

void updatePrimalAniso(const Array<float, 3>& u, const Array<float, 3>& ubar, const Array<float, 3>& f,
                       const Array<float2, 3>& p, const Array<float4, 2>& D, float tau, float lambda) {
    primal<TvForm::StructureTensor>(u, ubar, f, p, D, tau, lambda);
}

void updateDualAnisoExp(const Array<float2, 3>& p, const Array<float, 3>& ubar, float sigma,
                        const Array<float4, 2>& D) {
    dual<TvForm::Reflection, false>(p, ubar, sigma, {}, D);
}

void updatePrimalAnisoExp(const Array<float, 3>& u, const Array<float, 3>& ubar, const Array<float, 3>& f,
                          const Array<float2, 3>& p, const Array<float4, 2>& D, float tau, float lambda) {
    primal<TvForm::Reflection>(u, ubar, f, p, D, tau, lambda);
}

void iterateTv(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
               const Array<float, 3>& f, float sigma, float tau, float lambda) {
    iteration<TvForm::Isotropic, false>(p, u, u, ubar, f, {}, {}, sigma, tau, lambda);
}

void iterateWeightedTv(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
                       const Array<float, 3>& f, const Array<float, 2>& g, float sigma, float tau, float lambda) {
    iteration<TvForm::Isotropic, true>(p, ubar, u, ubar, f, g, {}, sigma, tau, lambda);
}

void iterateAniso(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
                  const Array<float, 3>& f, const Array<float4, 2>& D, const Array<float, 2>& g, float sigma, float tau,
                  float lambda) {
    iteration<TvForm::StructureTensor, true>(p, ubar, u, ubar, f, g, D, sigma, tau, lambda);
}

void iterateAnisoExp(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
                     const Array<float, 3>& f, const Array<float4, 2>& D, float sigma, float tau, float lambda) {
    iteration<TvForm::Reflection, false>(p, ubar, u, ubar, f, {}, D, sigma, tau, lambda);
}

}  // namespace seg::host
