#include "src/solver/edge_weights.h"

#include <cmath>
#include <stdexcept>

#include "src/block_sums.h"
#include "src/engine_arrays.h"
#include "src/solver/grid.h"
#include "vela/access.h"
#include "vela/algorithms/conversion.h"
#include "vela/cmatrixlib_interface.h"
#include "vela/device/launch.h"

namespace seg {
namespace {

using vela::Array;
using vela::device::Thread;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

// Clamped neighbours: (x+, x-, y+, y-).
struct Neighbours {
    unsigned int xp, xm, yp, ym;
    VELA_HD Neighbours(unsigned int x, unsigned int y, unsigned int w, unsigned int h)
        : xp(x + 1 < w ? x + 1 : x), xm(x > 0 ? x - 1 : 0), yp(y + 1 < h ? y + 1 : y), ym(y > 0 ? y - 1 : 0) {}
};

struct Rgb {
    float r, g, b;
};

VELA_HD inline Rgb minusRgb(float4 a, float4 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
VELA_HD inline Rgb scaled(Rgb a, float s) { return {a.r * s, a.g * s, a.b * s}; }
VELA_HD inline Rgb divided(Rgb a, float s) { return {a.r / s, a.g / s, a.b / s}; }
VELA_HD inline float dot(Rgb a, Rgb b) { return a.r * b.r + a.g * b.g + a.b * b.b; }
VELA_HD inline float channelSum(Rgb a) { return a.r + a.g + a.b; }

// s = sum_c (I_c(x+) - I_c(x-))^2 + sum_c (I_c(y+) - I_c(y-))^2, full central
// differences.
VELA_HD inline float centralEnergy(const Array<float4, 2>& image, unsigned int x, unsigned int y) {
    const Neighbours n(x, y, image.extents.x, image.extents.y);
    const Rgb dx = minusRgb(vela::at(image, n.xp, y), vela::at(image, n.xm, y));
    const Rgb dy = minusRgb(vela::at(image, x, n.yp), vela::at(image, x, n.ym));
    return dot(dx, dx) + dot(dy, dy);
}

// The colour Jacobian's columns normalised by its norm n, and the entries of
// the normalised structure tensor.  Below n = 1e-6 the direction is (1, 0):
// ex = (1, 0, 0), ey = 0.
struct ColourStructure {
    float n, sxx, sxy, syy;
    VELA_HD ColourStructure(const Array<float4, 2>& image, unsigned int x, unsigned int y) {
        const Neighbours nb(x, y, image.extents.x, image.extents.y);
        const Rgb jx = scaled(minusRgb(vela::at(image, nb.xp, y), vela::at(image, nb.xm, y)), 0.5f);
        const Rgb jy = scaled(minusRgb(vela::at(image, x, nb.yp), vela::at(image, x, nb.ym)), 0.5f);
        n = sqrtf(dot(jx, jx) + dot(jy, jy));
        Rgb ex{1.0f, 0.0f, 0.0f}, ey{0.0f, 0.0f, 0.0f};
        if (!(n < 1e-6f)) {
            ex = divided(jx, n);
            ey = divided(jy, n);
        }
        sxx = dot(ex, ex);
        sxy = dot(ex, ey);
        syy = dot(ey, ey);
    }
};

// A gradient's norm n and unit direction (ex, ey); (1, 0) where n is below
// `least` (the two tensor models draw that line at different norms).
struct Direction {
    float n, ex = 1.0f, ey = 0.0f;
    VELA_HD Direction(float2 g, float least) : n(sqrtf(g.x * g.x + g.y * g.y)) {
        if (!(n < least)) {
            ex = g.x / n;
            ey = g.y / n;
        }
    }
};

struct imageGradient_kernel {
    VELA_HD void operator()(const Thread& t, Array<float2, 2> gradient, Array<float4, 2> image) const {
        unsigned int x, y;
        if (!pixelOf(t, gradient.extents.x, gradient.extents.y, x, y)) return;
        const Neighbours n(x, y, gradient.extents.x, gradient.extents.y);
        const float4 here = vela::at(image, x, y);
        vela::at(gradient, x, y) = make_float2(channelSum(minusRgb(vela::at(image, n.xp, y), here)),
                                               channelSum(minusRgb(vela::at(image, x, n.yp), here)));
    }
};

struct imageDiffusivity_STD_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 2> g, Array<float4, 2> image) const {
        unsigned int x, y;
        if (!pixelOf(t, g.extents.x, g.extents.y, x, y)) return;
        vela::at(g, x, y) = 1.0f / sqrtf(centralEnergy(image, x, y) + 1e-6f);
    }
};

struct imageDiffusivity_EXP_kernel {
    VELA_HD void operator()(const Thread& t, Array<float, 2> g, Array<float4, 2> image, float alpha) const {
        unsigned int x, y;
        if (!pixelOf(t, g.extents.x, g.extents.y, x, y)) return;
        vela::at(g, x, y) = expf(-alpha * centralEnergy(image, x, y));
    }
};

struct compute_Diffusion_tensor_kernel {
    // The structure-tensor field of the solver's tensor model, with its weights.
    VELA_HD void operator()(const Thread& t, Array<float4, 2> D, Array<float4, 2> image, Array<float, 2> g) const {
        unsigned int x, y;
        if (!pixelOf(t, D.extents.x, D.extents.y, x, y)) return;
        const ColourStructure s(image, x, y);
        vela::at(D, x, y) = make_float4(s.syy + 1e-4f, -s.sxy, -s.sxy, s.sxx + 1e-4f);
        vela::at(g, x, y) = 1.0f / (s.n * s.n + 2e-4f);
    }

