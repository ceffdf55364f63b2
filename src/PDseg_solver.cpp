// PDseg::run(): the primal-dual iteration of the five solver models, with the
// kernels of its steps.
#include <iostream>
#include <stdexcept>
#include <string>

#include "src/PDseg.h"
#include "src/block_sums.h"
#include "src/dataterms/seeds.h"
#include "src/engine_arrays.h"
#include "src/solver/edge_weights.h"
#include "src/solver/grid.h"
#include "src/solver/guided_filter.h"
#include "src/solver/host_sweeps.h"
#include "src/solver/ops.h"
#include "src/solver/steps.h"
#include "vela/algorithms/basic.h"
#include "vela/device/launch.h"

namespace seg {
namespace {

using vela::Array;
using vela::device::Thread;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// At a held pixel (label index l in `held`) label l costs nothing and every
// other label `cost`.
struct holdLabels_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> f, Array<float, 2> held, float cost) const {
        unsigned int x, y;
        if (!pixelOf(t, f.extents.x, f.extents.y, x, y)) return;
        const int own = seedOf(held, x, y, f.extents.z);
        if (own < 0) return;
        for (unsigned int l = 0; l < f.extents.z; ++l) vela::at(f, x, y, l) = static_cast<int>(l) == own ? 0.0f : cost;
    }
};

struct update_dual_kernel {
    // Model 0: projection onto the unit disc.
    VELA_HD void operator()(const Thread& t, Array<float2, 3> p, Array<float, 3> v, float sigma) const {
        unsigned int x, y;
        if (pixelOf(t, p.extents.x, p.extents.y, x, y)) dualPixel<TvForm::Isotropic, false>(p, v, sigma, {}, {}, x, y);
    }
    // Model 1: projection onto the disc of radius g.
    VELA_HD void operator()(const Thread& t, Array<float2, 3> p, Array<float, 3> v, float sigma,
                            Array<float, 2> g) const {
        unsigned int x, y;
        if (pixelOf(t, p.extents.x, p.extents.y, x, y)) dualPixel<TvForm::Isotropic, true>(p, v, sigma, g, {}, x, y);
    }
};

template <int C>
struct update_primal_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> u, Array<float, 3> ubar, Array<float, 3> f,
                            Array<float2, 3> p, float tau, float lambda) const {
        unsigned int x, y;
        if (pixelOf(t, u.extents.x, u.extents.y, x, y))
            primalPixel<C, TvForm::Isotropic>(u, ubar, f, p, {}, tau, lambda, x, y);
    }
};

struct update_dual_aniso_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 3> p, Array<float, 3> ubar, float sigma, Array<float4, 2> D,
                            Array<float, 2> g) const {
        unsigned int x, y;
        if (pixelOf(t, p.extents.x, p.extents.y, x, y))
            dualPixel<TvForm::StructureTensor, true>(p, ubar, sigma, g, D, x, y);
    }
};

template <int C>
struct update_primal_aniso_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> u, Array<float, 3> ubar, Array<float, 3> f,
                            Array<float2, 3> p, Array<float4, 2> D, float tau, float lambda) const {
        unsigned int x, y;
        if (pixelOf(t, u.extents.x, u.extents.y, x, y))
            primalPixel<C, TvForm::StructureTensor>(u, ubar, f, p, D, tau, lambda, x, y);
    }
};

struct update_dual_aniso_exp_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 3> p, Array<float, 3> ubar, float sigma,
                            Array<float4, 2> D) const {
        unsigned int x, y;
        if (pixelOf(t, p.extents.x, p.extents.y, x, y))
            dualPixel<TvForm::Reflection, false>(p, ubar, sigma, {}, D, x, y);
    }
};

template <int C>
struct update_primal_aniso_exp_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> u, Array<float, 3> ubar, Array<float, 3> f,
                            Array<float2, 3> p, Array<float4, 2> D, float tau, float lambda) const {
        unsigned int x, y;
        if (pixelOf(t, u.extents.x, u.extents.y, x, y))
            primalPixel<C, TvForm::Reflection>(u, ubar, f, p, D, tau, lambda, x, y);
    }
};

// The dual step of a fused tile's upper-row pixel, reading ū of the pixel and
// of its right and lower neighbours from the tile's shared buffer.
struct SharedDual {
    const float* ubar;  // label l, thread (tx, ty) at l * 64 + tx * 2 + ty
    unsigned int slot;  // the pixel's thread, ty = 0
    Array<float2, 3> p;
    Array<float, 2> g;
    unsigned int x, y;

