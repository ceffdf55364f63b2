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

// Whether the backward flow `b` where the forward flow `f` leads brings a
// point back to where it started, as the flow check asks.
VELA_HD inline bool flowsAgree(float2 f, float2 b) {
    const float dx = f.x + b.x, dy = f.y + b.y;
    return dx * dx + dy * dy <= kFlowMismatch * (f.x * f.x + f.y * f.y + b.x * b.x + b.y * b.y) + kFlowSlack;
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
                // The flow's gradient by central differences over one pixel.
                const float2 right = sampleField(forward, p.x + 0.5f, p.y - 0.5f);
                const float2 left = sampleField(forward, p.x - 1.5f, p.y - 0.5f);
                const float2 down = sampleField(forward, p.x - 0.5f, p.y + 0.5f);
                const float2 up = sampleField(forward, p.x - 0.5f, p.y - 1.5f);
                const float gx = 0.5f * (right.x - left.x), gy = 0.5f * (down.x - up.x);
                const float hx = 0.5f * (right.y - left.y), hy = 0.5f * (down.y - up.y);
                const float gradient = gx * gx + gy * gy + hx * hx + hy * hy;
                const bool edge = gradient > kMotionEdge * (f.x * f.x + f.y * f.y) + kMotionEdgeSlack;
                keep = flowsAgree(f, b) && !edge ? 1 : 0;
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

// The radius in two passes: along the row, then along the column of the
// rows' radii (a square of radius r is uniform when each of its 2 r + 1 rows
// is, with one and the same label, to radius r).
struct rowRadius_kernel {
    VELA_HD void operator()(const Thread& t, Array<int, 2> labels, unsigned int margin, Array<int, 2> rows) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned int w = labels.extents.x;
        if (x >= w || y >= labels.extents.y) return;
        const int label = vela::at(labels, x, y);
        int r = -1;
        if (label >= 0) {
            r = 0;
            for (unsigned int d = 1; d <= margin; ++d) {
                if (x >= d && vela::at(labels, x - d, y) != label) break;
                if (x + d < w && vela::at(labels, x + d, y) != label) break;
                r = static_cast<int>(d);
            }
        }
        vela::at(rows, x, y) = r;
    }
};

struct columnRadius_kernel {
    VELA_HD void operator()(const Thread& t, Array<int, 2> labels, Array<int, 2> rows, unsigned int margin,
                            Array<int, 2> radius) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned int h = labels.extents.y;
        if (x >= labels.extents.x || y >= h) return;
        const int label = vela::at(labels, x, y);
        // The smallest row radius over the rows so far bounds the square's.
        int least = vela::at(rows, x, y), r = least < 0 ? -1 : 0;
        for (unsigned int d = 1; d <= margin && static_cast<int>(d) <= least; ++d) {
            if (y >= d) {
                if (vela::at(labels, x, y - d) != label) break;
                least = vela::at(rows, x, y - d) < least ? vela::at(rows, x, y - d) : least;
            }
            if (y + d < h) {
                if (vela::at(labels, x, y + d) != label) break;
                least = vela::at(rows, x, y + d) < least ? vela::at(rows, x, y + d) : least;
            }
            if (least < static_cast<int>(d)) break;
            r = static_cast<int>(d);
        }
        vela::at(radius, x, y) = r;
    }
};

struct countRadii_kernel {
    VELA_HD void operator()(const Thread& t, Array<int, 2> labels, Array<int, 2> radius, Array<int, 2> counts) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (x >= labels.extents.x || y >= labels.extents.y) return;
        const int label = vela::at(labels, x, y), r = vela::at(radius, x, y);
        if (label < 0 || label >= static_cast<int>(counts.extents.y) || r < 0) return;
        // One count per pixel, at its own radius: the host sums them from the
        // largest radius down.
        const int column = r < static_cast<int>(counts.extents.x) ? r : static_cast<int>(counts.extents.x) - 1;
        vela::device::addAtomic(&vela::at(counts, static_cast<unsigned int>(column), static_cast<unsigned int>(label)),
                                1);
    }
};

struct labelsAtPoints_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 1> points, unsigned int n, Array<int, 2> labels,
                            Array<int, 2> radius, Array<int2, 1> radii, Array<int2, 1> found) const {
        const unsigned int i = pointIndex(t);
        if (i >= n) return;
        const float2 p = vela::at(points, i);
        int2 result = make_int2(-1, -1);
        if (inFrame(p, labels.extents.x, labels.extents.y)) {
            const unsigned int x = static_cast<unsigned int>(p.x), y = static_cast<unsigned int>(p.y);
            const int label = vela::at(labels, x, y);
            bool sure = false;
            if (label >= 0 && static_cast<unsigned int>(label) < radii.extents.x) {
                const int2 range = vela::at(radii, static_cast<unsigned int>(label));
                const int r = vela::at(radius, x, y);
                sure = r >= range.x && r <= range.y;
            }
            result = make_int2(sure ? label : -1, label < 0 ? -1 : label);
        }
        vela::at(found, i) = result;
    }
};

