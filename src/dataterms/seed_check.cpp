#include "src/dataterms/seed_check.h"

#include <cmath>

#include "src/dataterms/seeds.h"
#include "src/engine_arrays.h"
#include "vela/device/launch.h"

namespace {

using vela::device::Thread;

constexpr const char* kSource = "src/dataterms/seed_check";
constexpr unsigned int kBlockX = 32, kBlockY = 8;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// One thread per pixel; only seeds do any work.
struct checkSeeds_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> checked, vela::Array<float, 2> labels,
                            vela::Array<float4, 2> image, unsigned int nLabels, int radius, float minShare,
                            float colourScale) const {
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
        for (int j = y - radius > 0 ? y - radius : 0; j <= y + radius && j < h; ++j)
            for (int i = x - radius > 0 ? x - radius : 0; i <= x + radius && i < w; ++i) {
                const int other = seg::seedOf(labels, i, j, nLabels);
                if (other < 0 || (i == x && j == y)) continue;
                const float4 d = vela::at(image, i, j);
                const float dr = (c.x - d.x) / 255.0f, dg = (c.y - d.y) / 255.0f, db = (c.z - d.z) / 255.0f;
                const float vote = expf(colourScale * (dr * dr + dg * dg + db * db));
                all += vote;
                if (other == seed) own += vote;
            }
        if (all > 0.0f && own < minShare * all) vela::at(checked, x, y) = -1.0f;
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

vela::Array<float, 2> checkSeeds(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                                 unsigned int nLabels, int radius, float minShare, float colourScale) {
    const unsigned int w = labels.extents.x, h = labels.extents.y;
    vela::ScopedArray<float, 2> checked(seg::deviceArray2D<float>(w, h));
    const dim3 block(kBlockX, kBlockY);
    const dim3 grid(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
    vela::device::launch<checkSeeds_kernel>(grid, block, nullptr, checked.a, labels, image, nLabels, radius, minShare,
                                            colourScale);
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
    const vela::Array<float, 2> result = checked.a;
    checked.a = vela::Array<float, 2>{};
    return result;
}
