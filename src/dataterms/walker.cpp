#include "src/dataterms/walker.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "src/block_sums.h"
#include "src/dataterms/probability_cost.h"
#include "src/dataterms/seeds.h"
#include "src/dataterms/walker_region.h"
#include "src/dataterms/walker_rows.h"
#include "src/dataterms/walker_steps.h"
#include "src/engine_arrays.h"
#include "src/solver/ops.h"
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

constexpr seg::DeviceCheck check{"src/dataterms/walker"};
constexpr unsigned int kBlockX = seg::kSumBlockX, kBlockY = seg::kSumBlockY;
constexpr float kWeightFloor = 1e-6f;
// A restricted solve runs over row segments of this many pixels, in blocks of
// kSegmentRows of them.
constexpr unsigned int kSegment = 16, kSegmentRows = kBlockX * kBlockY / kSegment;

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

using seg::GridPixel;
using seg::seedOf;

// Sum and sum of squares of the colour channels in [0, 1].
struct ImageMoments {
    static constexpr int N = 2;
    vela::Array<float4, 2> image;
    VELA_HD void operator()(unsigned int x, unsigned int y, unsigned int, float* values) const {
        const float4 c = vela::at(image, x, y);
        const float v[3] = {c.x / 255.0f, c.y / 255.0f, c.z / 255.0f};
        for (float channel : v) {
            values[0] += channel;
            values[1] += channel * channel;
        }
    }
};

VELA_HD inline float edgeWeight(const float4& a, const float4& b, float scale) {
    const float dr = (a.x - b.x) / 255.0f, dg = (a.y - b.y) / 255.0f, db = (a.z - b.z) / 255.0f;
    return expf(scale * (dr * dr + dg * dg + db * db)) + kWeightFloor;
}

// Weights of the edges to the right and lower neighbours (0 past the border),
// and the diagonal of the system: the degree d (the sum of a pixel's edge
// weights) and 1 / d, or 0 at a seed, so that the steps below leave the seeds
// alone without asking.
struct walkerWeights_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float2, 2> weights, vela::Array<float2, 2> diagonal,
                            vela::Array<float4, 2> image, vela::Array<float, 2> labels, unsigned int nLabels,
                            float scale) const {
        const uint2 size = make_uint2(image.extents.x, image.extents.y);
        const GridPixel p(t, size.x, size.y);
        if (!p.inside) return;
        const float4 c = vela::at(image, p.x, p.y);
        const float right = p.x + 1 < size.x ? edgeWeight(c, vela::at(image, p.x + 1, p.y), scale) : 0.0f;
        const float down = p.y + 1 < size.y ? edgeWeight(c, vela::at(image, p.x, p.y + 1), scale) : 0.0f;
        const float left = p.x > 0 ? edgeWeight(c, vela::at(image, p.x - 1, p.y), scale) : 0.0f;
        const float up = p.y > 0 ? edgeWeight(c, vela::at(image, p.x, p.y - 1), scale) : 0.0f;
        vela::at(weights, p.x, p.y) = make_float2(right, down);
        const float degree = right + down + left + up;
        const bool seed = seedOf(labels, p.x, p.y, nLabels) >= 0;
        vela::at(diagonal, p.x, p.y) = make_float2(degree, seed ? 0.0f : 1.0f / degree);
    }
};

using seg::walker::ApplyStep;
using seg::walker::DirectionStep;
using seg::walker::ResidualStep;
using seg::walker::StartFromGuessStep;
using seg::walker::StartOutsideStep;
using seg::walker::StartStep;
using seg::walker::StepStep;
using seg::walker::WalkerArrays;

// Runs a step at every pixel and label, one label per grid layer, and leaves
// the block sums of what it adds in partial(block, label, 0 and 1); with
// segments, only at theirs (seg::GridPixel).
template <class Step>
struct walkerStep_kernel {
    using Shared = seg::BlockSums<2>;
    struct Local {};
    static constexpr int phases = 3;
    // The probabilities decay to subnormal floats far from a label's seeds.
    static constexpr bool flushSubnormals = true;
    VELA_HD void operator()(int phase, const Thread& t, Shared& s, Local&, WalkerArrays a,
                            vela::Array<uint2, 1> segments, vela::Array<float, 1> coefficients,
                            vela::Array<float, 3> partial) const {
        const GridPixel px = segments.data != nullptr ? GridPixel(t, segments, a.x.extents.x)
                                                      : GridPixel(t, a.x.extents.x, a.x.extents.y);
        if (phase == 0) {
            const float2 v =
                px.inside ? Step{}(a, px.x, px.y, px.z, vela::at(coefficients, px.z)) : make_float2(0.0f, 0.0f);
            s.put(px, 0, v.x);
            s.put(px, 1, v.y);
        } else {
            s.fold(phase, px, partial);
        }
    }
};

