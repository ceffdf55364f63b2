// A video segmented frame after frame, each frame starting from the one
// before: its relaxed labelling and dual field, moved along the tracks' motion,
// are where this frame's primal-dual iteration starts, its labelling, moved,
// is a weak extra cost, and its walker probabilities, moved, stand wherever
// they still hold (with temporalWalkerRadius): the walker solves again only
// near boundaries, contradicting seeds and changed pixels (whose colour
// changed, or that no label of the frame before reaches).  Its image adds the
// motion term (src/video/motion_term.h): a label costs where its own motion
// does not bring the pixel's colour.
//
// Nothing wrong is carried forward on purpose: this frame's seeds keep their
// own costs, a label without seeds in this frame is not among its labels, and
// a frame unlike the one before (a cut: no track continues, or the frame
// differs from the previous one moved along the motion by more than
// kCutDifference) starts afresh.
#pragma once

#include <memory>
#include <vector>

#include "src/PDseg.h"
#include "src/dataterms/walker.h"
#include "src/settings.h"
#include "src/video/motion.h"
#include "src/video/motion_cells.h"

namespace video {

// Mean colour difference per channel (0 to 255) above which a frame counts as
// a cut.
constexpr double kCutDifference = 40.0;
// Mean colour difference per channel above which a pixel counts as changed
// since the frame before: the walker solves there again, and the moved
// labelling adds no cost.
constexpr float kChangedDifference = 40.0f;

// What a frame hands on to the next one; empty (the default) for a first
// frame, after a frame without seeds, or frame by frame.
struct Carry {
    vela::ScopedArray<float4, 2> image;   // the frame, 0 to 255
    vela::ScopedArray<float, 3> walker;   // its walker probabilities
    vela::ScopedArray<float, 3> relaxed;  // its relaxed labelling
    vela::ScopedArray<float2, 3> dual;    // its dual field
    std::vector<int> labelIds;            // the track label of each of its layers
    // How that frame began: from the one before it or afresh, and the
    // walker's conjugate-gradient iterations.
    bool continued = false;
    int walkerIterations = 0;
};

// What a frame takes from the one before, moved along the motion: nothing
// (continued false) where it starts afresh.
struct Start {
    bool continued = false;
    vela::ScopedArray<float, 3> u;        // the relaxed labelling, W x H x L of this frame's labels
    vela::ScopedArray<float2, 3> dual;    // the dual field, where the frame before kept one
    vela::ScopedArray<float, 3> walker;   // the walker probabilities, with temporalWalkerRadius
    vela::ScopedArray<float, 2> changed;  // 1 where the frame before may not hold
    std::unique_ptr<TrackMotion> tracks;  // each label's motion from its tracks
};

// This frame's start: `labelIds` are the track labels of its label indices,
// `motion` the tracks' points in this frame and the one before.
Start startFrom(const Carry& before, const vela::Array<float4, 2>& image, const std::vector<int>& labelIds,
                const std::vector<MotionPoint>& motion, const SegmentationSettings& settings);

// The costs a continued frame adds to its cost map: the motion term and the
// moved labelling as a weak cost, both away from the seeds (`labels`).
void addVideoCosts(vela::Array<float, 3>& cost, const Start& start, const Carry& before,
                   const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels,
                   const std::vector<int>& labelIds, const SegmentationSettings& settings);

// After the solve: what the next frame needs from this one, `walker` its
// walker's solve and `continued` whether it started from the frame before.
Carry keep(PDseg& seg, const std::vector<int>& labelIds, WalkerSolve walker, bool continued);

}  // namespace video