    VELA_HD float here(int l) const { return ubar[l * 64 + slot]; }
    VELA_HD float right(int l) const { return ubar[l * 64 + slot + 2]; }
    VELA_HD float down(int l) const { return ubar[l * 64 + slot + 1]; }
    VELA_HD float radius() const { return vela::at(g, x, y); }
    VELA_HD void loadP(int l, float& px, float& py) const {
        const float2 q = vela::at(p, x, y, static_cast<unsigned int>(l));
        px = q.x;
        py = q.y;
    }
    VELA_HD void storeP(int l, float px, float py) const {
        vela::at(p, x, y, static_cast<unsigned int>(l)) = make_float2(px, py);
    }
};

// Model 2.  Tiles of 32 x 2 pixels overlap their right and lower neighbours by
// one column and one row.  Phase 0: every thread takes the primal step of its
// pixel (clamped into the image) and leaves ū in shared memory.  Phase 1: the
// upper row's first 31 threads take the dual step from that ū and store u, so
// each pixel is written by exactly one thread; the last column and the lower
// row only supply ū.  Up to 32 labels the buffer is the 32 x 64 floats (8192
// bytes) of the tile; more labels widen it to C x 64 floats (32 KiB at 128),
// still within a block's static shared memory.
template <int C>
struct update_fast_kernel {
    // Tiles read the dual field of the tiles above and to the left, which
    // other blocks of the same launch write.
    static constexpr vela::device::HostOrder hostOrder = vela::device::HostOrder::RowWaves;
    static constexpr int kSlots = 64;
    static constexpr int kBufferLabels = C > 32 ? C : 32;
    struct Shared {
        float ubar[kBufferLabels * kSlots];
    };
    struct Local {
        float w[C];
    };
    static constexpr int phases = 2;

    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local& local, Array<float, 3> u, Array<float, 3> f,
                            Array<float2, 3> p, Array<float, 2> g, float tau, float sigma, float lambda) const {
        const unsigned int W = u.extents.x, H = u.extents.y;
        const int L = static_cast<int>(u.extents.z);
        const unsigned int tileX = (t.blockDim.x - 1) * t.blockIdx.x + t.threadIdx.x;
        const unsigned int tileY = (t.blockDim.y - 1) * t.blockIdx.y + t.threadIdx.y;
        const unsigned int x = tileX < W ? tileX : W - 1;
        const unsigned int y = tileY < H ? tileY : H - 1;
        const unsigned int slot = t.threadIdx.x * 2 + t.threadIdx.y;
        if (phase == 0) {
            float uold[C];
            primalStep<C, float, TvForm::Isotropic>(PrimalPixel(u, f, p, {}, x, y), tau, lambda, L, local.w, uold);
            for (int l = 0; l < L; ++l) s.ubar[l * kSlots + slot] = overRelaxed(local.w[l], uold[l]);
            return;
        }
        // The clamped threads repeat an edge pixel: only the unclamped ones write.
        if (tileX >= W || tileY >= H || t.threadIdx.x + 1 >= t.blockDim.x || t.threadIdx.y != 0) return;
        dualStep<float, TvForm::Isotropic, true>(SharedDual{s.ubar, slot, p, g, x, y}, sigma, L);
        for (int l = 0; l < L; ++l) vela::at(u, x, y, static_cast<unsigned int>(l)) = local.w[l];
    }
};