    // From a gradient: w = exp(-n^2) along its direction, 1 along the edge.
    VELA_HD void operator()(const Thread& t, Array<float4, 2> D, Array<float2, 2> gradient) const {
        unsigned int x, y;
        if (!pixelOf(t, D.extents.x, D.extents.y, x, y)) return;
        const Direction d(vela::at(gradient, x, y), 1e-6f);
        const float n = d.n, ex = d.ex, ey = d.ey;
        const float w = expf(-n * n);
        const float off = (w - 1.0f) * ex * ey;
        vela::at(D, x, y) = make_float4(w * ex * ex + ey * ey, off, off, w * ey * ey + ex * ex);
    }

    // From the image: w = exp(-2 n^2) on the normalised structure tensor.
    VELA_HD void operator()(const Thread& t, Array<float4, 2> D, Array<float4, 2> image) const {
        unsigned int x, y;
        if (!pixelOf(t, D.extents.x, D.extents.y, x, y)) return;
        const ColourStructure s(image, x, y);
        const float w = expf(-2.0f * s.n * s.n);
        const float off = (w - 1.0f) * s.sxy;
        vela::at(D, x, y) = make_float4(w * s.sxx + s.syy, off, off, w * s.syy + s.sxx);
    }
};

struct compute_Diffusion_tensor_exp_kernel {
    VELA_HD void operator()(const Thread& t, Array<float4, 2> D, Array<float2, 2> gradient) const {
        unsigned int x, y;
        if (!pixelOf(t, D.extents.x, D.extents.y, x, y)) return;
        const Direction d(vela::at(gradient, x, y), 1e-4f);
        vela::at(D, x, y) = make_float4(d.ex, d.ey, d.ey, -d.ex);
    }
};

constexpr double kPi = 3.14159265358979323846;

// A sector of the colour wheel over the half angle h in [0, pi): where it
// starts, its width, and the colours (R, G, B) at its two ends.
struct WheelSector {
    double start, width;
    float from[3], to[3];
};

VELA_HD inline WheelSector wheelSector(double h) {
    if (h < kPi / 8.0) return {0.0, kPi / 8.0, {255, 0, 0}, {255, 0, 255}};
    if (h < kPi / 4.0) return {kPi / 8.0, kPi / 8.0, {255, 0, 255}, {64, 64, 255}};
    if (h < 3.0 * kPi / 8.0) return {kPi / 4.0, kPi / 8.0, {64, 64, 255}, {0, 255, 255}};
    if (h < kPi / 2.0) return {3.0 * kPi / 8.0, kPi / 8.0, {0, 255, 255}, {0, 255, 0}};
    if (h < 3.0 * kPi / 4.0) return {kPi / 2.0, kPi / 4.0, {0, 255, 0}, {255, 255, 0}};
    return {3.0 * kPi / 4.0, kPi / 4.0, {255, 255, 0}, {255, 0, 0}};
}

// A channel r * ((1 - t) * from + t * to), truncated and clamped to a byte.  A
// NaN (from a NaN gradient) gives 0.
VELA_HD inline unsigned char wheelChannel(float r, float t, float from, float to) {
    float c = r * ((1.0f - t) * from + t * to);
    if (!(c > 0.0f)) c = 0.0f;
    if (c > 255.0f) c = 255.0f;
    return static_cast<unsigned char>(static_cast<int>(c));
}

struct cartesianToRGB_kernel {
    VELA_HD void operator()(const Thread& t, Array<uchar4, 2> picture, Array<float2, 2> gradient, float factor) const {
        unsigned int px, py;
        if (!pixelOf(t, picture.extents.x, picture.extents.y, px, py)) return;
        const float2 gr = vela::at(gradient, px, py);
        const float x = gr.x * factor, y = gr.y * factor;
        float r = sqrtf(x * x + y * y);
        if (r > 1.0f) r = 1.0f;
        float theta;
        if (x == 0.0f) {
            theta = y < 0.0f ? 4.712389f : 1.5707964f;
        } else if (x > 0.0f) {
            theta = atanf(y / x);
            if (y < 0.0f) theta = static_cast<float>(theta + 2.0 * kPi);
        } else {
            theta = static_cast<float>(atanf(y / x) + kPi);
        }
        // Half the angle: opposite gradients land a quarter of the wheel apart.
        const double h = theta * 0.5f;
        const WheelSector s = wheelSector(h);
        const float along = static_cast<float>((h - s.start) / s.width);
        vela::at(picture, px, py) =
            make_uchar4(wheelChannel(r, along, s.from[0], s.to[0]), wheelChannel(r, along, s.from[1], s.to[1]),
                        wheelChannel(r, along, s.from[2], s.to[2]), 255);
    }
};

// Squared colour differences of a pixel to its right and lower neighbours,
// the edges that exist.
VELA_HD inline float rightSquare(const Array<float4, 2>& image, unsigned int x, unsigned int y) {
    if (x + 1 >= image.extents.x) return 0.0f;
    const Rgb d = minusRgb(vela::at(image, x + 1, y), vela::at(image, x, y));
    return dot(d, d);
}
VELA_HD inline float downSquare(const Array<float4, 2>& image, unsigned int x, unsigned int y) {
    if (y + 1 >= image.extents.y) return 0.0f;
    const Rgb d = minusRgb(vela::at(image, x, y + 1), vela::at(image, x, y));
    return dot(d, d);
}

// The sum of all edges' squared differences, for their mean.
struct EdgeSquares {
    static constexpr int N = 1;
    Array<float4, 2> image;
    VELA_HD void operator()(unsigned int x, unsigned int y, unsigned int, float* values) const {
        values[0] = rightSquare(image, x, y) + downSquare(image, x, y);
    }
};

// D = (wx, 0, 0, wy): the weights of the edges to the right and lower
// neighbours, exp(-b * squared difference), 0 where there is no neighbour.
struct contrastEdgeWeights_kernel {
    VELA_HD void operator()(const Thread& t, Array<float4, 2> D, Array<float4, 2> image, float b) const {
        unsigned int x, y;
        if (!pixelOf(t, D.extents.x, D.extents.y, x, y)) return;
        const float wx = x + 1 < image.extents.x ? expf(-b * rightSquare(image, x, y)) : 0.0f;
        const float wy = y + 1 < image.extents.y ? expf(-b * downSquare(image, x, y)) : 0.0f;
        vela::at(D, x, y) = make_float4(wx, 0.0f, 0.0f, wy);
    }
};
}  // namespace

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

