#include "src/dataterms/probability_cost.h"

#include <stdexcept>
#include <string>

#include "vela/access.h"
#include "vela/device/launch.h"

namespace {

using vela::device::Thread;

constexpr const char* kSource = "src/dataterms/probability_cost";
constexpr unsigned int kBlockX = 32, kBlockY = 8;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// A usable value: finite and positive; anything else reads as 0.
VELA_HD inline float usable(float v) { return (v > 0.0f && v <= 3.402823466e38f) ? v : 0.0f; }

// One thread per pixel, looping over its labels.  The values are divided by
// their largest before they are summed, so no sum of finite floats overflows.
struct probabilityCost_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 3> cost, vela::Array<float, 3> probabilities) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned int labels = cost.extents.z;
        if (x >= cost.extents.x || y >= cost.extents.y) return;
        float largest = 0.0f;
        for (unsigned int l = 0; l < labels; ++l) largest = fmaxf(largest, usable(vela::at(probabilities, x, y, l)));
        if (largest == 0.0f) {
            const float even = seg::probabilityCost(1.0f / static_cast<float>(labels));
            for (unsigned int l = 0; l < labels; ++l) vela::at(cost, x, y, l) = even;
            return;
        }
        float sum = 0.0f;
        for (unsigned int l = 0; l < labels; ++l) sum += usable(vela::at(probabilities, x, y, l)) / largest;
        for (unsigned int l = 0; l < labels; ++l)
            vela::at(cost, x, y, l) = seg::probabilityCost(usable(vela::at(probabilities, x, y, l)) / largest / sum);
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

void probabilitiesToCost(vela::Array<float, 3>& cost, const vela::Array<float, 3>& probabilities) {
    const uint3 e = cost.extents, p = probabilities.extents;
    if (e.x != p.x || e.y != p.y || e.z != p.z)
        throw std::invalid_argument("probabilitiesToCost: the cost map is " + std::to_string(e.x) + " x " +
                                    std::to_string(e.y) + " x " + std::to_string(e.z) + " but the probabilities are " +
                                    std::to_string(p.x) + " x " + std::to_string(p.y) + " x " + std::to_string(p.z));
    if (e.x == 0 || e.y == 0 || e.z == 0) return;
    const dim3 block(kBlockX, kBlockY);
    const dim3 grid(vela::device::blocksFor(e.x, kBlockX), vela::device::blocksFor(e.y, kBlockY));
    vela::device::launch<probabilityCost_kernel>(grid, block, nullptr, cost, probabilities);
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
}
