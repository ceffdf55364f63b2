#include "src/video/motion.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "src/block_sums.h"
#include "src/engine_arrays.h"
#include "src/video/motion_cells.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace video {
namespace {

using vela::Array;
using vela::device::Thread;

constexpr seg::DeviceCheck check{"src/video/motion"};
constexpr unsigned int kBlockX = 32, kBlockY = 8;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

VELA_HD inline bool pixelOf(const Thread& t, unsigned int w, unsigned int h, unsigned int& x, unsigned int& y) {
    x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
    y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
    return x < w && y < h;
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
// gives; the best label's motion wins.  Layer 0 of `cells` holds all points'
// motion (the fallback), layer layerOf(j) that of label j of `previous` (-1:
// none).
constexpr float kLeastReach = 0.05f;
// Two labels scoring within this of each other both explain the pixel (at an
// object's leading edge the background stood here and the object stood at its
// own origin): the one whose origin looks like the pixel wins, the object that
// now covers it.
constexpr float kTiedShare = 0.25f;
// Below this share of the winning label at the origin (against the largest
// label's there), no label of the frame before arrives at a pixel: it was
// hidden or outside the frame.
constexpr float kLeastSupport = 0.5f;

struct objectMotion_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 2> motion, Array<float4, 3> cells, Array<int, 1> layerOf,
                            Array<float, 3> previous, Array<float4, 2> image, Array<float4, 2> previousImage,
                            Array<float, 2> support) const {
        unsigned int x, y;
        if (!pixelOf(t, motion.extents.x, motion.extents.y, x, y)) return;
        const float4 all = cellsAt(cells, 0, x, y);
        float2 best = make_float2(all.x, all.y);
        // The colour differences are needed only at a tie: the best's is
        // found then (negative: not yet).
        float bestScore = 0.0f, bestDifference = -1.0f;
        for (unsigned int j = 0; j < previous.extents.z; ++j) {
            const int layer = vela::at(layerOf, j);
            if (layer < 0) continue;
            const float4 m = cellsAt(cells, static_cast<unsigned int>(layer), x, y);
            if (m.z < kLeastReach) continue;
            vela::at(motion, x, y) = make_float2(m.x, m.y);
            Origin o;
            if (!o.find(motion, x, y)) continue;
            const float score = o.read(previous, j);
            if (score <= 0.0f) continue;
            const bool tied = bestScore > 0.0f && fabsf(score - bestScore) < kTiedShare;
            float difference = -1.0f;
            if (tied) {
                if (bestDifference < 0.0f) {
                    bestDifference = 0.0f;
                    originDifference(image, previousImage, x, y, best, bestDifference);
                }
                difference = 0.0f;
                originDifference(image, previousImage, x, y, make_float2(m.x, m.y), difference);
            }
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

}  // namespace

void denseMotion(Array<float2, 2>& motion, const std::vector<MotionPoint>& points) {
    const unsigned int w = motion.extents.x, h = motion.extents.y;
    if (w == 0 || h == 0) return;
    const TrackMotion tracks(w, h, points, {});
    vela::device::launch<pixelMotion_kernel>(grid(w, h), block(), nullptr, motion, tracks.cells());
    check(__LINE__);
}

void objectMotion(Array<float2, 2>& motion, const TrackMotion& tracks, const Array<float, 3>& previous,
                  const std::vector<int>& previousLabels, const Array<float4, 2>& image,
                  const Array<float4, 2>& previousImage, Array<float, 2>& support) {
    const unsigned int w = motion.extents.x, h = motion.extents.y;
    requireSameSize("objectMotion", previous, motion);
    requireSameSize("objectMotion", support, motion);
    requireSameSize("objectMotion", image, motion);
    requireSameSize("objectMotion", previousImage, motion);
    if (tracks.width() != w || tracks.height() != h)
        throw std::runtime_error("video::objectMotion: the tracks' motion is of another frame size");
    if (previousLabels.size() != previous.extents.z)
        throw std::runtime_error("video::objectMotion: one label per layer of the labelling before");
    if (w == 0 || h == 0) return;
    vela::ScopedArray<int, 1> layers;
    upload(tracks.layersOf(previousLabels), layers);
    vela::device::launch<objectMotion_kernel>(grid(w, h), block(), nullptr, motion, tracks.cells(), layers.a, previous,
                                              image, previousImage, support);
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