namespace {

template <class A, class B>
void requireSameSize(const char* function, const char* nameA, const A& a, const char* nameB, const B& b) {
    if (a.extents.x == b.extents.x && a.extents.y == b.extents.y) return;
    throw std::runtime_error(std::string(function) + ": " + nameA + " " +
                             vela::internal::str_extents(make_uint2(a.extents.x, a.extents.y)) + " and " + nameB + " " +
                             vela::internal::str_extents(make_uint2(b.extents.x, b.extents.y)) + " differ in size");
}

template <class K, class T, class... Args>
void launchOverPixels(const Array<T, 2>& first, const Args&... rest) {
    vela::device::launch<K>(pixelGrid(first.extents.x, first.extents.y), pixelBlock(), nullptr, first, rest...);
}

}  // namespace

void imageGradient(const Array<float2, 2>& gradient, const Array<float4, 2>& image) {
    requireSameSize("seg::imageGradient", "gradient", gradient, "image", image);
    launchOverPixels<imageGradient_kernel>(gradient, image);
}

void imageDiffusivity_STD(const Array<float, 2>& g, const Array<float4, 2>& image) {
    requireSameSize("seg::imageDiffusivity_STD", "g", g, "image", image);
    launchOverPixels<imageDiffusivity_STD_kernel>(g, image);
}

