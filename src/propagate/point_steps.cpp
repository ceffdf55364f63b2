#include "src/propagate/point_steps.h"

#include <cmath>

#include "src/engine_arrays.h"
#include "vela/access.h"
#include "vela/algorithms/basic.h"
#include "vela/device/atomic.h"
#include "vela/device/launch.h"

namespace propagate {
namespace {

using vela::Array;
using vela::device::Thread;

constexpr seg::DeviceCheck check{"src/propagate/point_steps"};
constexpr unsigned int kPointBlock = 256;
constexpr unsigned int kBlockX = 32, kBlockY = 8;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

VELA_HD inline unsigned int pointIndex(const Thread& t) { return t.blockIdx.x * t.blockDim.x + t.threadIdx.x; }

VELA_HD inline bool inFrame(float2 p, unsigned int w, unsigned int h) {
    return p.x > 0.0f && p.y > 0.0f && p.x < static_cast<float>(w) && p.y < static_cast<float>(h);
}

// The field at (x, y) in pixel-centre coordinates, bilinear, clamped at the
// border pixels.
VELA_HD inline float2 sampleField(const Array<float2, 2>& field, float x, float y) {
    const float maxX = static_cast<float>(field.extents.x - 1), maxY = static_cast<float>(field.extents.y - 1);
    const float cx = fminf(fmaxf(x, 0.0f), maxX), cy = fminf(fmaxf(y, 0.0f), maxY);
    const unsigned int x0 = static_cast<unsigned int>(cx), y0 = static_cast<unsigned int>(cy);
    const unsigned int x1 = x0 + 1 < field.extents.x ? x0 + 1 : x0, y1 = y0 + 1 < field.extents.y ? y0 + 1 : y0;
    const float fx = cx - static_cast<float>(x0), fy = cy - static_cast<float>(y0);
    const float2 a = vela::at(field, x0, y0), b = vela::at(field, x1, y0);
    const float2 c = vela::at(field, x0, y1), d = vela::at(field, x1, y1);
    return make_float2((1 - fy) * ((1 - fx) * a.x + fx * b.x) + fy * ((1 - fx) * c.x + fx * d.x),
                       (1 - fy) * ((1 - fx) * a.y + fx * b.y) + fy * ((1 - fx) * c.y + fx * d.y));
}

struct followPoints_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 1> points, unsigned int n, Array<float2, 2> forward,
                            Array<float2, 2> backward, Array<float2, 1> moved, Array<int, 1> kept) const {
        const unsigned int i = pointIndex(t);
        if (i >= n) return;
        const unsigned int w = forward.extents.x, h = forward.extents.y;
        const float2 p = vela::at(points, i);
        int keep = 0;
        float2 q = p;
        if (inFrame(p, w, h)) {
            const float2 f = sampleField(forward, p.x - 0.5f, p.y - 0.5f);
            q = make_float2(p.x + f.x, p.y + f.y);
            if (inFrame(q, w, h)) {
                const float2 b = sampleField(backward, q.x - 0.5f, q.y - 0.5f);
                const float dx = f.x + b.x, dy = f.y + b.y;
                const float bound = kFlowMismatch * (f.x * f.x + f.y * f.y + b.x * b.x + b.y * b.y) + kFlowSlack;
                // The flow's gradient by central differences over one pixel.
                const float2 right = sampleField(forward, p.x + 0.5f, p.y - 0.5f);
                const float2 left = sampleField(forward, p.x - 1.5f, p.y - 0.5f);
                const float2 down = sampleField(forward, p.x - 0.5f, p.y + 0.5f);
                const float2 up = sampleField(forward, p.x - 0.5f, p.y - 1.5f);
                const float gx = 0.5f * (right.x - left.x), gy = 0.5f * (down.x - up.x);
                const float hx = 0.5f * (right.y - left.y), hy = 0.5f * (down.y - up.y);
                const float gradient = gx * gx + gy * gy + hx * hx + hy * hy;
                const bool edge = gradient > kMotionEdge * (f.x * f.x + f.y * f.y) + kMotionEdgeSlack;
                keep = dx * dx + dy * dy <= bound && !edge ? 1 : 0;
            }
        }
        vela::at(moved, i) = q;
        vela::at(kept, i) = keep;
    }
};

struct countPoints_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 1> points, Array<int, 1> kept, unsigned int n,
                            unsigned int spacing, Array<int, 2> cells) const {
        const unsigned int i = pointIndex(t);
        if (i >= n || vela::at(kept, i) == 0) return;
        const float2 p = vela::at(points, i);
        if (!(p.x >= 0.0f && p.y >= 0.0f)) return;
        const unsigned int cx = static_cast<unsigned int>(p.x) / spacing, cy = static_cast<unsigned int>(p.y) / spacing;
        if (cx < cells.extents.x && cy < cells.extents.y) vela::device::addAtomic(&vela::at(cells, cx, cy), 1);
    }
};

