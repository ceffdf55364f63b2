#include "src/video/motion.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "src/block_sums.h"
#include "src/engine_arrays.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace video {
namespace {

using vela::Array;
using vela::device::Thread;

constexpr const char* kSource = "src/video/motion";
constexpr unsigned int kBlockX = 32, kBlockY = 8;
constexpr int kCell = 8;               // pixels per side of a grid cell
constexpr float kSigma = 12.0f;        // of the points' Gaussian weights, in pixels
constexpr float kReach = 3.0f;         // points count within kReach * kSigma
constexpr float kLeastWeight = 1e-4f;  // less total weight: no motion known

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

VELA_HD inline bool pixelOf(const Thread& t, unsigned int w, unsigned int h, unsigned int& x, unsigned int& y) {
    x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
    y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
    return x < w && y < h;
}

// Rows of cells above and below a cell whose points can lie within reach of
// its centre.
constexpr int kReachRows = static_cast<int>(kReach * kSigma) / kCell + 1;

// The weighted mean motion at each cell's centre and the weights' sum, from
// the points within reach, one grid layer per group of points.  The points
// (x, y, fromX, fromY) come sorted by group and by the row of cells they lie
// in: those of group g in cell row r are first(g, r) .. first(g, r + 1) - 1.
struct cellMotion_kernel {
    VELA_HD void operator()(const Thread& t, Array<float4, 3> cells, Array<float4, 1> points,
                            Array<int, 2> first) const {
        unsigned int cx, cy;
        if (!pixelOf(t, cells.extents.x, cells.extents.y, cx, cy)) return;
        const unsigned int layer = t.blockIdx.z;
        const float x = (static_cast<float>(cx) + 0.5f) * kCell, y = (static_cast<float>(cy) + 0.5f) * kCell;
        const float reach2 = kReach * kReach * kSigma * kSigma;
        const int rows = static_cast<int>(cells.extents.y);
        const int top = static_cast<int>(cy) - kReachRows > 0 ? static_cast<int>(cy) - kReachRows : 0;
        const int bottom = static_cast<int>(cy) + kReachRows < rows ? static_cast<int>(cy) + kReachRows : rows - 1;
        float sx = 0.0f, sy = 0.0f, sw = 0.0f;
        const int end = vela::at(first, static_cast<unsigned int>(bottom + 1), layer);
        for (int i = vela::at(first, static_cast<unsigned int>(top), layer); i < end; ++i) {
            const float4 p = vela::at(points, static_cast<unsigned int>(i));
            const float dx = p.x - x, dy = p.y - y, d2 = dx * dx + dy * dy;
            if (d2 > reach2) continue;
            const float weight = expf(-d2 / (2.0f * kSigma * kSigma));
            sx += weight * (p.x - p.z);
            sy += weight * (p.y - p.w);
            sw += weight;
        }
        vela::at(cells, cx, cy, layer) =
            sw > kLeastWeight ? make_float4(sx / sw, sy / sw, sw, 0.0f) : make_float4(0.0f, 0.0f, 0.0f, 0.0f);
    }
};

// A layer of cells read bilinearly at pixel (x, y), clamped at the outer
// cells' centres: (motion x, motion y, weight).
VELA_HD inline float4 cellsAt(const Array<float4, 3>& cells, unsigned int layer, unsigned int x, unsigned int y) {
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

// All points' motion at every pixel.
struct pixelMotion_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 2> motion, Array<float4, 3> cells) const {
        unsigned int x, y;
        if (!pixelOf(t, motion.extents.x, motion.extents.y, x, y)) return;
        const float4 m = cellsAt(cells, 0, x, y);
        vela::at(motion, x, y) = make_float2(m.x, m.y);
    }
};

VELA_HD inline float2 operator*(float s, float2 v) { return make_float2(s * v.x, s * v.y); }
VELA_HD inline float2 operator+(float2 a, float2 b) { return make_float2(a.x + b.x, a.y + b.y); }

// Where pixel (x, y) came from, and the four pixels around that point with
// their bilinear weights; false when it lies outside the image.
struct Origin {
    unsigned int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    float w00 = 0.0f, w10 = 0.0f, w01 = 0.0f, w11 = 0.0f;