// Outside the free region the solve keeps x as it is: 1 / degree = 0 there,
// as at the seeds.
struct freeze_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float2, 2> diagonal, vela::Array<float, 2> free) const {
        const GridPixel p(t, diagonal.extents.x, diagonal.extents.y);
        if (p.inside && vela::at(free, p.x, p.y) == 0.0f) vela::at(diagonal, p.x, p.y).y = 0.0f;
    }
};

// active(c, y) = 1 where the c-th run of kSegment pixels of row y holds an
// unseeded pixel the solve has not frozen, else 0.
struct activeRuns_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> active, vela::Array<float2, 2> diagonal) const {
        const unsigned int c = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
        if (c >= active.extents.x || y >= active.extents.y) return;
        const unsigned int end = (c + 1) * kSegment < diagonal.extents.x ? (c + 1) * kSegment : diagonal.extents.x;
        bool any = false;
        for (unsigned int x = c * kSegment; x < end; ++x) any = any || vela::at(diagonal, x, y).y > 0.0f;
        vela::at(active, c, y) = any ? 1.0f : 0.0f;
    }
};

// cost += weight * -ln(x + 0.001) / -ln(0.001), x clamped to [0, 1]: 0 where
// the walker is sure of the label, `weight` where it rules it out
// (seg::probabilityCost).
struct walkerCost_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 3> cost, vela::Array<float, 3> x, float weight) const {
        const GridPixel px(t, cost.extents.x, cost.extents.y);
        if (!px.inside) return;
        const float probability = fminf(fmaxf(vela::at(x, px.x, px.y, px.z), 0.0f), 1.0f);
        vela::at(cost, px.x, px.y, px.z) += seg::probabilityCost(probability, weight);
    }
};

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

// Per-label sums of the two values a step adds, in double.
struct LabelSums {
    std::vector<double> first, second;
};

LabelSums labelSums(seg::LayerSums&& sums) { return {std::move(sums.of[0]), std::move(sums.of[1])}; }

// One coefficient per label, copied to the device for the next launch.
class LabelCoefficients {
 public:
    explicit LabelCoefficients(unsigned int labels) : device_(seg::deviceArray1D<float>(labels)), host_(labels) {}
    const vela::Array<float, 1>& upload() {
        vela::arrayCopy(device_.a, seg::hostView1D(host_.data(), static_cast<unsigned int>(host_.size())));
        return device_.a;
    }
    float& operator[](unsigned int l) { return host_[l]; }

 private:
    vela::ScopedArray<float, 1> device_;
    std::vector<float> host_;
};

// The steps of the solve over every pixel and label.  The cuda backend runs
// the kernels above, in 32 x 8 blocks with one label per grid layer; the
// host backend runs the same per-pixel steps as row loops by default (the
// kernels' blocks cost it several times more), the interior of each row in
// vector lanes (src/dataterms/walker_rows.h), summing each row in double.
class WalkerSteps {
 public:
    explicit WalkerSteps(const WalkerArrays& a)
        : a_(a),
          block_(kBlockX, kBlockY),
          grid_(vela::device::blocksFor(a.x.extents.x, kBlockX), vela::device::blocksFor(a.x.extents.y, kBlockY),
                a.x.extents.z),
          sums_(grid_, 2),
          coefficients_(grid_.z) {}

