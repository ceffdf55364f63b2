#include "src/dataterms/colour_model.h"

#include <cmath>

#include "src/block_sums.h"
#include "src/dataterms/probability_cost.h"
#include "src/dataterms/seeds.h"
#include "src/engine_arrays.h"
#include "vela/algorithms/basic.h"
#include "vela/device/atomic.h"
#include "vela/device/launch.h"

namespace {

using vela::device::Thread;

constexpr seg::DeviceCheck check{"src/dataterms/colour_model"};
constexpr unsigned int kBlockX = 32, kBlockY = 8;

constexpr int kLevels = 16;                         // per channel
constexpr int kBins = kLevels * kLevels * kLevels;  // per label
constexpr int kSmoothRadius = 3;                    // of the Gaussian, in levels (sigma 1)
// A label with fewer seeds than this learns from the (2 r + 1)^2 pixels around
// each: a click is one pixel, its object's colours are more.  r is
// kPatchRadius among track points, and kClickPatchRadius in a frame of clicks,
// whose seeds cover less than kClickShare of its pixels (a person clicks
// inside an object, where a track point may lie on a thin structure whose
// neighbours are another label's).
constexpr int kFewSeeds = 16;
constexpr int kPatchRadius = 1;
constexpr int kClickPatchRadius = 5;
constexpr double kClickShare = 0.001;
// Added to every density, so that a colour no seed has is not impossible.
constexpr float kDensityFloor = 1e-6f;

// The Gaussian of one level, normalised: its weight k levels from the centre.
VELA_HD inline float smoothWeight(int k) {
    switch (k < 0 ? -k : k) {
        case 0:
            return 0.39905027f;
        case 1:
            return 0.24203623f;
        case 2:
            return 0.05400558f;
        default:
            return 0.00443305f;
    }
}

// ---------------------------------------------------------------------------
// Kernels
// ---------------------------------------------------------------------------

VELA_HD inline int levelOf(float value) {
    const int level = static_cast<int>(value * (kLevels / 256.0f));
    return level < 0 ? 0 : (level >= kLevels ? kLevels - 1 : level);
}

VELA_HD inline unsigned int binOf(const float4& c) {
    return static_cast<unsigned int>((levelOf(c.x) * kLevels + levelOf(c.y)) * kLevels + levelOf(c.z));
}

VELA_HD inline bool pixelOf(const Thread& t, unsigned int w, unsigned int h, unsigned int& x, unsigned int& y) {
    x = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
    y = t.blockIdx.y * t.blockDim.y + t.threadIdx.y;
    return x < w && y < h;
}

// Seeds per label.
struct countSeeds_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<int, 1> seeds, vela::Array<float, 2> labels,
                            unsigned int nLabels) const {
        unsigned int x, y;
        if (!pixelOf(t, labels.extents.x, labels.extents.y, x, y)) return;
        const int l = seg::seedOf(labels, x, y, nLabels);
        if (l >= 0) vela::device::addAtomic(&vela::at(seeds, static_cast<unsigned int>(l)), 1);
    }
};

// The colours of every seed (of the patch around it, for a label with few
// seeds) counted into counts(bin, label), and their number into samples.
struct countColours_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<int, 2> counts, vela::Array<int, 1> samples,
                            vela::Array<int, 1> seeds, vela::Array<float, 2> labels, vela::Array<float4, 2> image,
                            unsigned int nLabels, int patchRadius) const {
        const unsigned int w = labels.extents.x, h = labels.extents.y;
        unsigned int x, y;
        if (!pixelOf(t, w, h, x, y)) return;
        const int l = seg::seedOf(labels, x, y, nLabels);
        if (l < 0) return;
        const unsigned int label = static_cast<unsigned int>(l);
        const int r = vela::at(seeds, label) < kFewSeeds ? patchRadius : 0;
        int added = 0;
        for (int j = static_cast<int>(y) - r; j <= static_cast<int>(y) + r; ++j)
            for (int i = static_cast<int>(x) - r; i <= static_cast<int>(x) + r; ++i) {
                if (i < 0 || j < 0 || i >= static_cast<int>(w) || j >= static_cast<int>(h)) continue;
                const unsigned int bin =
                    binOf(vela::at(image, static_cast<unsigned int>(i), static_cast<unsigned int>(j)));
                vela::device::addAtomic(&vela::at(counts, bin, label), 1);
                ++added;
            }
        vela::device::addAtomic(&vela::at(samples, label), added);
    }
};