    VELA_HD bool find(const Array<float2, 2>& motion, unsigned int x, unsigned int y) {
        const float2 m = vela::at(motion, x, y);
        const float sx = static_cast<float>(x) - m.x, sy = static_cast<float>(y) - m.y;
        const float maxX = static_cast<float>(motion.extents.x - 1), maxY = static_cast<float>(motion.extents.y - 1);
        if (!(sx >= 0.0f && sy >= 0.0f && sx <= maxX && sy <= maxY)) return false;
        x0 = static_cast<unsigned int>(sx);
        y0 = static_cast<unsigned int>(sy);
        x1 = x0 + 1 < motion.extents.x ? x0 + 1 : x0;
        y1 = y0 + 1 < motion.extents.y ? y0 + 1 : y0;
        const float fx = sx - static_cast<float>(x0), fy = sy - static_cast<float>(y0);
        w00 = (1 - fx) * (1 - fy);
        w10 = fx * (1 - fy);
        w01 = (1 - fx) * fy;
        w11 = fx * fy;
        return true;
    }
    template <class T>
    VELA_HD T read(const Array<T, 3>& a, unsigned int layer) const {
        return w00 * vela::at(a, x0, y0, layer) + w10 * vela::at(a, x1, y0, layer) + w01 * vela::at(a, x0, y1, layer) +
               w11 * vela::at(a, x1, y1, layer);
    }
};

// Each label's own motion where its tracks reach (weight above kLeastReach),
// scored by how much of that label the frame before had at the origin it
// gives; the best label's motion wins.  Where two labels score within
// kTiedShare of each other, both explain the pixel (at an object's leading
// edge the background stood here and the object stood at its own origin),
// and the one whose origin looks like the pixel wins: the object that now
// covers it.  Layer 0 of `cells` holds all points'
// motion (the fallback), layer j + 1 that of label j of `previous`.
constexpr float kLeastReach = 0.05f;
// Below this share of the winning label at the origin (against the largest
// label's there), no label of the frame before arrives at a pixel: it was
// hidden or outside the frame.
constexpr float kLeastSupport = 0.5f;
constexpr float kTiedShare = 0.25f;

// Mean absolute colour difference per channel between the 3 x 3 patch around
// (x, y) in `image` and the one around its origin under motion m in
// `previous` (nearest pixels, clamped at the border).
VELA_HD inline float patchDifference(const Array<float4, 2>& image, const Array<float4, 2>& previous, unsigned int x,
                                     unsigned int y, float2 m) {
    const int w = static_cast<int>(image.extents.x), h = static_cast<int>(image.extents.y);
    auto clampTo = [](int v, int n) { return v < 0 ? 0 : v >= n ? n - 1 : v; };
    const int ox = static_cast<int>(floorf(static_cast<float>(x) - m.x + 0.5f));
    const int oy = static_cast<int>(floorf(static_cast<float>(y) - m.y + 0.5f));
    float sum = 0.0f;
    for (int dy = -1; dy <= 1; ++dy)
        for (int dx = -1; dx <= 1; ++dx) {
            const float4 a = vela::at(image, static_cast<unsigned int>(clampTo(static_cast<int>(x) + dx, w)),
                                      static_cast<unsigned int>(clampTo(static_cast<int>(y) + dy, h)));
            const float4 b = vela::at(previous, static_cast<unsigned int>(clampTo(ox + dx, w)),
                                      static_cast<unsigned int>(clampTo(oy + dy, h)));
            sum += fabsf(a.x - b.x) + fabsf(a.y - b.y) + fabsf(a.z - b.z);
        }
    return sum / 27.0f;
}

