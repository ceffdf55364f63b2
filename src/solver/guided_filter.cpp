#include "src/solver/guided_filter.h"

#include <stdexcept>
#include <string>

#include "src/engine_arrays.h"
#include "src/solver/grid.h"
#include "vela/access.h"
#include "vela/device/launch.h"

namespace seg {
namespace {

using vela::Array;
using vela::device::Thread;

constexpr const char* kSource = "src/solver/guided_filter";
constexpr unsigned int kLineThreads = 64;  // threads of a block that each run along a row or a column

// The guide's moments: R, G, B and the six products RR, RG, RB, GG, GB, BB.
constexpr unsigned int kGuideLayers = 9;
// A label's: p, pR, pG, pB; and the coefficients a (3) and b of its fit.
constexpr unsigned int kLabelLayers = 4;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// Pixels of the clipped window around i along an axis of n pixels.
VELA_HD inline float windowLength(int i, int n, int radius) {
    const int first = i - radius < 0 ? 0 : i - radius;
    const int last = i + radius > n - 1 ? n - 1 : i + radius;
    return static_cast<float>(last - first + 1);
}

// Window sums along each row, one thread per row and layer, by a running sum.
struct boxRows_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> out, Array<float, 3> in, int radius) const {
        const unsigned int y = t.blockIdx.x * t.blockDim.x + t.threadIdx.x, layer = t.blockIdx.y;
        const int w = static_cast<int>(in.extents.x);
        if (y >= in.extents.y) return;
        float sum = 0.0f;
        for (int x = 0; x < radius && x < w; ++x) sum += vela::at(in, static_cast<unsigned int>(x), y, layer);
        for (int x = 0; x < w; ++x) {
            if (x + radius < w) sum += vela::at(in, static_cast<unsigned int>(x + radius), y, layer);
            vela::at(out, static_cast<unsigned int>(x), y, layer) = sum;
            if (x - radius >= 0) sum -= vela::at(in, static_cast<unsigned int>(x - radius), y, layer);
        }
    }
};

// Window sums of the row sums along each column, divided by the window's
// pixels: the means.  One thread per column and layer.
struct boxColumns_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> out, Array<float, 3> in, int radius) const {
        const unsigned int x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x, layer = t.blockIdx.y;
        const int w = static_cast<int>(in.extents.x), h = static_cast<int>(in.extents.y);
        if (x >= in.extents.x) return;
        const float across = windowLength(static_cast<int>(x), w, radius);
        float sum = 0.0f;
        for (int y = 0; y < radius && y < h; ++y) sum += vela::at(in, x, static_cast<unsigned int>(y), layer);
        for (int y = 0; y < h; ++y) {
            if (y + radius < h) sum += vela::at(in, x, static_cast<unsigned int>(y + radius), layer);
            vela::at(out, x, static_cast<unsigned int>(y), layer) = sum / (across * windowLength(y, h, radius));
            if (y - radius >= 0) sum -= vela::at(in, x, static_cast<unsigned int>(y - radius), layer);
        }
    }
};

struct guideMoments_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> moments, Array<float4, 2> image) const {
        unsigned int x, y;
        if (!pixelOf(t, image.extents.x, image.extents.y, x, y)) return;
        const float4 c = vela::at(image, x, y);
        const float v[kGuideLayers] = {c.x, c.y, c.z, c.x * c.x, c.x * c.y, c.x * c.z, c.y * c.y, c.y * c.z, c.z * c.z};
        for (unsigned int k = 0; k < kGuideLayers; ++k) vela::at(moments, x, y, k) = v[k];
    }
};

struct labelMoments_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> moments, Array<float, 3> in, unsigned int label,
                            Array<float4, 2> image) const {
        unsigned int x, y;
        if (!pixelOf(t, image.extents.x, image.extents.y, x, y)) return;
        const float4 c = vela::at(image, x, y);
        const float p = vela::at(in, x, y, label);
        vela::at(moments, x, y, 0u) = p;
        vela::at(moments, x, y, 1u) = p * c.x;
        vela::at(moments, x, y, 2u) = p * c.y;
        vela::at(moments, x, y, 3u) = p * c.z;
    }
};

