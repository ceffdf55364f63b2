#include "src/PDseg_walker.h"

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/engine_arrays.h"
#include "vela/access.h"
#include "vela/device/launch.h"

// The walker's probabilities solve, for every label l, the Dirichlet problem
// of the graph Laplacian: at an unseeded pixel i,
//     sum_j w_ij (x_i - x_j) = 0   over its 4 neighbours j,
// with x = 1 at the seeds of l and 0 at all other seeds.  Edge weights are
//     w_ij = exp(-beta / (10 * sd * sqrt(3)) * |c_i - c_j|^2) + 1e-6,
// c the colour in [0, 1] and sd the standard deviation of all channel values,
// so beta means what it means to the usual random-walker implementations and
// the tiny floor keeps every pixel connected to a seed.  The systems are
// solved together by conjugate gradients with the diagonal as preconditioner;
// every step is a kernel over (pixel, label), and block sums give the dot
// products.

namespace {

using vela::device::Thread;

constexpr const char* kSource = "src/PDseg_walker";
constexpr unsigned int kBlockX = 32, kBlockY = 8, kBlockThreads = kBlockX * kBlockY;
constexpr unsigned int kLanes = 32;  // threads that fold the block's values in the second phase
constexpr float kWeightFloor = 1e-6f;
constexpr float kProbabilityFloor = 0.001f;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

struct Pixel {
    unsigned int x, y, label, thread, block;
    bool inside;
};

VELA_HD inline Pixel pixelOf(const Thread& t, uint2 size) {
    Pixel p;
    p.x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
    p.y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
    p.label = t.blockIdx.z;
    p.thread = t.threadIdx.y * t.blockDim.x + t.threadIdx.x;
    p.block = t.blockIdx.y * t.gridDim.x + t.blockIdx.x;
    p.inside = p.x < size.x && p.y < size.y;
    return p;
}

// The seed index of a pixel, or -1: label values at or above L seed nothing.
VELA_HD inline int seedOf(const vela::Array<float, 2>& labels, unsigned int x, unsigned int y, unsigned int nLabels) {
    const float v = vela::at(labels, x, y);
    return (v >= 0.0f && v < static_cast<float>(nLabels)) ? static_cast<int>(v) : -1;
}

// Block sums of N values per thread, written to partial(block, label, n).
// Kernels that reduce run three phases: 0 computes and stores its values,
// 1 folds them into kLanes slots, 2 adds the slots.
template <int N>
struct BlockSums {
    float v[N][kBlockThreads];
};

template <int N>
VELA_HD inline void foldBlockSums(int phase, const Pixel& p, BlockSums<N>& s, const vela::Array<float, 3>& partial) {
    if (phase == 1 && p.thread < kLanes) {
        for (int n = 0; n < N; ++n) {
            float sum = 0.0f;
            for (unsigned int k = p.thread; k < kBlockThreads; k += kLanes) sum += s.v[n][k];
            s.v[n][p.thread] = sum;
        }
    } else if (phase == 2 && p.thread == 0) {
        for (int n = 0; n < N; ++n) {
            float sum = 0.0f;
            for (unsigned int k = 0; k < kLanes; ++k) sum += s.v[n][k];
            vela::at(partial, p.block, p.label, static_cast<unsigned int>(n)) = sum;
        }
    }
}

// Sum and sum of squares of the colour channels in [0, 1].
struct walkerImageMoments_kernel {
    using Shared = BlockSums<2>;
    struct Local {};
    static constexpr int phases = 3;
    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, vela::Array<float4, 2> image,
                            vela::Array<float, 3> partial) const {
        const Pixel p = pixelOf(t, make_uint2(image.extents.x, image.extents.y));
        if (phase == 0) {
            float sum = 0.0f, squares = 0.0f;
            if (p.inside) {
                const float4 c = vela::at(image, p.x, p.y);
                const float v[3] = {c.x / 255.0f, c.y / 255.0f, c.z / 255.0f};
                for (float channel : v) {
                    sum += channel;
                    squares += channel * channel;
                }
            }
            s.v[0][p.thread] = sum;
            s.v[1][p.thread] = squares;
            return;
        }
        foldBlockSums(phase, p, s, partial);
    }
};

VELA_HD inline float edgeWeight(const float4& a, const float4& b, float scale) {
    const float dr = (a.x - b.x) / 255.0f, dg = (a.y - b.y) / 255.0f, db = (a.z - b.z) / 255.0f;
    return expf(scale * (dr * dr + dg * dg + db * db)) + kWeightFloor;
}

