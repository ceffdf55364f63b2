#include "src/dataterms/walker_region.h"

#include <cmath>

#include "src/dataterms/seeds.h"
#include "src/engine_arrays.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace seg {
namespace {

using vela::device::Thread;

constexpr seg::DeviceCheck check{"src/dataterms/walker_region"};
constexpr unsigned int kBlockX = 32, kBlockY = 8;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// The most probable label of the guess at (x, y) (the first of equals) and
// its probability.
VELA_HD inline unsigned int mostProbable(const vela::Array<float, 3>& guess, unsigned int x, unsigned int y,
                                         float& probability) {
    unsigned int best = 0;
    probability = vela::at(guess, x, y, 0u);
    for (unsigned int l = 1; l < guess.extents.z; ++l) {
        const float v = vela::at(guess, x, y, l);
        if (v > probability) {
            probability = v;
            best = l;
        }
    }
    return best;
}

struct markUnsettled_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> marks, vela::Array<float, 3> guess,
                            vela::Array<float, 2> labels, vela::Array<float, 2> changed) const {
        const unsigned int w = marks.extents.x, h = marks.extents.y;
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= w || y >= h) return;
        float probability = 0.0f, other = 0.0f;
        const unsigned int label = mostProbable(guess, x, y, probability);
        const int seed = seedOf(labels, x, y, guess.extents.z);
        bool unsettled = probability < kSettledProbability || (seed >= 0 && seed != static_cast<int>(label)) ||
                         (changed.data != nullptr && vela::at(changed, x, y) != 0.0f);
        if (x + 1 < w) unsettled = unsettled || mostProbable(guess, x + 1, y, other) != label;
        if (y + 1 < h) unsettled = unsettled || mostProbable(guess, x, y + 1, other) != label;
        vela::at(marks, x, y) = unsettled ? 1.0f : 0.0f;
    }
};

// out = the largest value of `in` within `radius` along x (or y).
struct spreadMarks_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> out, vela::Array<float, 2> in, int radius,
                            int alongY) const {
        const int w = static_cast<int>(in.extents.x), h = static_cast<int>(in.extents.y);
        const int x = static_cast<int>(t.blockIdx.x * t.blockDim.x + t.threadIdx.x);
        const int y = static_cast<int>(t.blockIdx.y * t.blockDim.y + t.threadIdx.y);
        if (x >= w || y >= h) return;
        float most = 0.0f;
        for (int d = -radius; d <= radius; ++d) {
            const int i = alongY ? x : x + d, j = alongY ? y + d : y;
            if (i < 0 || j < 0 || i >= w || j >= h) continue;
            most = fmaxf(most, vela::at(in, i, j));
        }
        vela::at(out, x, y) = most;
    }
};

}  // namespace

void markFreePixels(vela::Array<float, 2>& free, const vela::Array<float, 3>& guess,
                    const vela::Array<float, 2>& labels, const vela::Array<float, 2>& changed, unsigned int radius) {
    const unsigned int w = free.extents.x, h = free.extents.y;
    const dim3 block(kBlockX, kBlockY);
    const dim3 grid(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
    ScopedArray<float, 2> marks(deviceArray2D<float>(w, h));
    vela::device::launch<markUnsettled_kernel>(grid, block, nullptr, free, guess, labels, changed);
    check(__LINE__);
    vela::device::launch<spreadMarks_kernel>(grid, block, nullptr, marks.a, free, static_cast<int>(radius), 0);
    check(__LINE__);
    vela::device::launch<spreadMarks_kernel>(grid, block, nullptr, free, marks.a, static_cast<int>(radius), 1);
    check(__LINE__);
}

}  // namespace seg