    LabelSums start() { return run<StartStep>(); }
    // After start(): x from the guess at every unseeded pixel, and the
    // residual from there.
    LabelSums warmStart() {
        run<StartFromGuessStep>();
        return run<ResidualStep>();
    }
    // After start() and the freezing of all but the free pixels: x from the
    // guess outside them, the residual there, and from then on the steps run
    // only over `segments`, row segments that hold every free pixel: (x, y)
    // of the first of kSegment pixels of a row (seg::GridPixel).
    LabelSums restrict(std::vector<uint2> segments) {
        run<StartOutsideStep>();
        const LabelSums sums = run<ResidualStep>();
        const unsigned int n = static_cast<unsigned int>(segments.size());
        hostSpans_.clear();
        for (const uint2& segment : segments) {
            const unsigned int end = std::min(segment.x + kSegment, a_.x.extents.x);
            if (!hostSpans_.empty() && hostSpans_.back().z == segment.y && hostSpans_.back().y == segment.x)
                hostSpans_.back().y = end;
            else
                hostSpans_.push_back(make_uint3(segment.x, end, segment.y));
        }
        if (n > 0) segments_.emplace(seg::deviceCopy(seg::hostView1D(segments.data(), n)));
        segmentGrid_ = dim3(vela::device::blocksFor(n, kSegmentRows), 1, grid_.z);
        segmentSums_.emplace(segmentGrid_, 2);
        return sums;
    }
    LabelSums apply() { return run<ApplyStep>(); }
    LabelSums step(const std::vector<float>& alpha) { return run<StepStep>(alpha); }
    void direction(const std::vector<float>& beta) { run<DirectionStep>(beta); }

 private:
    // Runs Step over every pixel and label with one coefficient per label:
    // as the kernel, or on the host backend as row loops that add each row's
    // values in double.
    template <class Step>
    LabelSums run(const std::vector<float>& coefficients = {}) {
        const unsigned int w = a_.x.extents.x, h = a_.x.extents.y, labels = a_.x.extents.z;
        std::vector<float> c(coefficients);
        c.resize(labels, 0.0f);
        LabelSums sums{std::vector<double>(labels, 0.0), std::vector<double>(labels, 0.0)};
        const bool restricted = segmentSums_.has_value();
        auto kernel = [&] {
            for (unsigned int l = 0; l < labels; ++l) coefficients_[l] = c[l];
            seg::BlockSumReader& reader = restricted ? *segmentSums_ : sums_;
            if (restricted && segmentGrid_.x == 0) return;
            vela::device::launch<walkerStep_kernel<Step>>(
                restricted ? segmentGrid_ : grid_, restricted ? dim3(kSegment, kSegmentRows) : block_, nullptr, a_,
                restricted ? segments_->a : vela::Array<uint2, 1>{}, coefficients_.upload(), reader.partial());
            check(__LINE__);
            sums = labelSums(reader.read());
        };
        // The segments as row loops, consecutive segments of a row joined
        // into one span (the sums come per span), each span for every label
        // in turn while its weights are at hand.
        auto segmentLoops = [&] {
            const std::size_t spans = hostSpans_.size();
            blockFirst_.assign(spans * labels, 0.0);
            blockSecond_.assign(spans * labels, 0.0);
            const long long count = static_cast<long long>(spans);
            VELA_PRAGMA_OMP(omp parallel) {
                const vela::device::SubnormalsFlushed mode(walkerStep_kernel<Step>::flushSubnormals);
            VELA_PRAGMA_OMP(omp for schedule(static))
            for (long long i = 0; i < count; ++i) {
                const uint3 span = hostSpans_[static_cast<std::size_t>(i)];
                for (unsigned int l = 0; l < labels; ++l) {
                    double s0 = 0.0, s1 = 0.0;
                    seg::walker::hostRows<Step>(a_, span.x, span.y, span.z, 1, l, c[l], &s0, &s1);
                    blockFirst_[l * spans + static_cast<std::size_t>(i)] = s0;
                    blockSecond_[l * spans + static_cast<std::size_t>(i)] = s1;
                }
            }
            }
            for (unsigned int l = 0; l < labels; ++l)
                for (std::size_t i = 0; i < spans; ++i) {
                    sums.first[l] += blockFirst_[l * spans + i];
                    sums.second[l] += blockSecond_[l * spans + i];
                }
        };
        auto rows = [&] {
            std::vector<double> first(static_cast<std::size_t>(h) * labels), second(first.size());
            // Rows go to the threads in groups of kRowsAtOnce of one label.
            constexpr unsigned int kGroup = seg::walker::kRowsAtOnce;
            const unsigned int groups = (h + kGroup - 1) / kGroup;
            const long long count = static_cast<long long>(groups) * labels;
            VELA_PRAGMA_OMP(omp parallel) {
                const vela::device::SubnormalsFlushed mode(walkerStep_kernel<Step>::flushSubnormals);
            VELA_PRAGMA_OMP(omp for schedule(static))
            for (long long group = 0; group < count; ++group) {
                const unsigned int y = static_cast<unsigned int>(group % groups) * kGroup;
                const unsigned int l = static_cast<unsigned int>(group / groups);
                const std::size_t row = static_cast<std::size_t>(l) * h + y;
                seg::walker::hostRows<Step>(a_, 0, w, y, std::min(kGroup, h - y), l, c[l], &first[row], &second[row]);
            }
            }
            for (unsigned int l = 0; l < labels; ++l)
                for (unsigned int y = 0; y < h; ++y) {
                    sums.first[l] += first[static_cast<std::size_t>(l) * h + y];
                    sums.second[l] += second[static_cast<std::size_t>(l) * h + y];
                }
        };
        vela::device::hostOrDevice(
            [&] {
                if (seg::hostSweep() != seg::HostSweep::Rows)
                    kernel();
                else if (restricted)
                    segmentLoops();
                else
                    rows();
            },
            kernel);
        return sums;
    }