// Weights of the edges to the right and lower neighbours (0 past the border)
// and the degree: the sum of a pixel's edge weights.
struct walkerWeights_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float2, 2> weights, vela::Array<float, 2> degree,
                            vela::Array<float4, 2> image, float scale) const {
        const uint2 size = make_uint2(image.extents.x, image.extents.y);
        const Pixel p = pixelOf(t, size);
        if (!p.inside) return;
        const float4 c = vela::at(image, p.x, p.y);
        const float right = p.x + 1 < size.x ? edgeWeight(c, vela::at(image, p.x + 1, p.y), scale) : 0.0f;
        const float down = p.y + 1 < size.y ? edgeWeight(c, vela::at(image, p.x, p.y + 1), scale) : 0.0f;
        const float left = p.x > 0 ? edgeWeight(c, vela::at(image, p.x - 1, p.y), scale) : 0.0f;
        const float up = p.y > 0 ? edgeWeight(c, vela::at(image, p.x, p.y - 1), scale) : 0.0f;
        vela::at(weights, p.x, p.y) = make_float2(right, down);
        vela::at(degree, p.x, p.y) = right + down + left + up;
    }
};

// sum_j w_ij v_j over the 4 neighbours j of (x, y), in one fixed order.
template <class Value>
VELA_HD inline float neighbourSum(const vela::Array<float2, 2>& weights, unsigned int x, unsigned int y, Value value) {
    const unsigned int w = weights.extents.x, h = weights.extents.y;
    const float2 here = vela::at(weights, x, y);
    float sum = 0.0f;
    if (x + 1 < w) sum += here.x * value(x + 1, y);
    if (y + 1 < h) sum += here.y * value(x, y + 1);
    if (x > 0) sum += vela::at(weights, x - 1, y).x * value(x - 1, y);
    if (y > 0) sum += vela::at(weights, x, y - 1).y * value(x, y - 1);
    return sum;
}

// Seeds fix x; elsewhere x starts at 0, so the residual is the right-hand
// side, the pull of the neighbouring seeds of the label.  p = r / degree.
// Sums r.z and r.r.
struct walkerStart_kernel {
    using Shared = BlockSums<2>;
    struct Local {};
    static constexpr int phases = 3;
    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, vela::Array<float, 3> x,
                            vela::Array<float, 3> r, vela::Array<float, 3> p, vela::Array<float, 2> labels,
                            vela::Array<float2, 2> weights, vela::Array<float, 2> degree,
                            vela::Array<float, 3> partial) const {
        const Pixel px = pixelOf(t, make_uint2(x.extents.x, x.extents.y));
        if (phase == 0) {
            float rz = 0.0f, rr = 0.0f;
            if (px.inside) {
                const unsigned int nLabels = x.extents.z;
                const int seed = seedOf(labels, px.x, px.y, nLabels);
                float residual = 0.0f, direction = 0.0f;
                if (seed >= 0) {
                    vela::at(x, px.x, px.y, px.label) = seed == static_cast<int>(px.label) ? 1.0f : 0.0f;
                } else {
                    vela::at(x, px.x, px.y, px.label) = 0.0f;
                    residual = neighbourSum(weights, px.x, px.y, [&](unsigned int i, unsigned int j) {
                        return seedOf(labels, i, j, nLabels) == static_cast<int>(px.label) ? 1.0f : 0.0f;
                    });
                    direction = residual / vela::at(degree, px.x, px.y);
                }
                vela::at(r, px.x, px.y, px.label) = residual;
                vela::at(p, px.x, px.y, px.label) = direction;
                rz = residual * direction;
                rr = residual * residual;
            }
            s.v[0][px.thread] = rz;
            s.v[1][px.thread] = rr;
            return;
        }
        foldBlockSums(phase, px, s, partial);
    }
};

// q = A p on the unseeded pixels (p is 0 at the seeds); sums p.q.
struct walkerApply_kernel {
    using Shared = BlockSums<1>;
    struct Local {};
    static constexpr int phases = 3;
    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, vela::Array<float, 3> q,
                            vela::Array<float, 3> p, vela::Array<float, 2> labels, vela::Array<float2, 2> weights,
                            vela::Array<float, 2> degree, vela::Array<float, 3> partial) const {
        const Pixel px = pixelOf(t, make_uint2(q.extents.x, q.extents.y));
        if (phase == 0) {
            float pq = 0.0f;
            if (px.inside) {
                float value = 0.0f;
                if (seedOf(labels, px.x, px.y, q.extents.z) < 0) {
                    const float here = vela::at(p, px.x, px.y, px.label);
                    value = vela::at(degree, px.x, px.y) * here -
                            neighbourSum(weights, px.x, px.y,
                                         [&](unsigned int i, unsigned int j) { return vela::at(p, i, j, px.label); });
                    pq = here * value;
                }
                vela::at(q, px.x, px.y, px.label) = value;
            }
            s.v[0][px.thread] = pq;
            return;
        }
        foldBlockSums(phase, px, s, partial);
    }
};

