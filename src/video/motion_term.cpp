#include "src/video/motion_term.h"

#include <stdexcept>

#include "src/block_sums.h"
#include "src/dataterms/seeds.h"
#include "src/engine_arrays.h"
#include "src/video/motion_cells.h"
#include "vela/device/launch.h"

namespace video {
namespace {

using vela::Array;
using vela::device::Thread;

constexpr const char* kSource = "src/video/motion_term";
constexpr unsigned int kBlockX = 32, kBlockY = 8;
// A label's motion counts where its points' weights (src/video/motion_cells.h)
// sum to at least this: about one track within 12 px.
constexpr float kTrustedReach = 1.0f;
// The best motion must bring the pixel's colour within this (mean per channel,
// 0 to 255), or no label explains the pixel and the term is silent.
constexpr float kExplained = 10.0f;
// The 3 x 3 patches around the pixel and around the best motion's origin must
// both vary by at least this (mean absolute deviation per channel), or the
// colour that motion brings is no evidence: in a flat region every motion
// brings it.
constexpr float kTextured = 5.0f;
// A label whose motion brings the colour this much worse than the best costs
// the full weight.
constexpr float kFullDifference = 30.0f;

// Mean absolute deviation per channel of the 3 x 3 patch around (x, y),
// clamped at the border.
VELA_HD inline float patchVariation(const Array<float4, 2>& image, unsigned int x, unsigned int y) {
    const int w = static_cast<int>(image.extents.x), h = static_cast<int>(image.extents.y);
    auto clamped = [](int v, int n) { return static_cast<unsigned int>(v < 0 ? 0 : (v >= n ? n - 1 : v)); };
    auto at = [&](int dx, int dy) {
        return vela::at(image, clamped(static_cast<int>(x) + dx, w), clamped(static_cast<int>(y) + dy, h));
    };
    float mx = 0.0f, my = 0.0f, mz = 0.0f;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            const float4 c = at(dx, dy);
            mx += c.x;
            my += c.y;
            mz += c.z;
        }
    mx /= 9.0f;
    my /= 9.0f;
    mz /= 9.0f;
    float deviation = 0.0f;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            const float4 c = at(dx, dy);
            deviation += fabsf(c.x - mx) + fabsf(c.y - my) + fabsf(c.z - mz);
        }
    return deviation / 27.0f;
}

// Layer layerOf(k) of `cells` holds label k's motion (-1: none).
struct motionCost_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> cost, Array<float4, 3> cells, Array<int, 1> layerOf,
                            Array<float4, 2> image, Array<float4, 2> previous, Array<float, 2> labels,
                            float weight) const {
        const seg::GridPixel p(t, cost.extents.x, cost.extents.y);
        if (!p.inside) return;
        const unsigned int n = cost.extents.z;
        if (seg::seedOf(labels, p.x, p.y, n) >= 0) return;
        // The colour difference under label k's motion, or false where that
        // motion is not to be trusted or leads outside the frame.
        auto difference = [&](unsigned int k, float& d) {
            const int layer = vela::at(layerOf, k);
            if (layer < 0) return false;
            const float4 m = cellsAt(cells, static_cast<unsigned int>(layer), p.x, p.y);
            return m.z >= kTrustedReach && originDifference(image, previous, p.x, p.y, make_float2(m.x, m.y), d);
        };
        float best = kExplained;
        int bestLabel = -1, compared = 0;
        for (unsigned int k = 0; k < n; ++k) {
            float d;
            if (!difference(k, d)) continue;
            ++compared;
            if (d <= best) {
                best = d;
                bestLabel = static_cast<int>(k);
            }
        }
        // One motion alone is compared with nothing: no label costs more.
        if (bestLabel < 0 || compared < 2) return;
        const float4 m = cellsAt(
            cells, static_cast<unsigned int>(vela::at(layerOf, static_cast<unsigned int>(bestLabel))), p.x, p.y);
        const unsigned int ox = static_cast<unsigned int>(static_cast<float>(p.x) - m.x + 0.5f);
        const unsigned int oy = static_cast<unsigned int>(static_cast<float>(p.y) - m.y + 0.5f);
        if (patchVariation(image, p.x, p.y) < kTextured || patchVariation(previous, ox, oy) < kTextured) return;
        for (unsigned int k = 0; k < n; ++k) {
            float d;
            if (difference(k, d)) vela::at(cost, p.x, p.y, k) += weight * fminf(1.0f, (d - best) / kFullDifference);
        }
    }
};

}  // namespace

void addMotionCost(Array<float, 3>& cost, const TrackMotion& tracks, const std::vector<int>& labelIds,
                   const Array<float4, 2>& image, const Array<float4, 2>& previousImage, const Array<float, 2>& labels,
                   float weight) {
    const unsigned int w = cost.extents.x, h = cost.extents.y, n = cost.extents.z;
    for (const auto* a : {&image, &previousImage})
        if (a->extents.x != w || a->extents.y != h)
            throw std::runtime_error("video::addMotionCost: the images and the cost map differ in size");
    if (labels.extents.x != w || labels.extents.y != h)
        throw std::runtime_error("video::addMotionCost: the labels and the cost map differ in size");
    if (tracks.width() != w || tracks.height() != h)
        throw std::runtime_error("video::addMotionCost: the tracks' motion is of another frame size");
    if (labelIds.size() != n) throw std::runtime_error("video::addMotionCost: one track label per layer");
    if (w == 0 || h == 0 || n == 0 || weight == 0.0f) return;
    std::vector<int> layers = tracks.layersOf(labelIds);
    const vela::ScopedArray<int, 1> layerOf = seg::deviceCopy(seg::hostView1D(layers.data(), n));
    const dim3 grid(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
    vela::device::launch<motionCost_kernel>(grid, dim3(kBlockX, kBlockY), nullptr, cost, tracks.cells(), layerOf.a,
                                            image, previousImage, labels, weight);
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
}

}  // namespace video