struct objectMotion_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 2> motion, Array<float4, 3> cells, Array<float, 3> previous,
                            Array<float4, 2> image, Array<float4, 2> previousImage, Array<float, 2> support) const {
        unsigned int x, y;
        if (!pixelOf(t, motion.extents.x, motion.extents.y, x, y)) return;
        const float4 all = cellsAt(cells, 0, x, y);
        float2 best = make_float2(all.x, all.y);
        float bestScore = 0.0f, bestDifference = 0.0f;
        for (unsigned int j = 0; j < previous.extents.z; ++j) {
            const float4 m = cellsAt(cells, j + 1, x, y);
            if (m.z < kLeastReach) continue;
            vela::at(motion, x, y) = make_float2(m.x, m.y);
            Origin o;
            if (!o.find(motion, x, y)) continue;
            const float score = o.read(previous, j);
            if (score <= 0.0f) continue;
            const float difference = patchDifference(image, previousImage, x, y, make_float2(m.x, m.y));
            const bool tied = bestScore > 0.0f && fabsf(score - bestScore) < kTiedShare;
            if (tied ? difference < bestDifference : score > bestScore) {
                bestScore = score;
                bestDifference = difference;
                best = make_float2(m.x, m.y);
            }
        }
        vela::at(motion, x, y) = best;
        // The winning label's share at its origin against the largest share
        // there: a label that merely leaks into the origin explains nothing.
        float largest = 0.0f;
        Origin o;
        if (bestScore > 0.0f && o.find(motion, x, y))
            for (unsigned int j = 0; j < previous.extents.z; ++j) largest = fmaxf(largest, o.read(previous, j));
        vela::at(support, x, y) = largest > 0.0f ? fminf(bestScore / largest, 1.0f) : 0.0f;
    }
};

struct moveLayers_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> out, Array<float, 3> previous, Array<float2, 2> motion,
                            Array<int, 1> from, int normalise, float outside) const {
        unsigned int x, y;
        if (!pixelOf(t, out.extents.x, out.extents.y, x, y)) return;
        const unsigned int labels = out.extents.z;
        Origin o;
        const bool inside = o.find(motion, x, y);
        float sum = 0.0f;
        for (unsigned int k = 0; k < labels; ++k) {
            const int source = vela::at(from, k);
            const float v = !inside ? outside : source < 0 ? 0.0f : o.read(previous, static_cast<unsigned int>(source));
            vela::at(out, x, y, k) = v;
            sum += v;
        }
        if (!normalise) return;
        for (unsigned int k = 0; k < labels; ++k) {
            float& v = vela::at(out, x, y, k);
            v = sum > 0.0f ? v / sum : 1.0f / static_cast<float>(labels);
        }
    }
};

struct moveDual_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 3> out, Array<float2, 3> previous, Array<float2, 2> motion,
                            Array<int, 1> from) const {
        unsigned int x, y;
        if (!pixelOf(t, out.extents.x, out.extents.y, x, y)) return;
        Origin o;
        const bool inside = o.find(motion, x, y);
        for (unsigned int k = 0; k < out.extents.z; ++k) {
            const int source = vela::at(from, k);
            vela::at(out, x, y, k) =
                inside && source >= 0 ? o.read(previous, static_cast<unsigned int>(source)) : make_float2(0.0f, 0.0f);
        }
    }
};

// |I(x, y) - I'(origin)| summed over the channels; the previous frame's
// colour at the nearest pixel to the origin, or the pixel itself outside.
struct MovedDifference {
    static constexpr int N = 1;
    Array<float4, 2> image, previous;
    Array<float2, 2> motion;
    VELA_HD void operator()(unsigned int x, unsigned int y, unsigned int, float* values) const {
        const float2 m = vela::at(motion, x, y);
        const float sx = static_cast<float>(x) - m.x + 0.5f, sy = static_cast<float>(y) - m.y + 0.5f;
        unsigned int px = x, py = y;
        if (sx >= 0.0f && sy >= 0.0f && sx < static_cast<float>(image.extents.x) &&
            sy < static_cast<float>(image.extents.y)) {
            px = static_cast<unsigned int>(sx);
            py = static_cast<unsigned int>(sy);
        }
        const float4 a = vela::at(image, x, y), b = vela::at(previous, px, py);
        values[0] = fabsf(a.x - b.x) + fabsf(a.y - b.y) + fabsf(a.z - b.z);
    }
};

// changed(x, y) = 1 where the mean colour difference per channel between the
// frame and the frame before, moved, exceeds `threshold`, or where the motion
// brings too little of any label (support below kLeastSupport), else 0.
struct changedPixels_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 2> changed, MovedDifference difference,
                            Array<float, 2> support, float threshold) const {
        unsigned int x, y;
        if (!pixelOf(t, changed.extents.x, changed.extents.y, x, y)) return;
        float sum = 0.0f;
        difference(x, y, 0, &sum);
        const bool unexplained = vela::at(support, x, y) < kLeastSupport;
        vela::at(changed, x, y) = sum > 3.0f * threshold || unexplained ? 1.0f : 0.0f;
    }
};

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

