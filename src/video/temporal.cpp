#include "src/video/temporal.h"

#include <algorithm>

#include "src/dataterms/seeds.h"
#include "src/engine_arrays.h"
#include "src/video/motion_cells.h"
#include "src/video/motion_term.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace video {
namespace {

using vela::Array;
using vela::device::Thread;

constexpr const char* kSource = "src/video/temporal";
constexpr unsigned int kBlockX = 32, kBlockY = 8;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// cost(x, y, l) += weight * (1 - moved(x, y, l)) away from this frame's seeds
// and from the pixels where the frame before does not hold (`changed`): a
// label the frame before had here costs nothing extra, the others up to
// `weight`.
struct temporalPrior_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> cost, Array<float, 3> moved, Array<float, 2> labels,
                            Array<float, 2> changed, float weight) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= cost.extents.x || y >= cost.extents.y) return;
        if (seg::seedOf(labels, x, y, cost.extents.z) >= 0) return;
        if (vela::at(changed, x, y) != 0.0f) return;
        for (unsigned int l = 0; l < cost.extents.z; ++l)
            vela::at(cost, x, y, l) += weight * (1.0f - vela::at(moved, x, y, l));
    }
};

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

template <class T, int N>
bool sameExtents(const Array<T, N>& a, unsigned int w, unsigned int h, unsigned int l = 1) {
    const vela::Array<T, 4> a4 = vela::internal::increaseArrayDimension(a);
    return a.data != nullptr && a4.extents.x == w && a4.extents.y == h && a4.extents.z == l;
}

}  // namespace

Start startFrom(const Carry& before, const vela::Array<float4, 2>& image, const std::vector<int>& labelIds,
                const std::vector<MotionPoint>& motion, const SegmentationSettings& settings) {
    const unsigned int w = image.extents.x, h = image.extents.y;
    const unsigned int n = static_cast<unsigned int>(labelIds.size());
    const std::vector<int>& previousIds = before.labelIds;
    Start start;
    if (n == 0 || motion.empty() || !sameExtents(before.image.a, w, h) ||
        !sameExtents(before.relaxed.a, w, h, previousIds.size()))
        return start;
    // Each track label of this frame and the one before gets its motion.
    std::vector<int> trackLabels = previousIds;
    for (int id : labelIds)
        if (std::find(trackLabels.begin(), trackLabels.end(), id) == trackLabels.end()) trackLabels.push_back(id);
    start.tracks = std::make_unique<TrackMotion>(w, h, motion, trackLabels);
    vela::ScopedArray<float2, 2> field(seg::deviceArray2D<float2>(w, h));
    vela::ScopedArray<float, 2> support(seg::deviceArray2D<float>(w, h));
    objectMotion(field.a, *start.tracks, before.relaxed.a, previousIds, image, before.image.a, support.a);
    start.continued = movedColourDifference(image, before.image.a, field.a) <= kCutDifference;
    if (!start.continued) return start;

    // Each of this frame's labels takes the layer of the same track label
    // before; a label new in this frame starts from nothing.
    std::vector<int> from(n, -1);
    for (unsigned int k = 0; k < n; ++k) {
        const auto found = std::find(previousIds.begin(), previousIds.end(), labelIds[k]);
        if (found != previousIds.end()) from[k] = static_cast<int>(found - previousIds.begin());
    }
    const float even = 1.0f / static_cast<float>(n);
    start.u.a = seg::deviceArray3D<float>(w, h, n);
    moveLayers(start.u.a, before.relaxed.a, field.a, from, true, even);
    if (sameExtents(before.dual.a, w, h, previousIds.size())) {
        start.dual.a = seg::deviceArray3D<float2>(w, h, n);
        moveLayers(start.dual.a, before.dual.a, field.a, from);
    }
    const bool walkerStarts = settings.temporalWalkerRadius > 0 || settings.temporalWalkerWarmStart == 1;
    if (walkerStarts && sameExtents(before.walker.a, w, h, previousIds.size())) {
        start.walker.a = seg::deviceArray3D<float>(w, h, n);
        moveLayers(start.walker.a, before.walker.a, field.a, from, true, even);
    }
    start.changed.a = seg::deviceArray2D<float>(w, h);
    changedPixels(start.changed.a, image, before.image.a, field.a, support.a, kChangedDifference);
    return start;
}

void addVideoCosts(vela::Array<float, 3>& cost, const Start& start, const Carry& before,
                   const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                   const std::vector<int>& labelIds, const SegmentationSettings& settings) {
    if (!start.continued) return;
    if (settings.temporalMotionWeight > 0.0f)
        addMotionCost(cost, *start.tracks, labelIds, image, before.image.a, labels, settings.temporalMotionWeight);
    if (settings.temporalWeight > 0.0f) {
        const dim3 block(kBlockX, kBlockY);
        const dim3 grid(vela::device::blocksFor(cost.extents.x, kBlockX),
                        vela::device::blocksFor(cost.extents.y, kBlockY));
        vela::device::launch<temporalPrior_kernel>(grid, block, nullptr, cost, start.u.a, labels, start.changed.a,
                                                   settings.temporalWeight);
        vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
    }
}

Carry keep(PDseg& seg, const std::vector<int>& labelIds, WalkerSolve walker, bool continued) {
    Carry next;
    next.image = seg::deviceCopy(seg.image);
    next.relaxed = seg::deviceCopy(seg.uResult);
    next.walker = std::move(walker.probabilities);
    next.dual = std::move(seg.dual);
    next.labelIds = labelIds;
    next.continued = continued;
    next.walkerIterations = walker.iterations;
    return next;
}

}  // namespace video