    WalkerArrays a_;
    dim3 block_, grid_;
    seg::BlockSumReader sums_;
    LabelCoefficients coefficients_;
    // A restricted solve's segments, on the host and the device, and its sums.
    std::vector<uint3> hostSpans_;                         // (first x, end x, y): the host's runs of segments
    std::optional<vela::ScopedArray<uint2, 1>> segments_;  // none: no segment
    dim3 segmentGrid_;
    std::optional<seg::BlockSumReader> segmentSums_;
    std::vector<double> blockFirst_, blockSecond_;  // the host loops' sums per span
};

// The row segments of kSegment pixels that hold a pixel the solve must move:
// unseeded and not frozen (1 / degree above 0), listed row by row.
std::vector<uint2> activeSegments(const vela::Array<float2, 2>& diagonal) {
    const unsigned int w = diagonal.extents.x, h = diagonal.extents.y;
    const unsigned int runs = vela::device::blocksFor(w, kSegment);
    vela::ScopedArray<float, 2> active(seg::deviceArray2D<float>(runs, h));
    const dim3 block(kBlockX, kBlockY);
    vela::device::launch<activeRuns_kernel>(
        dim3(vela::device::blocksFor(runs, kBlockX), vela::device::blocksFor(h, kBlockY)), block, nullptr, active.a,
        diagonal);
    check(__LINE__);
    std::vector<float> flags(static_cast<std::size_t>(runs) * h);
    vela::Array<float, 2> host = vela::arrayFromHostMemory(flags.data(), make_uint2(runs, h));
    vela::arrayCopy(host, active.a);
    std::vector<uint2> segments;
    for (unsigned int y = 0; y < h; ++y)
        for (unsigned int c = 0; c < runs; ++c)
            if (flags[static_cast<std::size_t>(y) * runs + c] > 0.0f) segments.push_back(make_uint2(c * kSegment, y));
    return segments;
}

}  // namespace

double colourSpread(const vela::Array<float4, 2>& image) {
    const LabelSums sums = labelSums(seg::pixelSums(ImageMoments{image}, image.extents.x, image.extents.y));
    const double values = 3.0 * image.extents.x * image.extents.y;
    const double mean = sums.first[0] / values;
    return std::sqrt(std::max(0.0, sums.second[0] / values - mean * mean));
}

float walkerColourScale(double spread, float beta) {
    // A flat image has no edges to respect: all weights equal.
    if (spread < 1e-12) return 0.0f;
    return static_cast<float>(-beta / (10.0 * spread * std::sqrt(3.0)));
}

