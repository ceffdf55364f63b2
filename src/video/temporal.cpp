#include "src/video/temporal.h"

#include <algorithm>
#include <optional>

#include "src/dataterms/seeds.h"
#include "src/dataterms/walker.h"
#include "src/engine_arrays.h"
#include "src/segment.h"
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

// `into` becomes a copy of `from`, reallocated where the extents differ.
template <class T, int N>
void copyInto(Array<T, N>& into, const Array<T, N>& from) {
    const vela::Array<T, 4> f = vela::internal::increaseArrayDimension(from);
    if (!sameExtents(into, f.extents.x, f.extents.y, f.extents.z)) {
        vela::freeArray(into);
        into = vela::internal::decreaseArrayDimension<T, 4, N>(
            vela::mallocDeviceArray<T>(make_uint4(f.extents.x, f.extents.y, f.extents.z, 1), vela::PITCHED_LAYOUT));
    }
    vela::arrayCopy(into, from);
}

}  // namespace

void VideoState::prepare(PDseg& seg, vela::Array<float, 2>& labels, int numLabels, const std::vector<int>& labelIds,
                         const std::vector<MotionPoint>& motion, const SegmentationSettings& settings) {
    const unsigned int w = labels.extents.x, h = labels.extents.y;
    const unsigned int n = numLabels > 0 ? static_cast<unsigned int>(numLabels) : 0;
    vela::freeArray(startU_);
    vela::freeArray(startDual_);
    continued_ = false;
    walkerIterations_ = 0;

    vela::ScopedArray<float2, 2> field;
    vela::ScopedArray<float, 2> support, changed;
    std::optional<TrackMotion> tracks;
    if (n > 0 && !motion.empty() && sameExtents(image_, w, h) && sameExtents(relaxed_, w, h, labelIds_.size())) {
        // Each track label of this frame and the one before gets its motion.
        std::vector<int> trackLabels = labelIds_;
        for (int id : labelIds)
            if (std::find(trackLabels.begin(), trackLabels.end(), id) == trackLabels.end()) trackLabels.push_back(id);
        tracks.emplace(w, h, motion, trackLabels);
        field.a = seg::deviceArray2D<float2>(w, h);
        support.a = seg::deviceArray2D<float>(w, h);
        objectMotion(field.a, *tracks, relaxed_, labelIds_, seg.image, image_, support.a);
        continued_ = movedColourDifference(seg.image, image_, field.a) <= kCutDifference;
    }

    vela::ScopedArray<float, 3> walkerStart;
    if (continued_) {
        // Each of this frame's labels takes the layer of the same track label
        // before; a label new in this frame starts from nothing.
        std::vector<int> from(n, -1);
        for (unsigned int k = 0; k < n && k < labelIds.size(); ++k) {
            const auto found = std::find(labelIds_.begin(), labelIds_.end(), labelIds[k]);
            if (found != labelIds_.end()) from[k] = static_cast<int>(found - labelIds_.begin());
        }
        const float even = 1.0f / static_cast<float>(n);
        startU_ = seg::deviceArray3D<float>(w, h, n);
        moveLayers(startU_, relaxed_, field.a, from, true, even);
        if (sameExtents(dual_, w, h, labelIds_.size())) {
            startDual_ = seg::deviceArray3D<float2>(w, h, n);
            moveLayers(startDual_, dual_, field.a, from);
        }
        if (settings.temporalWalkerRadius > 0 && sameExtents(walker_, w, h, labelIds_.size())) {
            walkerStart.a = seg::deviceArray3D<float>(w, h, n);
            moveLayers(walkerStart.a, walker_, field.a, from, true, even);
        }
        changed.a = seg::deviceArray2D<float>(w, h);
        changedPixels(changed.a, seg.image, image_, field.a, support.a, kChangedDifference);
    }

    SegmentationSettings frameSettings = settings;
    if (walkerStart.a.data != nullptr && settings.temporalWalkerTolerance > 0.0f)
        frameSettings.walkerTolerance = settings.temporalWalkerTolerance;
    prepareSegmentation(seg, labels, numLabels, frameSettings,
                        WalkerCarry{walkerStart.a.data ? &walkerStart.a : nullptr,
                                    static_cast<unsigned int>(settings.temporalWalkerRadius),
                                    changed.a.data ? &changed.a : nullptr, &walker_, &walkerIterations_});
    if (continued_ && settings.temporalMotionWeight > 0.0f) {
        std::vector<int> ids = labelIds;
        ids.resize(n, -1);
        addMotionCost(seg.costMap, *tracks, ids, seg.image, image_, labels, settings.temporalMotionWeight);
    }
    if (continued_ && settings.temporalWeight > 0.0f) {
        const dim3 block(kBlockX, kBlockY);
        const dim3 grid(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
        vela::device::launch<temporalPrior_kernel>(grid, block, nullptr, seg.costMap, startU_, labels, changed.a,
                                                   settings.temporalWeight);
        vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
    }
    seg.startU = startU_;
    seg.startDual = startDual_;
    seg.keepDual = true;
    pending_ = labelIds;
    pending_.resize(n, -1);
}

void VideoState::keep(PDseg& seg) {
    copyInto(image_, seg.image);
    copyInto(relaxed_, seg.uResult);
    vela::freeArray(dual_);
    dual_ = seg.dual;
    seg.dual = vela::Array<float2, 3>{};
    labelIds_ = pending_;
    // The object borrowed them for its run.
    seg.startU = vela::Array<float, 3>{};
    seg.startDual = vela::Array<float2, 3>{};
    vela::freeArray(startU_);
    vela::freeArray(startDual_);
}

void VideoState::reset() {
    vela::freeArray(image_);
    vela::freeArray(walker_);
    vela::freeArray(relaxed_);
    vela::freeArray(dual_);
    vela::freeArray(startU_);
    vela::freeArray(startDual_);
    labelIds_.clear();
    continued_ = false;
}

}  // namespace video