// Arg-max per pixel, ties to the lower label.  A pixel without a positive value
// (impossible after a simplex projection, but NaN input would do it) gets
// label 0, so u always holds exactly one 1 per pixel.
struct binarize_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> u) const {
        unsigned int x, y;
        if (!pixelOf(t, u.extents.x, u.extents.y, x, y)) return;
        unsigned int best = 0;
        float most = 0.0f;
        for (unsigned int l = 0; l < u.extents.z; ++l) {
            float& value = vela::at(u, x, y, l);
            if (value > most) {
                most = value;
                best = l;
            }
            value = 0.0f;
        }
        vela::at(u, x, y, best) = 1.0f;
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

namespace {

HostSweep gHostSweep = HostSweep::Rows;

bool launchable(unsigned int w, unsigned int h) {
    return vela::device::validLaunchShape(pixelGrid(w, h), pixelBlock());
}

// Runs one per-pixel step over the pixels of `first`: as kernel K in 32 x 2
// blocks, or on the host backend by default as row sweeps (`rows`) of the same
// steps.  Both refuse a grid the device could not launch in the same way.
template <class K, class Rows, class T, class... Args>
void pixelStep(const Rows& rows, const Array<T, 3>& first, const Args&... rest) {
    auto kernel = [&] {
        vela::device::launch<K>(pixelGrid(first.extents.x, first.extents.y), pixelBlock(), nullptr, first, rest...);
    };
    auto sweep = [&] {
        if (gHostSweep != HostSweep::Rows)
            kernel();
        else if (launchable(first.extents.x, first.extents.y))
            rows();
        else
            vela::device::setLastError(cudaErrorInvalidConfiguration);
    };
    vela::device::hostOrDevice(sweep, kernel);
}

int labelsOf(const Array<float, 3>& u) {
    const int L = static_cast<int>(u.extents.z);
    checkLabelCount(L, kMaxLabels, "the solver");
    return L;
}

}  // namespace

void setHostSweep(HostSweep sweep) { gHostSweep = sweep; }
HostSweep hostSweep() { return gHostSweep; }

void update_dual(const Array<float2, 3>& p, const Array<float, 3>& v, float sigma) {
    pixelStep<update_dual_kernel>([&] { host::updateDual(p, v, sigma); }, p, v, sigma);
}

void update_dual(const Array<float2, 3>& p, const Array<float, 3>& v, float sigma, const Array<float, 2>& g) {
    pixelStep<update_dual_kernel>([&] { host::updateDual(p, v, sigma, g); }, p, v, sigma, g);
}

void update_primal(const Array<float, 3>& u, const Array<float, 3>& ubar, const Array<float, 3>& f,
                   const Array<float2, 3>& p, float tau, float lambda) {
    withLabelCapacity(labelsOf(u), [&](auto capacity) {
        pixelStep<update_primal_kernel<capacity.value>>([&] { host::updatePrimal(u, ubar, f, p, tau, lambda); }, u,
                                                        ubar, f, p, tau, lambda);
    });
}

void update_dual_aniso(const Array<float2, 3>& p, const Array<float, 3>& ubar, float sigma, const Array<float4, 2>& D,
                       const Array<float, 2>& g) {
    pixelStep<update_dual_aniso_kernel>([&] { host::updateDualAniso(p, ubar, sigma, D, g); }, p, ubar, sigma, D, g);
}

void update_primal_aniso(const Array<float, 3>& u, const Array<float, 3>& ubar, const Array<float, 3>& f,
                         const Array<float2, 3>& p, const Array<float4, 2>& D, float tau, float lambda) {
    withLabelCapacity(labelsOf(u), [&](auto capacity) {
        pixelStep<update_primal_aniso_kernel<capacity.value>>(
            [&] { host::updatePrimalAniso(u, ubar, f, p, D, tau, lambda); }, u, ubar, f, p, D, tau, lambda);
    });
}

void update_dual_aniso_exp(const Array<float2, 3>& p, const Array<float, 3>& ubar, float sigma,
                           const Array<float4, 2>& D) {
    pixelStep<update_dual_aniso_exp_kernel>([&] { host::updateDualAnisoExp(p, ubar, sigma, D); }, p, ubar, sigma, D);
}

void update_primal_aniso_exp(const Array<float, 3>& u, const Array<float, 3>& ubar, const Array<float, 3>& f,
                             const Array<float2, 3>& p, const Array<float4, 2>& D, float tau, float lambda) {
    withLabelCapacity(labelsOf(u), [&](auto capacity) {
        pixelStep<update_primal_aniso_exp_kernel<capacity.value>>(
            [&] { host::updatePrimalAnisoExp(u, ubar, f, p, D, tau, lambda); }, u, ubar, f, p, D, tau, lambda);
    });
}

namespace {
// A whole iteration as one pass of the host's row sweeps where they apply;
// otherwise (and for a grid the device could not launch, which the steps
// refuse) its two steps.
template <class Rows, class Steps>
void iteration(const Array<float, 3>& u, const Rows& rows, const Steps& steps) {
    labelsOf(u);
    vela::device::hostOrDevice(
        [&] {
            if (gHostSweep == HostSweep::Rows && launchable(u.extents.x, u.extents.y))
                rows();
            else
                steps();
        },
        steps);
}
}  // namespace

void tv_iteration(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
                  const Array<float, 3>& f, float sigma, float tau, float lambda) {
    iteration(
        u, [&] { host::iterateTv(p, u, ubar, f, sigma, tau, lambda); },
        [&] {
            update_dual(p, u, sigma);
            update_primal(u, ubar, f, p, tau, lambda);
        });
}

void weighted_tv_iteration(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
                           const Array<float, 3>& f, const Array<float, 2>& g, float sigma, float tau, float lambda) {
    iteration(
        u, [&] { host::iterateWeightedTv(p, u, ubar, f, g, sigma, tau, lambda); },
        [&] {
            update_dual(p, ubar, sigma, g);
            update_primal(u, ubar, f, p, tau, lambda);
        });
}

void aniso_iteration(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
                     const Array<float, 3>& f, const Array<float4, 2>& D, const Array<float, 2>& g, float sigma,
                     float tau, float lambda) {
    iteration(
        u, [&] { host::iterateAniso(p, u, ubar, f, D, g, sigma, tau, lambda); },
        [&] {
            update_dual_aniso(p, ubar, sigma, D, g);
            update_primal_aniso(u, ubar, f, p, D, tau, lambda);
        });
}

void aniso_exp_iteration(const Array<float2, 3>& p, const Array<float, 3>& u, const Array<float, 3>& ubar,
                         const Array<float, 3>& f, const Array<float4, 2>& D, float sigma, float tau, float lambda) {
    iteration(
        u, [&] { host::iterateAnisoExp(p, u, ubar, f, D, sigma, tau, lambda); },
        [&] {
            update_dual_aniso_exp(p, ubar, sigma, D);
            update_primal_aniso_exp(u, ubar, f, p, D, tau, lambda);
        });
}

void update_fast(const Array<float, 3>& u, const Array<float, 3>& f, const Array<float2, 3>& p,
                 const Array<float, 2>& g, float tau, float sigma, float lambda) {
    // Tiles advance by 31 columns and 1 row: they overlap by one of each.
    const dim3 grid(vela::device::blocksFor(u.extents.x, kPixelBlockX - 1), u.extents.y);
    withLabelCapacity(labelsOf(u), [&](auto capacity) {
        vela::device::launch<update_fast_kernel<capacity.value>>(grid, pixelBlock(), nullptr, u, f, p, g, tau, sigma,
                                                                 lambda);
    });
}

void holdLabels(const Array<float, 3>& f, const Array<float, 2>& held, float cost) {
    vela::device::launch<holdLabels_kernel>(pixelGrid(f.extents.x, f.extents.y), pixelBlock(), nullptr, f, held, cost);
}

void binarize(const Array<float, 3>& u) {
    vela::device::launch<binarize_kernel>(pixelGrid(u.extents.x, u.extents.y), pixelBlock(), nullptr, u);
}

}  // namespace seg

