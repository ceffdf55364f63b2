#include "src/dataterms/seed_check.h"

#include <cmath>

#include "src/block_sums.h"
#include "src/dataterms/seeds.h"
#include "src/engine_arrays.h"
#include "vela/algorithms/basic.h"
#include "vela/device/atomic.h"
#include "vela/device/launch.h"

namespace {

using vela::device::Thread;

constexpr const char* kSource = "src/dataterms/seed_check";
constexpr unsigned int kBlockX = 32, kBlockY = 8;
// With colour as a witness, a seed is only judged among at least this many
// others: clicks, a handful per label, are never outvoted.
constexpr int kMinVoters = 3;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// next(x, y) = the first x' >= x with a seed at (x', y), or the width: one
// thread per row, from its right end.  It lets a seed's vote skip the pixels
// of its window that seed nothing.
struct nextSeeds_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<int, 2> next, vela::Array<float, 2> labels,
                            unsigned int nLabels) const {
        const unsigned int w = labels.extents.x, y = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        if (y >= labels.extents.y) return;
        int following = static_cast<int>(w);
        for (unsigned int x = w; x-- > 0;) {
            if (seg::seedOf(labels, x, y, nLabels) >= 0) following = static_cast<int>(x);
            vela::at(next, x, y) = following;
        }
    }
};

// One thread per pixel; only seeds do any work.  The voters are taken row by
// row and, within a row, from left to right.
struct checkSeeds_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> checked, vela::Array<float, 2> labels,
                            vela::Array<int, 2> next, vela::Array<float4, 2> image, unsigned int nLabels, int radius,
                            float minShare, float colourScale, vela::Array<float, 2> fit, float minFit) const {
        const int w = static_cast<int>(labels.extents.x), h = static_cast<int>(labels.extents.y);
        const int x = static_cast<int>(t.blockIdx.x * t.blockDim.x + t.threadIdx.x);
        const int y = static_cast<int>(t.blockIdx.y * t.blockDim.y + t.threadIdx.y);
        if (x >= w || y >= h) return;
        const float value = vela::at(labels, x, y);
        vela::at(checked, x, y) = value;
        const int seed = seg::seedOf(labels, x, y, nLabels);
        if (seed < 0) return;

        const float4 c = vela::at(image, x, y);
        float own = 0.0f, all = 0.0f;
        int voters = 0;
        const int left = x - radius > 0 ? x - radius : 0, right = x + radius < w - 1 ? x + radius : w - 1;
        for (int j = y - radius > 0 ? y - radius : 0; j <= y + radius && j < h; ++j)
            for (int i = vela::at(next, left, j); i <= right; i = i + 1 < w ? vela::at(next, i + 1, j) : w) {
                if (i == x && j == y) continue;
                const int other = seg::seedOf(labels, i, j, nLabels);
                const float4 d = vela::at(image, i, j);
                const float dr = (c.x - d.x) / 255.0f, dg = (c.y - d.y) / 255.0f, db = (c.z - d.z) / 255.0f;
                const float vote = expf(colourScale * (dr * dr + dg * dg + db * db));
                all += vote;
                ++voters;
                if (other == seed) own += vote;
            }
        const bool outvoted = all > 0.0f && own < minShare * all && (fit.data == nullptr || voters >= kMinVoters);
        // Without a fit array the vote alone decides.
        const bool misfit = fit.data == nullptr || vela::at(fit, x, y) < minFit;
        if (outvoted && misfit) vela::at(checked, x, y) = -1.0f;
    }
};

// 1 at a seed, for the frame's sum.
struct SeedIndicator {
    static constexpr int N = 1;
    vela::Array<float, 2> labels;
    unsigned int nLabels;
    VELA_HD void operator()(unsigned int x, unsigned int y, unsigned int, float* values) const {
        values[0] = seg::seedOf(labels, x, y, nLabels) >= 0 ? 1.0f : 0.0f;
    }
};

// Seeds per label that the check kept.
struct countKept_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<int, 1> kept, vela::Array<float, 2> checked,
                            unsigned int nLabels) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= checked.extents.x || y >= checked.extents.y) return;
        const int l = seg::seedOf(checked, x, y, nLabels);
        if (l >= 0) vela::device::addAtomic(&vela::at(kept, static_cast<unsigned int>(l)), 1);
    }
};

// Gives back the seeds of every label the check left without any.
struct keepLastSeeds_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> checked, vela::Array<float, 2> labels,
                            vela::Array<int, 1> kept, unsigned int nLabels) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= labels.extents.x || y >= labels.extents.y) return;
        const int l = seg::seedOf(labels, x, y, nLabels);
        if (l >= 0 && vela::at(kept, static_cast<unsigned int>(l)) == 0)
            vela::at(checked, x, y) = vela::at(labels, x, y);
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

vela::ScopedArray<float, 2> checkSeeds(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                                       unsigned int nLabels, int radius, float minShare, float colourScale,
                                       const vela::Array<float, 2>& fit, float minFit) {
    const unsigned int w = labels.extents.x, h = labels.extents.y;
    vela::ScopedArray<float, 2> checked(seg::deviceArray2D<float>(w, h));
    const dim3 block(kBlockX, kBlockY);
    const dim3 grid(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
    vela::ScopedArray<int, 2> next(seg::deviceArray2D<int>(w, h));
    vela::device::launch<nextSeeds_kernel>(dim3(vela::device::blocksFor(h, kBlockX * kBlockY)), dim3(kBlockX * kBlockY),
                                           nullptr, next.a, labels, nLabels);
    vela::device::launch<checkSeeds_kernel>(grid, block, nullptr, checked.a, labels, next.a, image, nLabels, radius,
                                            minShare, colourScale, fit, minFit);
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
    if (fit.data != nullptr && nLabels > 0) {
        vela::ScopedArray<int, 1> kept(seg::deviceArray1D<int>(nLabels));
        auto whole = vela::internal::increaseArrayDimension(kept.a);
        vela::set(whole, 0, nullptr);
        vela::device::launch<countKept_kernel>(grid, block, nullptr, kept.a, checked.a, nLabels);
        vela::device::launch<keepLastSeeds_kernel>(grid, block, nullptr, checked.a, labels, kept.a, nLabels);
        vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
    }
    return checked;
}

unsigned long long countSeeds(const vela::Array<float, 2>& labels, unsigned int nLabels) {
    if (labels.extents.x == 0 || labels.extents.y == 0) return 0;
    const double n = seg::pixelSums(SeedIndicator{labels, nLabels}, labels.extents.x, labels.extents.y).of[0][0];
    return static_cast<unsigned long long>(n + 0.5);
}