// One pass of the separable smoothing along one channel (stride 1, kLevels or
// kLevels^2 between neighbouring levels); colours outside the cube count 0.
template <class In>
struct smoothBins_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> out, vela::Array<In, 2> in, int stride) const {
        const unsigned int bin = t.blockIdx.x * t.blockDim.x + t.threadIdx.x;
        const unsigned int label = t.blockIdx.y;
        if (bin >= static_cast<unsigned int>(kBins) || label >= out.extents.y) return;
        const int level = (static_cast<int>(bin) / stride) % kLevels;
        float sum = 0.0f;
        for (int k = -kSmoothRadius; k <= kSmoothRadius; ++k) {
            if (level + k < 0 || level + k >= kLevels) continue;
            const unsigned int other = static_cast<unsigned int>(static_cast<int>(bin) + k * stride);
            sum += smoothWeight(k) * static_cast<float>(vela::at(in, other, label));
        }
        vela::at(out, bin, label) = sum;
    }
};

// The density of each label at a colour bin; `without` (a label, or -1) leaves
// one sample of that label out, the seed being classified.
struct Densities {
    vela::Array<float, 2> density;
    vela::Array<float, 1> samples;

    VELA_HD float at(unsigned int bin, unsigned int label, int without) const {
        float count = vela::at(density, bin, label);
        float n = vela::at(samples, label);
        if (static_cast<int>(label) == without) {
            // The seed's own share of its bin after smoothing.
            count = fmaxf(count - smoothWeight(0) * smoothWeight(0) * smoothWeight(0), 0.0f);
            n -= 1.0f;
        }
        return count / fmaxf(n, 1.0f) + kDensityFloor;
    }
};

// cost(x, y, l) += weight * cost of P(l | colour).
struct colourCost_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 3> cost, Densities d, vela::Array<float4, 2> image,
                            float weight) const {
        unsigned int x, y;
        if (!pixelOf(t, cost.extents.x, cost.extents.y, x, y)) return;
        const unsigned int bin = binOf(vela::at(image, x, y));
        const unsigned int labels = cost.extents.z;
        float total = 0.0f;
        for (unsigned int l = 0; l < labels; ++l) total += d.at(bin, l, -1);
        for (unsigned int l = 0; l < labels; ++l)
            vela::at(cost, x, y, l) += seg::probabilityCost(d.at(bin, l, -1) / total, weight);
    }
};

// At each seed, the density of its own label (without the seed) over the
// largest density; 1 elsewhere.
struct seedFit_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<float, 2> fit, Densities d, vela::Array<float, 2> labels,
                            vela::Array<float4, 2> image, unsigned int nLabels) const {
        unsigned int x, y;
        if (!pixelOf(t, fit.extents.x, fit.extents.y, x, y)) return;
        const int own = seg::seedOf(labels, x, y, nLabels);
        if (own < 0) {
            vela::at(fit, x, y) = 1.0f;
            return;
        }
        const unsigned int bin = binOf(vela::at(image, x, y));
        float largest = 0.0f;
        for (unsigned int l = 0; l < nLabels; ++l) largest = fmaxf(largest, d.at(bin, l, own));
        vela::at(fit, x, y) = d.at(bin, static_cast<unsigned int>(own), own) / largest;
    }
};

// Seeds whose own label has the largest density without them, per label.
struct seedHits_kernel {
    VELA_HD void operator()(const Thread& t, vela::Array<int, 1> hits, Densities d, vela::Array<float, 2> labels,
                            vela::Array<float4, 2> image, unsigned int nLabels) const {
        unsigned int x, y;
        if (!pixelOf(t, labels.extents.x, labels.extents.y, x, y)) return;
        const int own = seg::seedOf(labels, x, y, nLabels);
        if (own < 0) return;
        const unsigned int bin = binOf(vela::at(image, x, y));
        const float mine = d.at(bin, static_cast<unsigned int>(own), own);
        for (unsigned int l = 0; l < nLabels; ++l)
            if (static_cast<int>(l) != own && d.at(bin, l, own) >= mine) return;
        vela::device::addAtomic(&vela::at(hits, static_cast<unsigned int>(own)), 1);
    }
};

// ---------------------------------------------------------------------------
// Host functions
// ---------------------------------------------------------------------------

dim3 pixelBlock() { return dim3(kBlockX, kBlockY); }
dim3 pixelGrid(const vela::Array<float, 2>& a) {
    return dim3(vela::device::blocksFor(a.extents.x, kBlockX), vela::device::blocksFor(a.extents.y, kBlockY));
}