void imageDiffusivity_EXP(const Array<float, 2>& g, const Array<float4, 2>& image, float alpha) {
    requireSameSize("seg::imageDiffusivity_EXP", "g", g, "image", image);
    launchOverPixels<imageDiffusivity_EXP_kernel>(g, image, alpha);
}

void compute_Diffusion_tensor(const Array<float4, 2>& D, const Array<float4, 2>& image, const Array<float, 2>& g) {
    requireSameSize("seg::compute_Diffusion_tensor", "D", D, "image", image);
    requireSameSize("seg::compute_Diffusion_tensor", "D", D, "g", g);
    launchOverPixels<compute_Diffusion_tensor_kernel>(D, image, g);
}

void compute_Diffusion_tensor_exp(const Array<float4, 2>& D, const Array<float2, 2>& gradient) {
    requireSameSize("seg::compute_Diffusion_tensor_exp", "D", D, "gradient", gradient);
    launchOverPixels<compute_Diffusion_tensor_exp_kernel>(D, gradient);
}

void compute_Diffusion_tensor(const Array<float4, 2>& D, const Array<float2, 2>& gradient) {
    requireSameSize("seg::compute_Diffusion_tensor", "D", D, "gradient", gradient);
    launchOverPixels<compute_Diffusion_tensor_kernel>(D, gradient);
}

void compute_Diffusion_tensor(const Array<float4, 2>& D, const Array<float4, 2>& image) {
    requireSameSize("seg::compute_Diffusion_tensor", "D", D, "image", image);
    launchOverPixels<compute_Diffusion_tensor_kernel>(D, image);
}

void contrastEdgeWeights(const Array<float4, 2>& D, const Array<float4, 2>& image) {
    requireSameSize("seg::contrastEdgeWeights", "D", D, "image", image);
    const unsigned int w = image.extents.x, h = image.extents.y;
    const double edges = static_cast<double>(w - 1) * h + static_cast<double>(w) * (h - 1);
    const double sum = edges > 0.0 ? pixelSums(EdgeSquares{image}, w, h).of[0][0] : 0.0;
    // A flat image (or a single pixel) has no contrast to respect: every weight 1.
    const float b = sum > 0.0 ? static_cast<float>(edges / (2.0 * sum)) : 0.0f;
    launchOverPixels<contrastEdgeWeights_kernel>(D, image, b);
}

void cartesianToRGB(const Array<uchar4, 2>& picture, const Array<float2, 2>& gradient, float factor) {
    requireSameSize("seg::cartesianToRGB", "picture", picture, "gradient", gradient);
    launchOverPixels<cartesianToRGB_kernel>(picture, gradient, factor);
}

void saveGradient(Array<float2, 2>& gradient, float scale, const std::string& fileName) {
    // 1 / (2 sqrt 2): a gradient of length 2 sqrt 2 * scale reaches full brightness.
    constexpr float kUnit = 0.35355338f;
    const float factor = scale >= 0.0f ? kUnit / scale : kUnit;
    const unsigned int w = gradient.extents.x, h = gradient.extents.y;
    ScopedArray<uchar4, 2> picture(deviceArray2D<uchar4>(w, h));
    cartesianToRGB(picture.a, gradient, factor);
    ScopedArray<unsigned char, 3> planes(deviceArray3D<unsigned char>(w, h, 3));
    vela::convert(planes.a, picture.a, nullptr);
    vela::saveImage(planes.a, fileName, false);
}

}  // namespace seg