WalkerSolve addWalkerCost(PDseg& seg, const vela::Array<float, 2>& labels, const SegmentationSettings& settings,
                          double spread, const WalkerStart& start) {
    const unsigned int w = seg.costMap.extents.x, h = seg.costMap.extents.y;
    const unsigned int nLabels = seg.costMap.extents.z;
    if (seg.nLabels < 1 || w == 0 || h == 0) return {};
    if (seg.image.extents.x != w || seg.image.extents.y != h)
        throw std::runtime_error("addWalkerCost: the image is " + std::to_string(seg.image.extents.x) + " x " +
                                 std::to_string(seg.image.extents.y) + " pixels but the labels are " +
                                 std::to_string(w) + " x " + std::to_string(h));

    const dim3 block(kBlockX, kBlockY);
    const dim3 pixels(vela::device::blocksFor(w, kBlockX), vela::device::blocksFor(h, kBlockY));
    vela::ScopedArray<float2, 2> weights(seg::deviceArray2D<float2>(w, h));
    vela::ScopedArray<float2, 2> diagonal(seg::deviceArray2D<float2>(w, h));
    const float scale = walkerColourScale(spread, settings.walkerBeta);
    vela::device::launch<walkerWeights_kernel>(pixels, block, nullptr, weights.a, diagonal.a, seg.image, labels,
                                               nLabels, scale);
    check(__LINE__);

    vela::ScopedArray<float, 3> x(seg::deviceArray3D<float>(w, h, nLabels));
    vela::ScopedArray<float, 3> r(seg::deviceArray3D<float>(w, h, nLabels));
    vela::ScopedArray<float, 3> p(seg::deviceArray3D<float>(w, h, nLabels));
    vela::ScopedArray<float, 3> q(seg::deviceArray3D<float>(w, h, nLabels));
    const vela::Array<float, 3>* given = start.probabilities;
    const bool started = given != nullptr && given->data != nullptr;
    if (started && (given->extents.x != w || given->extents.y != h || given->extents.z != nLabels))
        throw std::runtime_error("addWalkerCost: the start is not W x H x L of the cost map");
    // With a free radius the start holds outside the region it leaves free;
    // without one the whole frame is solved from it.
    const bool restricted = started && start.freeRadius > 0, warm = started && start.freeRadius == 0;
    WalkerSteps steps(
        WalkerArrays{x.a, r.a, p.a, q.a, started ? *given : vela::Array<float, 3>{}, labels, weights.a, diagonal.a});

    // Preconditioned conjugate gradients, every label's system at once; a
    // label stops counting once its residual is below the tolerance relative
    // to its right-hand side, and the loop stops when all have.  A restricted
    // solve keeps the same goal, the residual relative to the whole frame's
    // right-hand side.
    LabelSums sums = steps.start();
    const std::vector<double> rhs = sums.second;
    if (restricted) {
        vela::ScopedArray<float, 2> free(seg::deviceArray2D<float>(w, h));
        seg::markFreePixels(free.a, *given, labels, start.changed ? *start.changed : vela::Array<float, 2>{},
                            start.freeRadius);
        vela::device::launch<freeze_kernel>(pixels, block, nullptr, diagonal.a, free.a);
        check(__LINE__);
        sums = steps.restrict(activeSegments(diagonal.a));
    } else if (warm) {
        sums = steps.warmStart();
    }
    std::vector<double> rz = sums.first;
    std::vector<double> rr = sums.second;
    const double goal = restricted && settings.temporalWalkerTolerance > 0.0f ? settings.temporalWalkerTolerance
                                                                              : settings.walkerTolerance;
    const double tolerance = goal * goal;
    auto converged = [&] {
        for (unsigned int l = 0; l < nLabels; ++l)
            if (rr[l] > tolerance * rhs[l]) return false;
        return true;
    };
    std::vector<float> coefficient(nLabels);
    int iterations = 0;
    for (; iterations < settings.walkerIterations && !converged(); ++iterations) {
        const std::vector<double> pq = steps.apply().first;
        for (unsigned int l = 0; l < nLabels; ++l)
            coefficient[l] = pq[l] > 0.0 ? static_cast<float>(rz[l] / pq[l]) : 0.0f;
        sums = steps.step(coefficient);
        rr = sums.second;
        for (unsigned int l = 0; l < nLabels; ++l) {
            coefficient[l] = rz[l] > 0.0 ? static_cast<float>(sums.first[l] / rz[l]) : 0.0f;
            rz[l] = sums.first[l];
        }
        steps.direction(coefficient);
    }

    const dim3 labelled(pixels.x, pixels.y, nLabels);
    vela::device::launch<walkerCost_kernel>(labelled, block, nullptr, seg.costMap, x.a, settings.dataWeight);
    check(__LINE__);
    return {std::move(x), iterations};
}