void check(int line) { vela::_CHECK_CUDA_ERROR(kSource, line); }

dim3 block() { return dim3(kBlockX, kBlockY); }
dim3 grid(unsigned int w, unsigned int h) {
    return dim3(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
}

template <class T>
vela::Array<T, 1> upload(std::vector<T> values, vela::ScopedArray<T, 1>& owner) {
    owner.a = seg::deviceArray1D<T>(static_cast<unsigned int>(values.size()));
    if (!values.empty())
        vela::arrayCopy(owner.a, seg::hostView1D(values.data(), static_cast<unsigned int>(values.size())));
    return owner.a;
}

template <class A, class B>
void requireSameSize(const char* what, const A& a, const B& b) {
    if (a.extents.x != b.extents.x || a.extents.y != b.extents.y)
        throw std::runtime_error(std::string("video::") + what + ": the arrays differ in size");
}

// The cells of every group of points: layer 0 all points, then one layer per
// group that `groupOf` (-1 for none) puts a point into.
template <class GroupOf>
vela::Array<float4, 3> groupCells(unsigned int w, unsigned int h, const std::vector<MotionPoint>& points,
                                  unsigned int groups, GroupOf groupOf) {
    // Layer 0 holds every point, layer g + 1 those of group g; within a
    // layer, by row of cells and otherwise in their order.
    const unsigned int cw = vela::device::blocksFor(w, kCell), ch = vela::device::blocksFor(h, kCell);
    std::vector<unsigned int> rowOf(points.size());
    for (std::size_t i = 0; i < points.size(); ++i) {
        const float row = std::floor(points[i].y / static_cast<float>(kCell));
        rowOf[i] = row < 0.0f ? 0u : std::min(static_cast<unsigned int>(row), ch - 1);
    }
    std::vector<float4> packed;
    std::vector<int> first(static_cast<std::size_t>(ch + 1) * (groups + 1), 0);
    std::vector<std::size_t> layerPoints;
    for (unsigned int layer = 0; layer <= groups; ++layer) {
        layerPoints.clear();
        for (std::size_t i = 0; i < points.size(); ++i)
            if (layer == 0 || groupOf(points[i]) == static_cast<int>(layer - 1)) layerPoints.push_back(i);
        std::stable_sort(layerPoints.begin(), layerPoints.end(),
                         [&](std::size_t a, std::size_t b) { return rowOf[a] < rowOf[b]; });
        int* rowStart = &first[static_cast<std::size_t>(layer) * (ch + 1)];
        std::size_t next = 0;
        for (unsigned int row = 0; row <= ch; ++row) {
            rowStart[row] = static_cast<int>(packed.size());
            for (; row < ch && next < layerPoints.size() && rowOf[layerPoints[next]] == row; ++next) {
                const MotionPoint& p = points[layerPoints[next]];
                packed.push_back(make_float4(p.x, p.y, p.fromX, p.fromY));
            }
        }
    }
    vela::ScopedArray<float4, 1> devicePoints;
    upload(packed, devicePoints);
    vela::ScopedArray<int, 2> deviceFirst(seg::deviceArray2D<int>(ch + 1, groups + 1));
    vela::arrayCopy(deviceFirst.a, vela::arrayFromHostMemory(first.data(), make_uint2(ch + 1, groups + 1)));
    vela::ScopedArray<float4, 3> cells(seg::deviceArray3D<float4>(cw, ch, groups + 1));
    const dim3 g = grid(cw, ch);
    vela::device::launch<cellMotion_kernel>(dim3(g.x, g.y, groups + 1), block(), nullptr, cells.a, devicePoints.a,
                                            deviceFirst.a);
    check(__LINE__);
    const vela::Array<float4, 3> result = cells.a;
    cells.a = vela::Array<float4, 3>{};
    return result;
}

}  // namespace

