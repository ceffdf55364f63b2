// One frame's segmentation, written once for every front-end: the program's
// frame loop and whole-folder video mode, tools/dump_costs and the Python
// package all segment a frame through segmentFrame() (or its two halves).
#pragma once

#include <vector>

#include "src/PDseg.h"
#include "src/dataterms/walker.h"
#include "src/settings.h"
#include "src/video/temporal.h"

// The solver object of one frame, owning its colour tables too (PDseg leaves
// them to the end of the process, which a run of many frames cannot).
class FrameSolver : public PDseg {
 public:
    // PDseg's constructors: on the image, or taking a cost map over.
    using PDseg::PDseg;
    ~FrameSolver();
};

// A frame's seeds: `labels` (W x H, device) holds a label index per pixel,
// negative where no seed lies; labelIds[k] is the track label of index k,
// which keeps its palette colour and its layer from frame to frame.  `motion`
// is the tracks' motion into this frame, for a video with "temporal 1".
struct FrameSeeds {
    vela::Array<float, 2> labels;
    std::vector<int> labelIds;
    std::vector<video::MotionPoint> motion = {};
};

// The engine addresses an array's elements with 32-bit byte strides: whether
// a frame of w x h pixels with `labels` labels has its largest arrays (the
// solver's W x H x L dual field, the W x H colour image) within them.
// requireAddressable() throws std::length_error naming the frame size, the
// label count and the limit where not, for callers to refuse the frame before
// anything is allocated.
bool addressable(unsigned long long w, unsigned long long h, unsigned long long labels);
void requireAddressable(unsigned long long w, unsigned long long h, unsigned long long labels);

// Builds the frame's cost map from its seeds with the data terms the settings
// choose, and in a video the costs of what `before` carries (src/video/
// temporal.h), and sets every solver parameter: seg is then ready to run().
// Returns whether the frame started from the one before and the walker's
// solve, which video::keep() hands on.
struct PreparedFrame {
    bool continued = false;
    WalkerSolve walker;
};
PreparedFrame prepareFrame(FrameSolver& seg, const FrameSeeds& seeds, const SegmentationSettings& settings,
                           const video::Carry& before = {});

// Runs the solver under the program's timers ("PDseg::run()").
void solveFrame(PDseg& seg);

// The whole frame: prepareFrame(), solveFrame(), and with "temporal 1" what
// the next frame needs, which is returned (an empty carry otherwise).  `before`
// is released before the next carry is made, so that a video holds one carry.
video::Carry segmentFrame(FrameSolver& seg, const FrameSeeds& seeds, const SegmentationSettings& settings,
                          video::Carry before = {});

// Gives seg.labelColors one palette colour per label index k: the entry of
// the fixed palette for track label labelIds[k], so that a track keeps its
// colour in every frame whatever the order its label is met in.  Throws
// std::out_of_range for a label without a palette entry.
void setLabelColours(PDseg& seg, const std::vector<int>& labelIds);
