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

#include <vector>

#include "src/PDseg.h"
#include "src/settings.h"
#include "src/video/motion.h"

namespace video {

// Mean colour difference per channel (0 to 255) above which a frame counts as
// a cut.
constexpr double kCutDifference = 40.0;
// Mean colour difference per channel above which a pixel counts as changed
// since the frame before: the walker solves there again, and the moved
// labelling adds no cost.
constexpr float kChangedDifference = 40.0f;

class VideoState {
 public:
    VideoState() = default;
    ~VideoState() { reset(); }
    VideoState(const VideoState&) = delete;
    VideoState& operator=(const VideoState&) = delete;

    // Readies `seg` for seg.run() as prepareSegmentation does, with what the
    // frame before hands on.  `labelIds` are the track labels of the label
    // indices, `motion` the tracks' points in this frame and the one before.
    void prepare(PDseg& seg, vela::Array<float, 2>& labels, int numLabels, const std::vector<int>& labelIds,
                 const std::vector<MotionPoint>& motion, const SegmentationSettings& settings);

    // After seg.run(): keeps what the next frame needs.
    void keep(PDseg& seg);

    // Forgets the frame before: the next one starts afresh.
    void reset();

    // Whether the last prepare() started from the frame before, and the
    // walker's conjugate-gradient iterations it took.
    bool continued() const { return continued_; }
    int walkerIterations() const { return walkerIterations_; }

 private:
    vela::Array<float4, 2> image_;      // the frame before, 0 to 255
    vela::Array<float, 3> walker_;      // its walker probabilities
    vela::Array<float, 3> relaxed_;     // its relaxed labelling
    vela::Array<float2, 3> dual_;       // its dual field
    std::vector<int> labelIds_;         // the track label of each of its layers
    vela::Array<float, 3> startU_;      // this frame's moved labelling, lent to seg
    vela::Array<float2, 3> startDual_;  // and dual field
    std::vector<int> pending_;          // this frame's label ids, kept by keep()
    bool continued_ = false;
    int walkerIterations_ = 0;
};

}  // namespace video