// x += alpha p, r -= alpha q on the unseeded pixels; sums r.z and r.r with
// z = r / degree.
struct walkerStep_kernel {
    using Shared = BlockSums<2>;
    struct Local {};
    static constexpr int phases = 3;
    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, vela::Array<float, 3> x,
                            vela::Array<float, 3> r, vela::Array<float, 3> p, vela::Array<float, 3> q,
                            vela::Array<float, 2> labels, vela::Array<float, 2> degree, vela::Array<float, 1> alpha,
                            vela::Array<float, 3> partial) const {
        const Pixel px = pixelOf(t, make_uint2(x.extents.x, x.extents.y));
        if (phase == 0) {
            float rz = 0.0f, rr = 0.0f;
            if (px.inside && seedOf(labels, px.x, px.y, x.extents.z) < 0) {
                const float a = vela::at(alpha, px.label);
                vela::at(x, px.x, px.y, px.label) += a * vela::at(p, px.x, px.y, px.label);
                const float residual = vela::at(r, px.x, px.y, px.label) - a * vela::at(q, px.x, px.y, px.label);
                vela::at(r, px.x, px.y, px.label) = residual;
                rz = residual * residual / vela::at(degree, px.x, px.y);
                rr = residual * residual;
            }
            s.v[0][px.thread] = rz;
            s.v[1][px.thread] = rr;
            return;
        }
        foldBlockSums(phase, px, s, partial);
    }
};

// p = r / degree + beta p on the unseeded pixels.
struct walkerDirection_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 3> p, vela::Array<float, 3> r,
                            vela::Array<float, 2> labels, vela::Array<float, 2> degree,
                            vela::Array<float, 1> beta) const {
        const Pixel px = pixelOf(t, make_uint2(p.extents.x, p.extents.y));
        if (!px.inside || seedOf(labels, px.x, px.y, p.extents.z) >= 0) return;
        float& direction = vela::at(p, px.x, px.y, px.label);
        direction =
            vela::at(r, px.x, px.y, px.label) / vela::at(degree, px.x, px.y) + vela::at(beta, px.label) * direction;
    }
};

// cost += weight * -ln(x + 0.001) / -ln(0.001), x clamped to [0, 1]: 0 where
// the walker is sure of the label, `weight` where it rules it out.
struct walkerCost_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 3> cost, vela::Array<float, 3> x, float weight) const {
        const Pixel px = pixelOf(t, make_uint2(cost.extents.x, cost.extents.y));
        if (!px.inside) return;
        const float probability = fminf(fmaxf(vela::at(x, px.x, px.y, px.label), 0.0f), 1.0f);
        vela::at(cost, px.x, px.y, px.label) +=
            weight * logf(probability + kProbabilityFloor) / logf(kProbabilityFloor);
    }
};

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

void check(int line) { vela::_CHECK_CUDA_ERROR(kSource, line); }

// The per-label block sums of a reducing launch, added up in double.
class BlockSumReader {
 public:
    BlockSumReader(unsigned int blocks, unsigned int labels, unsigned int values)
        : device_(seg::deviceArray3D<float>(blocks, labels, values)),
          host_(vela::internal::decreaseArrayDimension<float, 4, 3>(
              vela::mallocHostArray<float>(make_uint4(blocks, labels, values, 1), vela::LINEAR_LAYOUT))) {}

    const vela::Array<float, 3>& partial() const { return device_.a; }

    // sums[l] of value n.
    std::vector<double> sums(unsigned int n) {
        if (n == 0) vela::arrayCopy(host_.a, device_.a);
        std::vector<double> out(host_.a.extents.y, 0.0);
        for (unsigned int l = 0; l < host_.a.extents.y; ++l)
            for (unsigned int b = 0; b < host_.a.extents.x; ++b) out[l] += vela::at(host_.a, b, l, n);
        return out;
    }

 private:
    vela::ScopedArray<float, 3> device_;
    vela::ScopedArray<float, 3> host_;
};

// One coefficient per label, copied to the device for the next launch.
class LabelCoefficients {
 public:
    explicit LabelCoefficients(unsigned int labels) : device_(seg::deviceArray1D<float>(labels)), host_(labels, 0.0f) {}
    const vela::Array<float, 1>& upload() {
        vela::arrayCopy(device_.a, seg::hostView1D(host_.data(), static_cast<unsigned int>(host_.size())));
        return device_.a;
    }
    float& operator[](unsigned int l) { return host_[l]; }

 private:
    vela::ScopedArray<float, 1> device_;
    std::vector<float> host_;
};