void denseMotion(Array<float2, 2>& motion, const std::vector<MotionPoint>& points) {
    const unsigned int w = motion.extents.x, h = motion.extents.y;
    if (w == 0 || h == 0) return;
    vela::ScopedArray<float4, 3> cells(groupCells(w, h, points, 0, [](const MotionPoint&) { return -1; }));
    vela::device::launch<pixelMotion_kernel>(grid(w, h), block(), nullptr, motion, cells.a);
    check(__LINE__);
}

void objectMotion(Array<float2, 2>& motion, const std::vector<MotionPoint>& points, const Array<float, 3>& previous,
                  const std::vector<int>& previousLabels, const Array<float4, 2>& image,
                  const Array<float4, 2>& previousImage, Array<float, 2>& support) {
    const unsigned int w = motion.extents.x, h = motion.extents.y;
    requireSameSize("objectMotion", previous, motion);
    requireSameSize("objectMotion", support, motion);
    requireSameSize("objectMotion", image, motion);
    requireSameSize("objectMotion", previousImage, motion);
    if (previousLabels.size() != previous.extents.z)
        throw std::runtime_error("video::objectMotion: one label per layer of the labelling before");
    if (w == 0 || h == 0) return;
    const unsigned int labels = previous.extents.z;
    vela::ScopedArray<float4, 3> cells(groupCells(w, h, points, labels, [&](const MotionPoint& p) {
        const auto found = std::find(previousLabels.begin(), previousLabels.end(), p.label);
        return found == previousLabels.end() ? -1 : static_cast<int>(found - previousLabels.begin());
    }));
    vela::device::launch<objectMotion_kernel>(grid(w, h), block(), nullptr, motion, cells.a, previous, image,
                                              previousImage, support);
    check(__LINE__);
}

namespace {

// Checks the arrays of a move and runs `Kernel` over the pixels of `out`.
template <class Kernel, class T, class... Extra>
void launchMove(Array<T, 3>& out, const Array<T, 3>& previous, const Array<float2, 2>& motion,
                const std::vector<int>& from, const Extra&... extra) {
    requireSameSize("moveLayers", out, motion);
    requireSameSize("moveLayers", previous, motion);
    if (from.size() != out.extents.z) throw std::runtime_error("video::moveLayers: one source per layer");
    if (out.extents.z == 0 || out.extents.x == 0 || out.extents.y == 0) return;
    vela::ScopedArray<int, 1> sources;
    upload(from, sources);
    vela::device::launch<Kernel>(grid(out.extents.x, out.extents.y), block(), nullptr, out, previous, motion, sources.a,
                                 extra...);
    check(__LINE__);
}

}  // namespace

void moveLayers(Array<float, 3>& out, const Array<float, 3>& previous, const Array<float2, 2>& motion,
                const std::vector<int>& from, bool normalise, float outside) {
    launchMove<moveLayers_kernel>(out, previous, motion, from, normalise ? 1 : 0, outside);
}

void moveLayers(Array<float2, 3>& out, const Array<float2, 3>& previous, const Array<float2, 2>& motion,
                const std::vector<int>& from) {
    launchMove<moveDual_kernel>(out, previous, motion, from);
}

double movedColourDifference(const Array<float4, 2>& image, const Array<float4, 2>& previous,
                             const Array<float2, 2>& motion) {
    requireSameSize("movedColourDifference", image, previous);
    requireSameSize("movedColourDifference", image, motion);
    const unsigned int w = image.extents.x, h = image.extents.y;
    if (w == 0 || h == 0) return 0.0;
    const double sum = seg::pixelSums(MovedDifference{image, previous, motion}, w, h).of[0][0];
    return sum / (3.0 * w * h);
}

void changedPixels(Array<float, 2>& changed, const Array<float4, 2>& image, const Array<float4, 2>& previous,
                   const Array<float2, 2>& motion, const Array<float, 2>& support, float threshold) {
    requireSameSize("changedPixels", image, previous);
    requireSameSize("changedPixels", image, motion);
    requireSameSize("changedPixels", image, support);
    requireSameSize("changedPixels", image, changed);
    vela::device::launch<changedPixels_kernel>(grid(image.extents.x, image.extents.y), block(), nullptr, changed,
                                               MovedDifference{image, previous, motion}, support, threshold);
    check(__LINE__);
}

}  // namespace video
