// The motion term of a video frame: what the frame before says about this
// one through the tracks' motion alone, whatever labels it was given.
//
// Each label's tracks give it its own motion (src/video/motion_cells.h).  A
// pixel of a label moved along that label's motion: its colour came from its
// origin in the frame before.  So at a pixel several labels' motions reach,
// the label whose motion brings the pixel's colour best is the likely one,
// and each other label costs in proportion to how much worse its motion
// brings it.  Textured parts of objects that look alike but move differently
// come apart this way, which no single frame can tell.
//
// The term says nothing where it cannot know: in flat image regions (every
// motion brings the same colour), where no label's motion brings the colour
// at all (a pixel uncovered or entering the frame), for a label whose tracks
// are too few nearby to trust its motion, and at this frame's seeds.  It
// reads no labelling of the frame before, so it carries no error forward.
#pragma once

#include <vector>

#include "src/video/motion_cells.h"
#include "vela/tools.h"

namespace video {

// cost(x, y, k) += weight * min(1, (d_k - d_best) / 30) at the unseeded
// pixels (`labels`: label index per pixel, negative where no seed lies) where
// the term speaks: d_k is the colour difference (mean per channel, 0 to 255)
// between the pixel in `image` and its origin in `previousImage` under label
// k's motion, k the labels whose track label labelIds[k] has a layer in
// `tracks` with enough of its points in reach.  All arrays are W x H (x L), on
// the device.
void addMotionCost(vela::Array<float, 3>& cost, const TrackMotion& tracks, const std::vector<int>& labelIds,
                   const vela::Array<float4, 2>& image, const vela::Array<float4, 2>& previousImage,
                   const vela::Array<float, 2>& labels, float weight);

}  // namespace video
