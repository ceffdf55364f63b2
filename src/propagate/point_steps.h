// The tracker's steps on the device, one thread per point or per pixel: moving
// points along the flow with the forward-backward check, finding the grid
// cells that hold a point, and reading labels at points only where a label
// map is sure of them.
#pragma once

#include "vela/tools.h"

namespace propagate {

// A point's flow check: it ends where following the forward flow and then the
// backward flow from where it lands misses its start by more than
// kFlowMismatch * (|forward|^2 + |backward|^2) + kFlowSlack squared pixels,
// which happens where it becomes hidden and where the flow is unreliable.
constexpr float kFlowMismatch = 0.01f;
constexpr float kFlowSlack = 0.5f;
// A point also ends on a motion edge, where the squared gradient of the flow
// exceeds kMotionEdge * |forward|^2 + kMotionEdgeSlack: there the point is
// about to be hidden, or the flow mixes two motions.  The flow is sharp
// enough to follow an object 2 to 4 pixels wide, so the gradient across such
// an object is large everywhere on it: at 0.1 a wire moving a pixel a frame
// lost nearly every track each frame, new ones were labelled from a
// segmentation that was losing it, and the wire was gone within 30 frames.
// Still points need the tight bound that the slack alone sets.
constexpr float kMotionEdge = 0.3f;
constexpr float kMotionEdgeSlack = 0.02f;

// Moves each of the n points (x, y in pixels; pixel i covers [i, i + 1))
// along `forward` (W x H, the flow at each pixel's centre, read bilinearly)
// into `moved`; kept[i] is 1 where the point passes the flow checks and lands
// strictly inside the frame (0 < x < W, 0 < y < H), 0 where its track ends.
// All arrays on the device.
void followPoints(const vela::Array<float2, 1>& points, unsigned int n, const vela::Array<float2, 2>& forward,
                  const vela::Array<float2, 2>& backward, vela::Array<float2, 1>& moved, vela::Array<int, 1>& kept);

// Counts into `cells` (cleared here; ceil(W / spacing) x ceil(H / spacing))
// the points with kept[i] = 1 that lie in each spacing x spacing cell.
void countPointsInCells(const vela::Array<float2, 1>& points, const vela::Array<int, 1>& kept, unsigned int n,
                        unsigned int spacing, vela::Array<int, 2>& cells);

// For each pixel of `labels` (W x H, values 0 to 255, negative for none) the
// largest r <= `margin` such that every pixel within r pixels (the
// (2 r + 1)-pixel square, clipped to the frame) has its label, into `radius`;
// -1 for a pixel without a label.  `rows` is W x H scratch.
void uniformRadius(const vela::Array<int, 2>& labels, unsigned int margin, vela::Array<int, 2>& rows,
                   vela::Array<int, 2>& radius);

// counts(r, l): the pixels of label l whose radius is r, for r from 0 to
// margin (cleared here; margin + 1 x 256; a larger radius counts at margin).
void countRadii(const vela::Array<int, 2>& labels, const vela::Array<int, 2>& radius, vela::Array<int, 2>& counts);

// For each of the n points, (label, label) at its pixel where its radius
// lies within its label's range (`radii`, 256 entries of the least and the
// most radius), (-1, label) where it does not, and (-1, -1) outside the
// frame, into `found`.
void labelsAtPoints(const vela::Array<float2, 1>& points, unsigned int n, const vela::Array<int, 2>& labels,
                    const vela::Array<int, 2>& radius, const vela::Array<int2, 1>& radii, vela::Array<int2, 1>& found);

// A label given by clicks lies near them: adds to layer l of `cost` (W x H x L)
// weight * clamp(d / reach_l - 1, 0, 1) at each pixel, d the distance to the
// nearest of that layer's clicks.  `clicks` holds (x, y, layer, reach_l) per
// click; a layer without clicks, and layer `exempt` (the background, which
// lies everywhere), get nothing.
void addClickReachCost(vela::Array<float, 3>& cost, const vela::Array<float4, 1>& clicks, unsigned int n, float weight,
                       int exempt);

// Objects move apart from what lies around them: adds to layer l of `cost`
// (W x H x L) weight * clamp((d_l - d) / kClickMotionScale, 0, 1) at each
// pixel, d_l the distance of the pixel's motion from the frame before
// (`backward`, negated) to the nearest motion of that layer's clicks and d the
// least d_l over the layers with clicks.  `motions` holds (motion x, motion
// y, layer, unused) per click; a layer without clicks gets nothing, and
// neither does a pixel whose backward flow fails the forward-backward check
// (it was hidden in the frame before, and its motion is unknown).
constexpr float kClickMotionScale = 1.0f;
void addClickMotionCost(vela::Array<float, 3>& cost, const vela::Array<float2, 2>& backward,
                        const vela::Array<float2, 2>& forward, const vela::Array<float4, 1>& motions, unsigned int n,
                        float weight);

// A track moves with its object.  Each label's motion is the median of its
// tracks' motions from the frame before (x and y apart); where most of them
// lie within kMotionMisfit pixels of it the label moves as one, and only then
// does its motion speak.  A track of such a label that misses its label's
// motion by more than kMotionMisfit pixels and comes within kMotionFit times
// that of another such label's motion moves like that label instead.  A
// track without a label yet moves like the label whose motion it comes
// within kMotionMisfit pixels of, where every other one misses it by more
// than 1 / kMotionFit times as much.  A track of a label that moves as one
// that misses its label's motion by more than kStrayMotion pixels and comes
// within kMotionMisfit pixels of no label's motion strays: it follows
// something no label names, which is background.
constexpr float kMotionMisfit = 0.6f;
constexpr float kMotionFit = 0.4f;
constexpr float kMotionCoherence = 0.5f;  // the share of a label's tracks that makes it move as one
constexpr float kStrayMotion = 3.0f;
constexpr int kNoLabelYet = -2;  // the layer of a track without a label
constexpr int kStrays = -3;      // found for a track that strays

// For each of the n points ((x, y) now, (x, y) in the frame before), the
// index in `motions` of the label it moves like instead of its own (index
// layers[i]; kNoLabelYet for a track without a label, other negatives for
// none), kStrays where it strays, or -1, into `better`.  motions(k) =
// (motion x, motion y, 1 where label k moves as one or 0, unused).
void motionMisfits(const vela::Array<float4, 1>& points, const vela::Array<int, 1>& layers, unsigned int n,
                   const vela::Array<float4, 1>& motions, vela::Array<int, 1>& better);

// Makes the W x H x L labelling `u` hold layer `layers`(x, y) wholly (1 there,
// 0 in the others) at each pixel where that index is not negative.
void imposeLayers(vela::Array<float, 3>& u, const vela::Array<int, 2>& layers);

}  // namespace propagate