// ---------------------------------------------------------------------------
// PDseg::run()
// ---------------------------------------------------------------------------

namespace {

constexpr const char* kSource = "src/PDseg";
// Lines reported by the device error checks of run().
constexpr int kLineAfterWeights = 1236;
constexpr int kLineAfterLoop = 1262;
constexpr int kLineAfterBinarize = 1271;

// tau * lambda * cost of a held pixel's other labels: a primal step that takes
// them below any boundary's pull (the divergence of the dual field), so that
// the simplex projection leaves the held label alone at 1.
constexpr float kHeldStep = 1e6f;

// 1/255 in every component: the image in [0, 1].
constexpr float kByteScale = 0.0039215689f;

// Arrays of run() must cover the same pixels (and, for label arrays, labels).
template <class A, class B>
void requireSameSize(const char* what, const A& a, const B& b) {
    bool same = a.extents.x == b.extents.x && a.extents.y == b.extents.y;
    if constexpr (A::dimensions == 3 && B::dimensions == 3) same = same && a.extents.z == b.extents.z;
    if (!same) throw std::runtime_error(std::string("PDseg::run(): ") + what + " differ in size");
}

template <class T, int N>
void fill(vela::Array<T, N>& a, T value) {
    auto whole = vela::internal::increaseArrayDimension(a);
    vela::set(whole, value, nullptr);
}

// How often the tolerance is checked: each check waits for the device.
constexpr int kCheckEvery = 10;

// sum_l |ū - u| at a pixel: after an iteration, the change it made to the
// relaxed labelling (ū = 2 u - u_before).
struct LabellingChange {
    static constexpr int N = 1;
    vela::Array<float, 3> u, ubar;
    VELA_HD void operator()(unsigned int x, unsigned int y, unsigned int, float* values) const {
        float change = 0.0f;
        for (unsigned int l = 0; l < u.extents.z; ++l) change += fabsf(vela::at(ubar, x, y, l) - vela::at(u, x, y, l));
        values[0] = change;
    }
};

// The loop count rule: N = (float)nIterations iterations, counted in float;
// with a tolerance > 0, fewer once the labelling has settled.  Returns the
// iterations run.
template <class Body>
int iterate(float n, float tolerance, const vela::Array<float, 3>& u, const vela::Array<float, 3>& ubar,
            const Body& body) {
    const double pixels = static_cast<double>(u.extents.x) * u.extents.y;
    int i = 0;
    while (n > static_cast<float>(i)) {
        body();
        ++i;
        if (tolerance > 0.0f && i % kCheckEvery == 0 &&
            seg::pixelSums(LabellingChange{u, ubar}, u.extents.x, u.extents.y).of[0][0] < tolerance * pixels)
            break;
    }
    return i;
}

}  // namespace

