// How a frame moved since the one before, from the point tracks, and the
// previous frame's per-label layers carried along that motion.
#pragma once

#include <vector>

#include "vela/tools.h"

namespace video {

class TrackMotion;  // src/video/motion_cells.h

// A track point in this frame and the same track's point in the frame before.
struct MotionPoint {
    float x, y;          // now
    float fromX, fromY;  // before
    int label;           // the track's label
};

// The backward motion of every pixel (W x H, device): the pixel (x, y) came
// from (x - m.x, y - m.y) in the frame before.  From the tracks' points by
// Gaussian-weighted averages (sigma 12 px) on a grid of 8-pixel cells,
// bilinear between the cells' centres; 0 where no point lies within 36 px.
void denseMotion(vela::Array<float2, 2>& motion, const std::vector<MotionPoint>& points);

// The same, object by object: each label's own motion from its own tracks'
// points (its layer of `tracks`; a label without one has no motion of its
// own), and at each pixel the motion of the label that, moved along it,
// finds itself there in `previous` (the frame before's relaxed labelling,
// W x H x L', layer j holding track label previousLabels[j]).  Motion edges
// then follow the objects' boundaries instead of blurring across them.  Where
// two labels find themselves about as well (at a moving object's leading
// edge), the one whose origin in `previousImage` looks most like the pixel in
// `image` (both W x H, device, 0 to 255) wins.  Where no label's tracks reach,
// the motion of all points (denseMotion).
// `support` (W x H, device) receives the winning label's share at the origin
// over the largest label's share there (0 to 1): low where no label of the
// frame before arrives (a pixel uncovered by a moving object, or one entering
// the frame).
void objectMotion(vela::Array<float2, 2>& motion, const TrackMotion& tracks, const vela::Array<float, 3>& previous,
                  const std::vector<int>& previousLabels, const vela::Array<float4, 2>& image,
                  const vela::Array<float4, 2>& previousImage, vela::Array<float, 2>& support);

// The previous frame's layers (W x H x L', device) moved to this frame: layer
// k of `out` (W x H x L) is layer from[k] of `previous` read bilinearly at the
// pixel's origin, or 0 where from[k] < 0 (a label the frame before did not
// have).  Where the origin lies outside the image every layer gets `outside`.
// With `normalise`, each pixel's layers are divided by their sum (all 0:
// 1 / L each), so that probabilities stay probabilities over this frame's
// labels.
void moveLayers(vela::Array<float, 3>& out, const vela::Array<float, 3>& previous, const vela::Array<float2, 2>& motion,
                const std::vector<int>& from, bool normalise, float outside);
// The same for a field of 2-vectors per label (the solver's dual field),
// without normalising.
void moveLayers(vela::Array<float2, 3>& out, const vela::Array<float2, 3>& previous,
                const vela::Array<float2, 2>& motion, const std::vector<int>& from);

// The mean absolute colour difference (0 to 255, over pixels and channels)
// between the frame and the frame before moved along the motion: small for
// consecutive frames of one shot, large across a cut.
double movedColourDifference(const vela::Array<float4, 2>& image, const vela::Array<float4, 2>& previous,
                             const vela::Array<float2, 2>& motion);

// changed (W x H, device) = 1 where what the frame before says may not hold:
// the frame differs from it, moved along the motion, by more than `threshold`
// (0 to 255) per channel on average, or the motion brings no label there
// (`support` from objectMotion below one half); 0 elsewhere.
void changedPixels(vela::Array<float, 2>& changed, const vela::Array<float4, 2>& image,
                   const vela::Array<float4, 2>& previous, const vela::Array<float2, 2>& motion,
                   const vela::Array<float, 2>& support, float threshold);

}  // namespace video