// The weight scale of the usual random-walker formulation.
float edgeScale(const vela::Array<float4, 2>& image, dim3 grid, dim3 block, float beta) {
    BlockSumReader moments(grid.x * grid.y, 1, 2);
    vela::device::launch<walkerImageMoments_kernel>(grid, block, nullptr, image, moments.partial());
    check(__LINE__);
    const double values = 3.0 * image.extents.x * image.extents.y;
    const double mean = moments.sums(0)[0] / values;
    const double variance = std::max(0.0, moments.sums(1)[0] / values - mean * mean);
    const double sd = std::sqrt(variance);
    // A flat image has no edges to respect: all weights equal.
    if (sd < 1e-12) return 0.0f;
    return static_cast<float>(-beta / (10.0 * sd * std::sqrt(3.0)));
}

}  // namespace

void addWalkerCost(PDseg& seg, vela::Array<float, 2>& labels, const SegmentationSettings& settings) {
    const unsigned int w = seg.costMap.extents.x, h = seg.costMap.extents.y;
    const unsigned int nLabels = seg.costMap.extents.z;
    if (seg.nLabels < 1 || w == 0 || h == 0) return;
    if (seg.image.extents.x != w || seg.image.extents.y != h)
        throw std::runtime_error("addWalkerCost: the image is " + std::to_string(seg.image.extents.x) + " x " +
                                 std::to_string(seg.image.extents.y) + " pixels but the labels are " +
                                 std::to_string(w) + " x " + std::to_string(h));

    const dim3 block(kBlockX, kBlockY);
    const dim3 pixels(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
    const dim3 labelled(pixels.x, pixels.y, nLabels);
    const unsigned int blocks = pixels.x * pixels.y;

    vela::ScopedArray<float2, 2> weights(seg::deviceArray2D<float2>(w, h));
    vela::ScopedArray<float, 2> degree(seg::deviceArray2D<float>(w, h));
    const float scale = edgeScale(seg.image, pixels, block, settings.walkerBeta);
    vela::device::launch<walkerWeights_kernel>(pixels, block, nullptr, weights.a, degree.a, seg.image, scale);
    check(__LINE__);

    vela::ScopedArray<float, 3> x(seg::deviceArray3D<float>(w, h, nLabels));
    vela::ScopedArray<float, 3> r(seg::deviceArray3D<float>(w, h, nLabels));
    vela::ScopedArray<float, 3> p(seg::deviceArray3D<float>(w, h, nLabels));
    vela::ScopedArray<float, 3> q(seg::deviceArray3D<float>(w, h, nLabels));
    BlockSumReader sums(blocks, nLabels, 2);
    LabelCoefficients coefficients(nLabels);

    vela::device::launch<walkerStart_kernel>(labelled, block, nullptr, x.a, r.a, p.a, labels, weights.a, degree.a,
                                             sums.partial());
    check(__LINE__);
    std::vector<double> rz = sums.sums(0), rr = sums.sums(1);
    const std::vector<double> rhs = rr;
    const double tolerance = static_cast<double>(settings.walkerTolerance) * settings.walkerTolerance;
    auto converged = [&] {
        for (unsigned int l = 0; l < nLabels; ++l)
            if (rr[l] > tolerance * rhs[l]) return false;
        return true;
    };

    for (int iteration = 0; iteration < settings.walkerIterations && !converged(); ++iteration) {
        vela::device::launch<walkerApply_kernel>(labelled, block, nullptr, q.a, p.a, labels, weights.a, degree.a,
                                                 sums.partial());
        check(__LINE__);
        const std::vector<double> pq = sums.sums(0);
        for (unsigned int l = 0; l < nLabels; ++l)
            coefficients[l] = pq[l] > 0.0 ? static_cast<float>(rz[l] / pq[l]) : 0.0f;
        vela::device::launch<walkerStep_kernel>(labelled, block, nullptr, x.a, r.a, p.a, q.a, labels, degree.a,
                                                coefficients.upload(), sums.partial());
        check(__LINE__);
        const std::vector<double> rzNext = sums.sums(0);
        rr = sums.sums(1);
        for (unsigned int l = 0; l < nLabels; ++l) {
            coefficients[l] = rz[l] > 0.0 ? static_cast<float>(rzNext[l] / rz[l]) : 0.0f;
            rz[l] = rzNext[l];
        }
        vela::device::launch<walkerDirection_kernel>(labelled, block, nullptr, p.a, r.a, labels, degree.a,
                                                     coefficients.upload());
        check(__LINE__);
    }

    vela::device::launch<walkerCost_kernel>(labelled, block, nullptr, seg.costMap, x.a, settings.dataWeight);
    check(__LINE__);
}