// The square test in two passes: along the row, then along the column of
// the rows' results (a square is uniform when each of its rows is uniform
// with one and the same label).
struct uniformRows_kernel {
    VELA_HD void operator()(const Thread& t, Array<int, 2> labels, unsigned int margin, Array<int, 2> rows) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned int w = labels.extents.x;
        if (x >= w || y >= labels.extents.y) return;
        const int label = vela::at(labels, x, y);
        const unsigned int from = x > margin ? x - margin : 0, to = x + margin < w ? x + margin : w - 1;
        int result = label < 0 ? -1 : label;
        for (unsigned int i = from; i <= to && result >= 0; ++i)
            if (vela::at(labels, i, y) != label) result = -1;
        vela::at(rows, x, y) = result;
    }
};

struct uniformColumns_kernel {
    VELA_HD void operator()(const Thread& t, Array<int, 2> rows, unsigned int margin, Array<int, 2> sure) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned int h = rows.extents.y;
        if (x >= rows.extents.x || y >= h) return;
        const int label = vela::at(rows, x, y);
        const unsigned int from = y > margin ? y - margin : 0, to = y + margin < h ? y + margin : h - 1;
        int result = label;
        for (unsigned int j = from; j <= to && result >= 0; ++j)
            if (vela::at(rows, x, j) != label) result = -1;
        vela::at(sure, x, y) = result;
    }
};

struct labelsAtPoints_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 1> points, unsigned int n, Array<int, 2> sure,
                            Array<int, 2> labels, Array<int2, 1> found) const {
        const unsigned int i = pointIndex(t);
        if (i >= n) return;
        const float2 p = vela::at(points, i);
        int2 result = make_int2(-1, -1);
        if (inFrame(p, labels.extents.x, labels.extents.y)) {
            const unsigned int x = static_cast<unsigned int>(p.x), y = static_cast<unsigned int>(p.y);
            result = make_int2(vela::at(sure, x, y), vela::at(labels, x, y));
        }
        vela::at(found, i) = result;
    }
};

struct imposeLayers_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> u, Array<int, 2> layers) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= u.extents.x || y >= u.extents.y) return;
        const int layer = vela::at(layers, x, y);
        if (layer < 0) return;
        for (unsigned int l = 0; l < u.extents.z; ++l)
            vela::at(u, x, y, l) = static_cast<int>(l) == layer ? 1.0f : 0.0f;
    }
};

dim3 pointGrid(unsigned int n) { return dim3(vela::device::blocksFor(n, kPointBlock)); }

dim3 pixelGrid(unsigned int w, unsigned int h) {
    return dim3(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
}

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

void followPoints(const Array<float2, 1>& points, unsigned int n, const Array<float2, 2>& forward,
                  const Array<float2, 2>& backward, Array<float2, 1>& moved, Array<int, 1>& kept) {
    if (n == 0) return;
    vela::device::launch<followPoints_kernel>(pointGrid(n), dim3(kPointBlock), nullptr, points, n, forward, backward,
                                              moved, kept);
    check(__LINE__);
}

void countPointsInCells(const Array<float2, 1>& points, const Array<int, 1>& kept, unsigned int n,
                        unsigned int spacing, Array<int, 2>& cells) {
    vela::Array<int, 4> all = vela::internal::increaseArrayDimension(cells);
    vela::set(all, 0);
    if (n == 0) return;
    vela::device::launch<countPoints_kernel>(pointGrid(n), dim3(kPointBlock), nullptr, points, kept, n, spacing,
                                             cells);
    check(__LINE__);
}

void sureLabels(const Array<int, 2>& labels, unsigned int margin, Array<int, 2>& rows, Array<int, 2>& sure) {
    const unsigned int w = labels.extents.x, h = labels.extents.y;
    if (w == 0 || h == 0) return;
    vela::device::launch<uniformRows_kernel>(pixelGrid(w, h), dim3(kBlockX, kBlockY), nullptr, labels, margin, rows);
    vela::device::launch<uniformColumns_kernel>(pixelGrid(w, h), dim3(kBlockX, kBlockY), nullptr, rows, margin, sure);
    check(__LINE__);
}

void labelsAtPoints(const Array<float2, 1>& points, unsigned int n, const Array<int, 2>& sure,
                    const Array<int, 2>& labels, Array<int2, 1>& found) {
    if (n == 0) return;
    vela::device::launch<labelsAtPoints_kernel>(pointGrid(n), dim3(kPointBlock), nullptr, points, n, sure, labels,
                                                found);
    check(__LINE__);
}

void imposeLayers(Array<float, 3>& u, const Array<int, 2>& layers) {
    const unsigned int w = u.extents.x, h = u.extents.y;
    if (w == 0 || h == 0) return;
    vela::device::launch<imposeLayers_kernel>(pixelGrid(w, h), dim3(kBlockX, kBlockY), nullptr, u, layers);
    check(__LINE__);
}

}  // namespace propagate
