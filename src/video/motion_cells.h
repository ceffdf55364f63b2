// The tracks' motion on a coarse grid, which every motion kernel of a video
// reads: each group of points (all of them, or one label's) gives at the
// centre of every 8-pixel cell the Gaussian-weighted mean motion of its points
// within reach (sigma 12 px, reach 36 px) and the weights' sum, read
// bilinearly in between.
#pragma once

#include <cmath>
#include <vector>

#include "src/engine_arrays.h"
#include "src/video/motion.h"
#include "vela/access.h"

namespace video {

constexpr int kCell = 8;  // pixels per side of a grid cell

// The tracks' motion of a W x H frame on the grid of cells: layer 0 from
// every point, and one layer for each of the track labels asked for, from that
// label's points.  A cell holds (motion x, motion y, weights' sum, 0), all 0
// where no point of its layer is in reach.
class TrackMotion {
 public:
    TrackMotion(unsigned int w, unsigned int h, const std::vector<MotionPoint>& points,
                const std::vector<int>& trackLabels);
    TrackMotion(const TrackMotion&) = delete;
    TrackMotion& operator=(const TrackMotion&) = delete;

    // ceil(W / 8) x ceil(H / 8) x (labels + 1), on the device.
    const vela::Array<float4, 3>& cells() const { return cells_.a; }
    unsigned int width() const { return width_; }
    unsigned int height() const { return height_; }
    // The layer of each of `trackLabels`, -1 for one without a layer.
    std::vector<int> layersOf(const std::vector<int>& trackLabels) const;

 private:
    unsigned int width_, height_;
    std::vector<int> labels_;
    vela::ScopedArray<float4, 3> cells_;
};

// A layer of cells read bilinearly at pixel (x, y), clamped at the outer
// cells' centres: (motion x, motion y, weights' sum, 0).
VELA_HD inline float4 cellsAt(const vela::Array<float4, 3>& cells, unsigned int layer, unsigned int x, unsigned int y) {
    const float gx = (static_cast<float>(x) + 0.5f) / kCell - 0.5f;
    const float gy = (static_cast<float>(y) + 0.5f) / kCell - 0.5f;
    const float maxX = static_cast<float>(cells.extents.x - 1), maxY = static_cast<float>(cells.extents.y - 1);
    const float cx = fminf(fmaxf(gx, 0.0f), maxX), cy = fminf(fmaxf(gy, 0.0f), maxY);
    const unsigned int x0 = static_cast<unsigned int>(cx), y0 = static_cast<unsigned int>(cy);
    const unsigned int x1 = x0 + 1 < cells.extents.x ? x0 + 1 : x0, y1 = y0 + 1 < cells.extents.y ? y0 + 1 : y0;
    const float fx = cx - static_cast<float>(x0), fy = cy - static_cast<float>(y0);
    const float4 a = vela::at(cells, x0, y0, layer), b = vela::at(cells, x1, y0, layer);
    const float4 c = vela::at(cells, x0, y1, layer), d = vela::at(cells, x1, y1, layer);
    auto mix = [&](float va, float vb, float vc, float vd) {
        return (1 - fy) * ((1 - fx) * va + fx * vb) + fy * ((1 - fx) * vc + fx * vd);
    };
    return make_float4(mix(a.x, b.x, c.x, d.x), mix(a.y, b.y, c.y, d.y), mix(a.z, b.z, c.z, d.z), 0.0f);
}

// Whether pixel (x, y) moved by m comes from inside the frame before, and if
// so its colour difference to the nearest pixel of that origin in `previous`:
// the mean over the channels of |difference|, 0 to 255.
VELA_HD inline bool originDifference(const vela::Array<float4, 2>& image, const vela::Array<float4, 2>& previous,
                                     unsigned int x, unsigned int y, float2 m, float& difference) {
    const float sx = static_cast<float>(x) - m.x + 0.5f, sy = static_cast<float>(y) - m.y + 0.5f;
    if (!(sx >= 0.0f && sy >= 0.0f && sx < static_cast<float>(image.extents.x) &&
          sy < static_cast<float>(image.extents.y)))
        return false;
    const float4 a = vela::at(image, x, y);
    const float4 b = vela::at(previous, static_cast<unsigned int>(sx), static_cast<unsigned int>(sy));
    difference = (fabsf(a.x - b.x) + fabsf(a.y - b.y) + fabsf(a.z - b.z)) / 3.0f;
    return true;
}

}  // namespace video