// The window's best linear fit p = a . I + b: a = (Cov(I) + epsilon)^-1 Cov(I, p),
// b = mean p - a . mean I, by the closed-form inverse of the symmetric 3 x 3.
struct fitCoefficients_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> fit, Array<float, 3> guide, Array<float, 3> label,
                            float epsilon) const {
        unsigned int x, y;
        if (!pixelOf(t, fit.extents.x, fit.extents.y, x, y)) return;
        const float mr = vela::at(guide, x, y, 0u), mg = vela::at(guide, x, y, 1u), mb = vela::at(guide, x, y, 2u);
        const float srr = vela::at(guide, x, y, 3u) - mr * mr + epsilon;
        const float srg = vela::at(guide, x, y, 4u) - mr * mg;
        const float srb = vela::at(guide, x, y, 5u) - mr * mb;
        const float sgg = vela::at(guide, x, y, 6u) - mg * mg + epsilon;
        const float sgb = vela::at(guide, x, y, 7u) - mg * mb;
        const float sbb = vela::at(guide, x, y, 8u) - mb * mb + epsilon;
        const float mp = vela::at(label, x, y, 0u);
        const float cr = vela::at(label, x, y, 1u) - mr * mp;
        const float cg = vela::at(label, x, y, 2u) - mg * mp;
        const float cb = vela::at(label, x, y, 3u) - mb * mp;
        // Cofactors of the symmetric matrix.
        const float irr = sgg * sbb - sgb * sgb, irg = srb * sgb - srg * sbb, irb = srg * sgb - srb * sgg;
        const float igg = srr * sbb - srb * srb, igb = srg * srb - srr * sgb, ibb = srr * sgg - srg * srg;
        const float det = srr * irr + srg * irg + srb * irb;
        const float ar = (irr * cr + irg * cg + irb * cb) / det;
        const float ag = (irg * cr + igg * cg + igb * cb) / det;
        const float ab = (irb * cr + igb * cg + ibb * cb) / det;
        vela::at(fit, x, y, 0u) = ar;
        vela::at(fit, x, y, 1u) = ag;
        vela::at(fit, x, y, 2u) = ab;
        vela::at(fit, x, y, 3u) = mp - (ar * mr + ag * mg + ab * mb);
    }
};

// out(x, y, label) = mean a . I + mean b.
struct applyFit_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 3> out, unsigned int label, Array<float, 3> fit,
                            Array<float4, 2> image) const {
        unsigned int x, y;
        if (!pixelOf(t, image.extents.x, image.extents.y, x, y)) return;
        const float4 c = vela::at(image, x, y);
        vela::at(out, x, y, label) = vela::at(fit, x, y, 0u) * c.x + vela::at(fit, x, y, 1u) * c.y +
                                     vela::at(fit, x, y, 2u) * c.z + vela::at(fit, x, y, 3u);
    }
};

}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

void boxMean(const Array<float, 3>& out, const Array<float, 3>& in, const Array<float, 3>& scratch, int radius) {
    const unsigned int w = in.extents.x, h = in.extents.y, layers = in.extents.z;
    if (w == 0 || h == 0 || layers == 0) return;
    const dim3 block(kLineThreads);
    vela::device::launch<boxRows_kernel>(dim3(vela::device::blocksFor(h, kLineThreads), layers), block, nullptr,
                                         scratch, in, radius);
    vela::device::launch<boxColumns_kernel>(dim3(vela::device::blocksFor(w, kLineThreads), layers), block, nullptr, out,
                                            scratch, radius);
}

void guidedFilter(const Array<float, 3>& out, const Array<float, 3>& in, const Array<float4, 2>& image, int radius,
                  float epsilon) {
    const unsigned int w = in.extents.x, h = in.extents.y, labels = in.extents.z;
    if (image.extents.x != w || image.extents.y != h || out.extents.x != w || out.extents.y != h ||
        out.extents.z != labels)
        throw std::runtime_error("seg::guidedFilter: the image, the input and the output differ in size");
    if (w == 0 || h == 0 || labels == 0) return;

    ScopedArray<float, 3> guideMoments(deviceArray3D<float>(w, h, kGuideLayers));
    ScopedArray<float, 3> guideMeans(deviceArray3D<float>(w, h, kGuideLayers));
    ScopedArray<float, 3> guideScratch(deviceArray3D<float>(w, h, kGuideLayers));
    vela::device::launch<guideMoments_kernel>(pixelGrid(w, h), pixelBlock(), nullptr, guideMoments.a, image);
    boxMean(guideMeans.a, guideMoments.a, guideScratch.a, radius);

    ScopedArray<float, 3> moments(deviceArray3D<float>(w, h, kLabelLayers));
    ScopedArray<float, 3> means(deviceArray3D<float>(w, h, kLabelLayers));
    ScopedArray<float, 3> scratch(deviceArray3D<float>(w, h, kLabelLayers));
    for (unsigned int l = 0; l < labels; ++l) {
        vela::device::launch<labelMoments_kernel>(pixelGrid(w, h), pixelBlock(), nullptr, moments.a, in, l, image);
        boxMean(means.a, moments.a, scratch.a, radius);
        vela::device::launch<fitCoefficients_kernel>(pixelGrid(w, h), pixelBlock(), nullptr, moments.a, guideMeans.a,
                                                     means.a, epsilon);
        boxMean(means.a, moments.a, scratch.a, radius);
        vela::device::launch<applyFit_kernel>(pixelGrid(w, h), pixelBlock(), nullptr, out, l, means.a, image);
    }
    vela::_CHECK_CUDA_ERROR(kSource, __LINE__);
}

}  // namespace seg