struct clickReachCost_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> cost, Array<float4, 1> clicks, unsigned int n,
                            float weight, int exempt) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned int layer = t.blockIdx.z;
        if (x >= cost.extents.x || y >= cost.extents.y || static_cast<int>(layer) == exempt) return;
        const float px = static_cast<float>(x) + 0.5f, py = static_cast<float>(y) + 0.5f;
        float nearest = -1.0f, reach = 1.0f;
        for (unsigned int i = 0; i < n; ++i) {
            const float4 c = vela::at(clicks, i);
            if (static_cast<unsigned int>(c.z) != layer) continue;
            const float d = sqrtf((c.x - px) * (c.x - px) + (c.y - py) * (c.y - py));
            if (nearest < 0.0f || d < nearest) nearest = d;
            reach = c.w;
        }
        if (nearest < 0.0f) return;
        vela::at(cost, x, y, layer) += weight * fminf(fmaxf(nearest / reach - 1.0f, 0.0f), 1.0f);
    }
};

struct clickMotionCost_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> cost, Array<float2, 2> backward, Array<float2, 2> forward,
                            Array<float4, 1> motions, unsigned int n, float weight) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        const unsigned int layer = t.blockIdx.z;
        if (x >= cost.extents.x || y >= cost.extents.y) return;
        const float2 b = vela::at(backward, x, y);
        const float2 f = sampleField(forward, static_cast<float>(x) + b.x, static_cast<float>(y) + b.y);
        if (!flowsAgree(f, b)) return;
        float own = -1.0f, least = -1.0f;
        for (unsigned int i = 0; i < n; ++i) {
            const float4 m = vela::at(motions, i);
            const float d = sqrtf((m.x + b.x) * (m.x + b.x) + (m.y + b.y) * (m.y + b.y));
            if (least < 0.0f || d < least) least = d;
            if (static_cast<unsigned int>(m.z) == layer && (own < 0.0f || d < own)) own = d;
        }
        if (own < 0.0f) return;
        vela::at(cost, x, y, layer) += weight * fminf((own - least) / kClickMotionScale, 1.0f);
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

struct motionMisfits_kernel {
    VELA_HD void operator()(const Thread& t, Array<float4, 1> points, Array<int, 1> layers, unsigned int n,
                            Array<float4, 1> motions, Array<int, 1> better) const {
        const unsigned int i = pointIndex(t);
        if (i >= n) return;
        const float4 p = vela::at(points, i);
        const int own = vela::at(layers, i);
        int best = -1;
        if (own >= 0 && vela::at(motions, static_cast<unsigned int>(own)).z > 0.0f) {
            const float mx = p.x - p.z, my = p.y - p.w;
            const float4 mine = vela::at(motions, static_cast<unsigned int>(own));
            const float misfit = hypotf(mx - mine.x, my - mine.y);
            float closest = kMotionFit * misfit;
            for (unsigned int k = 0; misfit > kMotionMisfit && k < motions.extents.x; ++k) {
                const float4 other = vela::at(motions, k);
                const float miss = hypotf(mx - other.x, my - other.y);
                if (static_cast<int>(k) != own && other.z > 0.0f && miss < closest) {
                    closest = miss;
                    best = static_cast<int>(k);
                }
            }
            if (best < 0 && misfit > kStrayMotion) {
                bool likeAny = false;
                for (unsigned int k = 0; k < motions.extents.x; ++k) {
                    const float4 other = vela::at(motions, k);
                    likeAny = likeAny || hypotf(mx - other.x, my - other.y) <= kMotionMisfit;
                }
                if (!likeAny) best = kStrays;
            }
        } else if (own == kNoLabelYet) {
            // The nearest label's motion, and how near the second comes; a
            // label that does not move as one may stand in the way, but not
            // give its label.
            const float mx = p.x - p.z, my = p.y - p.w;
            float nearest = -1.0f, second = -1.0f;
            int at = -1;
            for (unsigned int k = 0; k < motions.extents.x; ++k) {
                const float4 other = vela::at(motions, k);
                const float miss = hypotf(mx - other.x, my - other.y);
                if (nearest < 0.0f || miss < nearest) {
                    second = nearest;
                    nearest = miss;
                    at = static_cast<int>(k);
                } else if (second < 0.0f || miss < second) {
                    second = miss;
                }
            }
            if (at >= 0 && vela::at(motions, static_cast<unsigned int>(at)).z > 0.0f && nearest <= kMotionMisfit &&
                (second < 0.0f || nearest < kMotionFit * second))
                best = at;
        }
        vela::at(better, i) = best;
    }
};

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