template <class T, int N>
void zero(vela::Array<T, N>& a) {
    auto whole = vela::internal::increaseArrayDimension(a);
    vela::set(whole, T(0), nullptr);
}

template <class T>
std::vector<T> toHost(const vela::Array<T, 1>& a) {
    std::vector<T> values(a.extents.x);
    vela::Array<T, 1> host = seg::hostView1D(values.data(), a.extents.x);
    vela::arrayCopy(host, a);
    return values;
}

}  // namespace

ColourModel::ColourModel(const vela::Array<float4, 2>& image, const vela::Array<float, 2>& labels, unsigned int nLabels)
    : image_(image), labels_(labels), nLabels_(nLabels) {
    if (nLabels == 0) return;
    vela::ScopedArray<int, 1> seeds(seg::deviceArray1D<int>(nLabels));
    zero(seeds.a);
    vela::device::launch<countSeeds_kernel>(pixelGrid(labels), pixelBlock(), nullptr, seeds.a, labels, nLabels);
    check(__LINE__);
    seeds_ = toHost(seeds.a);
    double seeded = 0.0;
    for (int count : seeds_) seeded += count;
    const bool clicks = seeded < kClickShare * labels.extents.x * labels.extents.y;

    vela::ScopedArray<int, 2> counts(seg::deviceArray2D<int>(kBins, nLabels));
    vela::ScopedArray<int, 1> samples(seg::deviceArray1D<int>(nLabels));
    zero(counts.a);
    zero(samples.a);
    vela::device::launch<countColours_kernel>(pixelGrid(labels), pixelBlock(), nullptr, counts.a, samples.a, seeds.a,
                                              labels, image, nLabels, clicks ? kClickPatchRadius : kPatchRadius);
    check(__LINE__);

    // Smoothing along blue, green and red, one pass each.
    const dim3 block(256), grid(vela::device::blocksFor(kBins, 256), nLabels);
    vela::ScopedArray<float, 2> smoothed(seg::deviceArray2D<float>(kBins, nLabels));
    density_ = seg::deviceArray2D<float>(kBins, nLabels);
    vela::device::launch<smoothBins_kernel<int>>(grid, block, nullptr, density_, counts.a, 1);
    vela::device::launch<smoothBins_kernel<float>>(grid, block, nullptr, smoothed.a, density_, kLevels);
    vela::device::launch<smoothBins_kernel<float>>(grid, block, nullptr, density_, smoothed.a, kLevels * kLevels);
    check(__LINE__);

    sampleCounts_ = toHost(samples.a);
    std::vector<float> n(sampleCounts_.begin(), sampleCounts_.end());
    samples_ = seg::deviceArray1D<float>(nLabels);
    vela::arrayCopy(samples_, seg::hostView1D(n.data(), nLabels));
}

ColourModel::~ColourModel() {
    vela::freeArray(density_);
    vela::freeArray(samples_);
}

float ColourModel::separability() const {
    if (nLabels_ == 0) return 0.0f;
    vela::ScopedArray<int, 1> hits(seg::deviceArray1D<int>(nLabels_));
    zero(hits.a);
    vela::device::launch<seedHits_kernel>(pixelGrid(labels_), pixelBlock(), nullptr, hits.a,
                                          Densities{density_, samples_}, labels_, image_, nLabels_);
    check(__LINE__);
    const std::vector<int> right = toHost(hits.a);
    double share = 0.0;
    int seeded = 0;
    for (unsigned int l = 0; l < nLabels_; ++l) {
        if (seeds_[l] == 0) continue;
        share += static_cast<double>(right[l]) / seeds_[l];
        ++seeded;
    }
    if (seeded < 2) return 0.0f;
    const double chance = 1.0 / seeded;
    return static_cast<float>(std::fmax(0.0, (share / seeded - chance) / (1.0 - chance)));
}

void ColourModel::addCost(vela::Array<float, 3>& cost, float weight) const {
    if (nLabels_ == 0 || weight == 0.0f) return;
    const dim3 grid(vela::device::blocksFor(cost.extents.x, kBlockX), vela::device::blocksFor(cost.extents.y, kBlockY));
    vela::device::launch<colourCost_kernel>(grid, pixelBlock(), nullptr, cost, Densities{density_, samples_}, image_,
                                            weight);
    check(__LINE__);
}

void ColourModel::seedFit(vela::Array<float, 2>& fit) const {
    vela::device::launch<seedFit_kernel>(pixelGrid(fit), pixelBlock(), nullptr, fit, Densities{density_, samples_},
                                         labels_, image_, nLabels_);
    check(__LINE__);
}