void PDseg::run() {
    if (nLabels < 0) {
        std::cerr << "ERROR: PDseg::run(): No cost map is given" << std::endl;
        return;
    }
    if (u.data == nullptr || costMap.data == nullptr || uResult.data == nullptr) {
        std::cerr << "ERROR: PDseg::run(): the cost map has no labels" << std::endl;
        return;
    }
    const unsigned int W = u.extents.x, H = u.extents.y;
    const int L = static_cast<int>(u.extents.z);
    seg::checkLabelCount(L, seg::kMaxLabels, "the solver");
    requireSameSize("cost map and labelling", costMap, u);
    requireSameSize("relaxed and hard labelling", uResult, u);
    requireSameSize("image and labelling", image, u);

    // Working arrays; released on every way out.
    seg::ScopedArray<float4, 2> scaled = seg::deviceCopy(image);
    auto scaled4 = vela::internal::increaseArrayDimension(scaled.a);
    vela::mul(scaled4, make_float4(kByteScale, kByteScale, kByteScale, kByteScale), nullptr);
    // The member keeps the weights after run(); a previous run's are replaced.
    vela::freeArray(g);
    g = seg::deviceArray2D<float>(W, H);
    seg::ScopedArray<float, 3> ubar(seg::deviceArray3D<float>(W, H, L));
    seg::ScopedArray<float2, 3> p(seg::deviceArray3D<float2>(W, H, L));
    auto fits = [&](const auto& a) {
        return a.data != nullptr && a.extents.x == W && a.extents.y == H && a.extents.z == u.extents.z;
    };
    if (fits(startU.a)) {
        vela::arrayCopy(u, startU.a);
        vela::arrayCopy(ubar.a, startU.a);
    } else {
        fill(u, 1.0f / static_cast<float>(L));
        fill(ubar.a, 0.0f);
    }
    if (fits(startDual.a))
        vela::arrayCopy(p.a, startDual.a);
    else
        fill(p.a, make_float2(0.0f, 0.0f));

    setAlgorithmParameter(model);
    const float stepTau = tau, stepSigma = sigma, weight = lambda;
    const float n = static_cast<float>(nIterations);

    // The costs the iteration reads: the member's, or their smoothed copy;
    // the costs after the filter are added and held labels imposed after the
    // smoothing, on a copy.
    seg::ScopedArray<float, 3> working;
    if (filterRadius > 0) {
        working.a = seg::deviceArray3D<float>(W, H, static_cast<unsigned int>(L));
        seg::guidedFilter(working.a, costMap, scaled.a, filterRadius, filterEpsilon);
    }
    if (!costsAfterFilter.empty()) {
        requireSameSize("costs after the filter and labelling", costsAfterFilter.a, u);
        if (working.empty()) working = seg::deviceCopy(costMap);
        vela::Array<float, 4> sum = vela::internal::increaseArrayDimension(working.a);
        vela::add(sum, vela::internal::increaseArrayDimension(costsAfterFilter.a));
    }
    if (!heldLabels.empty() && weight > 0.0f) {
        requireSameSize("held labels and labelling", heldLabels.a, u);
        if (working.empty()) working = seg::deviceCopy(costMap);
        seg::holdLabels(working.a, heldLabels.a, kHeldStep / (stepTau * weight));
    }
    const vela::Array<float, 3>& costs = working.empty() ? costMap : working.a;

    switch (model) {
        case TV:
            // Unweighted; g stays 1 for whoever reads the member.  The dual step
            // reads u itself: ū is written and never read, by design.
            fill(g, 1.0f);
            vela::_CHECK_CUDA_ERROR(kSource, kLineAfterWeights);
            iterationsDone = iterate(n, tolerance, u, ubar.a,
                                     [&] { seg::tv_iteration(p.a, u, ubar.a, costs, stepSigma, stepTau, weight); });
            break;
        case WEIGHTED_TV:
        case WEIGHTED_TV_FAST:
            if (model == WEIGHTED_TV && edgeWeights == CONTRAST_EDGES) {
                // The reflection form's steps with a diagonal tensor are the
                // gradient weighted per edge and its adjoint.
                seg::ScopedArray<float4, 2> D(seg::deviceArray2D<float4>(W, H));
                seg::contrastEdgeWeights(D.a, scaled.a);
                fill(g, 1.0f);
                vela::_CHECK_CUDA_ERROR(kSource, kLineAfterWeights);
                iterationsDone = iterate(n, tolerance, u, ubar.a, [&] {
                    seg::aniso_exp_iteration(p.a, u, ubar.a, costs, D.a, stepSigma, stepTau, weight);
                });
                break;
            }
            if (diffusivityType == 0)
                seg::imageDiffusivity_STD(g, scaled.a);
            else if (diffusivityType == 1)
                seg::imageDiffusivity_EXP(g, scaled.a, alpha);
            else
                fill(g, 1.0f);  // no such diffusivity: plain weights rather than undefined ones
            vela::_CHECK_CUDA_ERROR(kSource, kLineAfterWeights);
            if (model == WEIGHTED_TV) {
                iterationsDone = iterate(n, tolerance, u, ubar.a, [&] {
                    seg::weighted_tv_iteration(p.a, u, ubar.a, costs, g, stepSigma, stepTau, weight);
                });
            } else {
                // No over-relaxed field to measure: every iteration runs.
                iterationsDone = iterate(n, 0.0f, u, ubar.a,
                                         [&] { seg::update_fast(u, costs, p.a, g, stepTau, stepSigma, weight); });
            }
            break;
        case ANISOTROPIC_TV: {
            seg::ScopedArray<float2, 2> gradient(seg::deviceArray2D<float2>(W, H));
            seg::ScopedArray<float4, 2> D(seg::deviceArray2D<float4>(W, H));
            seg::imageGradient(gradient.a, scaled.a);
            seg::saveGradient(gradient.a, 0.1f, "imageGradient.ppm");
            seg::compute_Diffusion_tensor(D.a, scaled.a, g);
            vela::_CHECK_CUDA_ERROR(kSource, kLineAfterWeights);
            iterationsDone = iterate(n, tolerance, u, ubar.a, [&] {
                seg::aniso_iteration(p.a, u, ubar.a, costs, D.a, g, stepSigma, stepTau, weight);
            });
            break;
        }
        case ANISOTROPIC_EXP_TV: {
            seg::ScopedArray<float2, 2> gradient(seg::deviceArray2D<float2>(W, H));
            seg::ScopedArray<float4, 2> D(seg::deviceArray2D<float4>(W, H));
            seg::imageGradient(gradient.a, scaled.a);
            seg::saveGradient(gradient.a, 0.1f, "imageGradient.ppm");
            seg::compute_Diffusion_tensor_exp(D.a, gradient.a);
            fill(g, 1.0f);  // this model has no edge weights
            vela::_CHECK_CUDA_ERROR(kSource, kLineAfterWeights);
            iterationsDone = iterate(n, tolerance, u, ubar.a, [&] {
                seg::aniso_exp_iteration(p.a, u, ubar.a, costs, D.a, stepSigma, stepTau, weight);
            });
            break;
        }
    }
    vela::_CHECK_CUDA_ERROR(kSource, kLineAfterLoop);

    vela::arrayCopy(uResult, u);
    seg::binarize(u);
    vela::_CHECK_CUDA_ERROR(kSource, kLineAfterBinarize);
    if (keepDual) dual = std::move(p);
}