void countPointsInCells(const Array<float2, 1>& points, const Array<int, 1>& kept, unsigned int n, unsigned int spacing,
                        Array<int, 2>& cells) {
    vela::Array<int, 4> all = vela::internal::increaseArrayDimension(cells);
    vela::set(all, 0);
    if (n == 0) return;
    vela::device::launch<countPoints_kernel>(pointGrid(n), dim3(kPointBlock), nullptr, points, kept, n, spacing, cells);
    check(__LINE__);
}

void uniformRadius(const Array<int, 2>& labels, unsigned int margin, Array<int, 2>& rows, Array<int, 2>& radius) {
    const unsigned int w = labels.extents.x, h = labels.extents.y;
    if (w == 0 || h == 0) return;
    vela::device::launch<rowRadius_kernel>(pixelGrid(w, h), dim3(kBlockX, kBlockY), nullptr, labels, margin, rows);
    vela::device::launch<columnRadius_kernel>(pixelGrid(w, h), dim3(kBlockX, kBlockY), nullptr, labels, rows, margin,
                                              radius);
    check(__LINE__);
}

void countRadii(const Array<int, 2>& labels, const Array<int, 2>& radius, Array<int, 2>& counts) {
    vela::Array<int, 4> all = vela::internal::increaseArrayDimension(counts);
    vela::set(all, 0);
    const unsigned int w = labels.extents.x, h = labels.extents.y;
    if (w == 0 || h == 0) return;
    vela::device::launch<countRadii_kernel>(pixelGrid(w, h), dim3(kBlockX, kBlockY), nullptr, labels, radius, counts);
    check(__LINE__);
}

void labelsAtPoints(const Array<float2, 1>& points, unsigned int n, const Array<int, 2>& labels,
                    const Array<int, 2>& radius, const Array<int2, 1>& radii, Array<int2, 1>& found) {
    if (n == 0) return;
    vela::device::launch<labelsAtPoints_kernel>(pointGrid(n), dim3(kPointBlock), nullptr, points, n, labels, radius,
                                                radii, found);
    check(__LINE__);
}

void addClickReachCost(Array<float, 3>& cost, const Array<float4, 1>& clicks, unsigned int n, float weight,
                       int exempt) {
    const unsigned int w = cost.extents.x, h = cost.extents.y;
    if (w == 0 || h == 0 || n == 0 || weight == 0.0f) return;
    const dim3 grid(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY), cost.extents.z);
    vela::device::launch<clickReachCost_kernel>(grid, dim3(kBlockX, kBlockY), nullptr, cost, clicks, n, weight, exempt);
    check(__LINE__);
}

void addClickMotionCost(Array<float, 3>& cost, const Array<float2, 2>& backward, const Array<float2, 2>& forward,
                        const Array<float4, 1>& motions, unsigned int n, float weight) {
    const unsigned int w = cost.extents.x, h = cost.extents.y;
    if (w == 0 || h == 0 || n == 0 || weight == 0.0f) return;
    const dim3 grid(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY), cost.extents.z);
    vela::device::launch<clickMotionCost_kernel>(grid, dim3(kBlockX, kBlockY), nullptr, cost, backward, forward,
                                                 motions, n, weight);
    check(__LINE__);
}

void motionMisfits(const Array<float4, 1>& points, const Array<int, 1>& layers, unsigned int n,
                   const Array<float4, 1>& motions, Array<int, 1>& better) {
    if (n == 0) return;
    vela::device::launch<motionMisfits_kernel>(dim3(vela::device::blocksFor(n, kPointBlock)), dim3(kPointBlock),
                                               nullptr, points, layers, n, motions, better);
    check(__LINE__);
}

void imposeLayers(Array<float, 3>& u, const Array<int, 2>& layers) {
    const unsigned int w = u.extents.x, h = u.extents.y;
    if (w == 0 || h == 0) return;
    vela::device::launch<imposeLayers_kernel>(pixelGrid(w, h), dim3(kBlockX, kBlockY), nullptr, u, layers);
    check(__LINE__);
}

}  // namespace propagate
