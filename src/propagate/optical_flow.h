// Dense optical flow between consecutive frames, from the dense inverse
// search flow of OpenCV's video module (its "medium" preset, computed up to
// the full resolution with small patches) on the frames' grey values.  The
// only file that sees OpenCV.
#pragma once

#include <memory>
#include <vector>

#include "vela/tools.h"

namespace propagate {

// Flow fields of a W x H frame: per pixel, row-major, the displacement in
// pixels (x right, y down).
struct FlowPair {
    std::vector<float2> forward;   // from the frame before to this one
    std::vector<float2> backward;  // from this frame to the one before
};

class OpticalFlow {
 public:
    OpticalFlow();
    ~OpticalFlow();
    OpticalFlow(const OpticalFlow&) = delete;
    OpticalFlow& operator=(const OpticalFlow&) = delete;

    // Takes the next frame (a host W x H image, R, G and B in 0 to 255) and
    // gives the flow between the frame before and it; false for the first
    // frame, which has none.  Every frame must have the first one's size.
    bool next(const vela::Array<float4, 2>& image, FlowPair& flow);

    // Starts the flow between the frame last given to next() and `upcoming`
    // (a host image, as next() takes) on a thread of its own that runs only
    // on cores nothing else wants, while the caller works on the current
    // frame; next() with that frame then takes it from there, the same flow
    // as computed there.  If it is not done after as long again as it has
    // run, next() computes its own, and nothing more starts until the one
    // under way ends.  Nothing starts before a first frame or for a frame of
    // another size; a later next() with another frame computes its own.
    void prefetch(const vela::Array<float4, 2>& upcoming);

    // Forgets the frame before, as at the start of a new video.
    void reset();

 private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace propagate
